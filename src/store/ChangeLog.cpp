#include "store/ChangeLog.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <boost/crc.hpp>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <utility>

#include "platform/LocalSocket.h"
#include "store/StoreFiles.h"

namespace tarnwell {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kPrefix = "changes-";
constexpr std::string_view kSuffix = ".log";
constexpr std::string_view kMagic = "TWCHG001";
/// Length and checksum, 4 bytes each.
constexpr std::size_t kHead = 8;
constexpr std::string_view kSpareName = "log.reserve";
/// Reserved at once, and when more is reserved.
constexpr std::int64_t kAhead = std::int64_t{1} << 20U;
constexpr std::int64_t kLow = std::int64_t{256} << 10U;

/// Reserves blocks without changing the file's size. 0 or errno.
int reserveBlocks(int file, std::int64_t from, std::int64_t to) {
    while (::fallocate(file, FALLOC_FL_KEEP_SIZE, from, to - from) != 0) {
        if (errno != EINTR) return errno;
    }
    return 0;
}

bool isFull(int error) {
    return error == ENOSPC || error == EDQUOT;
}

bool cannotReserve(int error) {
    return error == EOPNOTSUPP || error == ENOSYS || error == EINVAL;
}

void putNumber(std::string& bytes, std::size_t at, std::uint32_t number) {
    for (std::size_t i = 0; i < 4; ++i)
        bytes[at + i] = static_cast<char>(number >> (8 * i));
}

std::uint32_t numberAt(std::string_view bytes, std::size_t at) {
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < 4; ++i)
        number |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
    return number;
}

std::uint32_t checksum(std::string_view bytes) {
    boost::crc_32_type crc;
    crc.process_bytes(bytes.data(), bytes.size());
    return crc.checksum();
}

std::string framed(std::string_view piece) {
    std::string bytes(kHead, '\0');
    bytes += piece;
    putNumber(bytes, 0, static_cast<std::uint32_t>(piece.size()));
    putNumber(bytes, 4, checksum(piece));
    return bytes;
}

std::set<std::uint64_t> segmentsIn(const std::string& folder) {
    std::set<std::uint64_t> numbers;
    std::error_code error;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (!name.starts_with(kPrefix) || !name.ends_with(kSuffix)) continue;
        std::uint64_t number = 0;
        const char* first = name.data() + kPrefix.size();
        const char* last = name.data() + name.size() - kSuffix.size();
        if (const auto end = std::from_chars(first, last, number); end.ec == std::errc() && end.ptr == last)
            numbers.insert(number);
    }
    return numbers;
}

std::string segmentName(std::uint64_t number) {
    return std::string(kPrefix) + std::to_string(number) + std::string(kSuffix);
}

}  // namespace

struct ChangeLog::Segment {
    OwnedDescriptor file;
    std::uint64_t number = 0;
    off_t size = 0;           // guarded by the store's lock
    off_t room = 0;           // up to here blocks are reserved; guarded by the store's lock
    std::uint64_t last = 0;   // its latest piece; guarded by mutex_
    bool isInFolder = false;  // for sure; guarded by syncing_
    int failed = 0;           // errno; the disk refused once: what it holds is not known; guarded by syncing_
};

ChangeLog::ChangeLog(std::string folder, Opening opening)
    : folder_(std::move(folder)), opening_(std::move(opening)) {}
ChangeLog::~ChangeLog() = default;

std::string ChangeLog::path(std::uint64_t number) const {
    return folder_ + "/" + segmentName(number);
}

void ChangeLog::findSegments() {
    if (numbers_) return;
    numbers_ = segmentsIn(folder_);
    if (!numbers_->empty()) next_ = *numbers_->rbegin() + 1;
}

bool ChangeLog::empty() {
    findSegments();
    return numbers_->empty();
}

int ChangeLog::append(std::string_view piece) {
    if (piece.size() > std::numeric_limits<std::uint32_t>::max()) return EFBIG;
    const std::string bytes = framed(piece);
    if (current_) {
        const int error = write(bytes);
        // The open segment has no room left; the next one has.
        if (!isFull(error) || !hasSpare_) return error;
        current_.reset();
    }
    if (const int error = beginSegment()) return error;
    return write(bytes);
}

int ChangeLog::beginSegment() {
    findSegments();
    auto segment = std::make_shared<Segment>();
    const std::uint64_t number = segment->number = next_;
    const std::string spare = folder_ + "/" + std::string(kSpareName);
    const bool hadSpare =
        std::exchange(hasSpare_, false) && ::rename(spare.c_str(), path(number).c_str()) == 0;
    segment->file = OwnedDescriptor(::open(
        path(number).c_str(), O_WRONLY | (hadSpare ? 0 : O_CREAT | O_EXCL) | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!segment->file) return errno;
    if (hadSpare) segment->room = kAhead;
    ++next_;
    numbers_->insert(number);
    current_ = std::move(segment);
    const int error = write(std::string(kMagic) + framed(opening_()));
    if (error == 0) {
        makeSpare();
        return 0;
    }
    current_.reset();
    ::unlink(path(number).c_str());
    numbers_->erase(number);
    return error;
}

/// What an earlier run left under the name has no blocks that are known of.
int ChangeLog::makeSpare() {
    if (!canReserve_ || hasSpare_) return 0;
    const std::string name = folder_ + "/" + std::string(kSpareName);
    const OwnedDescriptor file(
        ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600));
    int error = file ? reserveBlocks(file.get(), 0, kAhead) : errno;
    hasSpare_ = error == 0;
    if (hasSpare_) return 0;
    ::unlink(name.c_str());
    if (cannotReserve(error)) {
        canReserve_ = false;
        error = 0;
    }
    return error;
}

/// Up to `end`, or where that does not fit up to `atLeast`. 0 or errno.
int ChangeLog::reserveUpTo(Segment& segment, std::int64_t end, std::int64_t atLeast) {
    if (!canReserve_ || segment.room >= atLeast) return 0;
    int error = reserveBlocks(segment.file.get(), segment.room, end);
    if (isFull(error) && atLeast < end) {
        end = atLeast;
        error = reserveBlocks(segment.file.get(), segment.room, end);
    }
    if (error == 0) segment.room = end;
    if (cannotReserve(error)) {
        canReserve_ = false;
        error = 0;
    }
    return error;
}

int ChangeLog::freeSpaceFor(std::size_t bytes) const {
    struct statvfs disk {};
    if (::statvfs(folder_.c_str(), &disk) != 0) return errno;
    return static_cast<std::uint64_t>(disk.f_bavail) * disk.f_frsize >= bytes ? 0 : ENOSPC;
}

int ChangeLog::reserve(std::size_t bytes) {
    const auto wanted = static_cast<std::int64_t>(bytes);
    const int noSpare = makeSpare();
    if (!canReserve_) return freeSpaceFor(bytes);
    if (hasSpare_ && wanted <= kAhead / 2) return 0;
    if (!current_) return noSpare;
    return reserveUpTo(*current_, current_->size + std::max(kAhead, wanted), current_->size + wanted);
}

int ChangeLog::write(std::string_view bytes) {
    Segment& segment = *current_;
    const auto end = segment.size + static_cast<std::int64_t>(bytes.size());
    std::size_t done = 0;
    int error = reserveUpTo(segment, end + kAhead, end);
    // The blocks that are reserved stay: a shorter piece may fit.
    if (isFull(error)) return error;
    error = 0;
    while (done < bytes.size() && error == 0) {
        const auto count = ::pwrite(segment.file.get(), bytes.data() + done, bytes.size() - done,
                                    segment.size + static_cast<off_t>(done));
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            error = count == 0 ? EIO : errno;
        }
    }
    if (error != 0) {
        // What follows half a piece would not be read. What was reserved goes with it.
        segment.room = segment.size;
        if (::ftruncate(segment.file.get(), segment.size) != 0) current_.reset();
        return error;
    }
    segment.size = end;
    if (segment.room - segment.size < kLow) reserveUpTo(segment, end + kAhead, end + kAhead);
    const std::lock_guard lock(mutex_);
    segment.last = ++appended_;
    if (unsynced_.empty() || unsynced_.back() != current_) unsynced_.push_back(current_);
    return 0;
}

bool ChangeLog::rotate(std::uint64_t& number) {
    findSegments();
    const bool possible = !current_ || makeSpare() == 0;
    if (possible) current_.reset();
    number = possible ? next_ : current_->number;
    return possible;
}

void ChangeLog::removeBefore(std::uint64_t number) {
    findSegments();
    while (!numbers_->empty() && *numbers_->begin() < number) {
        ::unlink(path(*numbers_->begin()).c_str());
        numbers_->erase(numbers_->begin());
    }
    if (current_ && !numbers_->contains(next_ - 1)) current_.reset();
    const std::lock_guard lock(mutex_);
    std::erase_if(unsynced_, [number](const auto& segment) { return segment->number < number; });
}

void ChangeLog::clear() {
    current_.reset();
    numbers_.reset();
    removeBefore(std::numeric_limits<std::uint64_t>::max());
}

void ChangeLog::removeFrom(const std::string& folder) {
    for (const auto number : segmentsIn(folder))
        ::unlink((folder + "/" + segmentName(number)).c_str());
    ::unlink((folder + "/" + std::string(kSpareName)).c_str());
}

int ChangeLog::sync() {
    std::uint64_t wanted = 0;
    {
        const std::lock_guard lock(mutex_);
        wanted = appended_;
        if (unsynced_.empty()) return 0;
    }
    const std::lock_guard one(syncing_);
    std::vector<std::shared_ptr<Segment>> segments;
    std::uint64_t all = 0;
    {
        const std::lock_guard lock(mutex_);
        if (synced_ >= wanted) return 0;
        all = appended_;
        segments = unsynced_;
    }
    for (const auto& segment : segments) {
        // A disk that refused once may forget and say yes the next time.
        if (segment->failed == 0 && ::fdatasync(segment->file.get()) != 0) segment->failed = errno;
        if (segment->failed != 0) return segment->failed;
        if (!segment->isInFolder) {
            if (const int error = syncStoreFolder(folder_)) return error;
        }
        segment->isInFolder = true;
    }
    const std::lock_guard lock(mutex_);
    synced_ = std::max(synced_, all);
    std::erase_if(unsynced_, [&](const auto& segment) { return segment->last <= all; });
    return 0;
}

void ChangeLog::read(const std::string& folder, const std::function<void(std::string_view)>& each,
                     const std::function<void(const std::string&, std::string_view)>& damaged) {
    for (const auto number : segmentsIn(folder)) {
        const std::string name = segmentName(number);
        std::string bytes;
        if (const int error = readStoreFile(folder + "/" + name, bytes)) {
            damaged(name, std::generic_category().message(error));
            continue;
        }
        std::string_view rest(bytes);
        if (!rest.starts_with(kMagic)) {
            damaged(name, "it does not begin as a log");
            continue;
        }
        rest.remove_prefix(kMagic.size());
        while (!rest.empty()) {
            const std::size_t length = rest.size() < kHead ? 0 : numberAt(rest, 0);
            // Blocks that were reserved and not written read as zeros: no piece is empty.
            if (rest.size() < kHead || rest.size() - kHead < length || length == 0) {
                damaged(name, "its end is missing");
                break;
            }
            const std::string_view piece = rest.substr(kHead, length);
            if (checksum(piece) != numberAt(rest, 4)) {
                damaged(name, "a checksum is wrong");
                break;
            }
            each(piece);
            rest.remove_prefix(kHead + length);
        }
    }
}

}  // namespace tarnwell
