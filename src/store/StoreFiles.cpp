#include "store/StoreFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>

#include "util/Format.h"

namespace tarnwell {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kStoreSuffix = ".db";
constexpr std::string_view kNewSuffix = ".db.new";
constexpr std::string_view kDamagedMark = ".db.damaged-";
constexpr std::string_view kUnreadMark = ".db.unread-";
constexpr int kMostAside = 5;

/// A name that is free, or the last one.
std::string asideName(const std::string& path, AsideReason reason) {
    const char* word = reason == AsideReason::kDamaged ? "damaged" : "unread";
    std::string aside;
    for (int number = 1; number <= kMostAside; ++number) {
        aside = format("%@.%s-%d", path, word, number);
        struct stat status {};
        if (::lstat(aside.c_str(), &status) != 0) break;
    }
    return aside;
}

}  // namespace

int readStoreFile(const std::string& path, std::string& bytes) {
    bytes.clear();
    // Non-blocking: opening a pipe that stands in the file's place must not hang.
    const OwnedDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) return errno;
    if (!S_ISREG(status.st_mode)) return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    bytes.resize(static_cast<std::size_t>(status.st_size));
    std::size_t done = 0;
    while (done < bytes.size()) {
        const auto count = ::read(file.get(), bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        if (count == 0) break;
        done += static_cast<std::size_t>(count);
    }
    bytes.resize(done);
    return 0;
}

ReplacementFile::ReplacementFile(std::string path) : path_(std::move(path)) {}

ReplacementFile::ReplacementFile(ReplacementFile&& other) noexcept
    : path_(std::move(other.path_)),
      descriptor_(std::move(other.descriptor_)),
      error_(other.error_),
      exists_(std::exchange(other.exists_, false)) {}

ReplacementFile& ReplacementFile::operator=(ReplacementFile&& other) noexcept {
    std::swap(path_, other.path_);
    std::swap(descriptor_, other.descriptor_);
    std::swap(error_, other.error_);
    std::swap(exists_, other.exists_);
    return *this;
}

ReplacementFile::~ReplacementFile() {
    descriptor_.reset();
    if (exists_) ::unlink(temporary().c_str());
}

std::string ReplacementFile::temporary() const {
    return path_ + ".new";
}

int ReplacementFile::fail(int error) {
    if (error_ == 0) error_ = error;
    return error_;
}

int ReplacementFile::open() {
    // What a save that was cut off left under this name is no good. Only the user may read the new one.
    ::unlink(temporary().c_str());
    descriptor_ = OwnedDescriptor(
        ::open(temporary().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!descriptor_) return fail(errno);
    exists_ = true;
    return 0;
}

int ReplacementFile::write(std::string_view bytes) {
    while (error_ == 0 && !bytes.empty()) {
        const auto count = ::write(descriptor_.get(), bytes.data(), bytes.size());
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (count == 0) {
            fail(EIO);
        } else if (errno != EINTR) {
            fail(errno);
        }
    }
    return error_;
}

int ReplacementFile::startSync() {
    // Only a hint: whether it worked is told by sync().
    if (error_ == 0) ::sync_file_range(descriptor_.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
    return error_;
}

int ReplacementFile::sync() {
    if (!descriptor_) return error_;
    if (error_ == 0 && ::fsync(descriptor_.get()) != 0) fail(errno);
    // Some file systems tell of a full disk only now.
    if (const int descriptor = descriptor_.release(); descriptor >= 0 && ::close(descriptor) != 0)
        fail(errno);
    return error_;
}

int ReplacementFile::commit() {
    if (error_ == 0 && ::rename(temporary().c_str(), path_.c_str()) != 0) fail(errno);
    if (error_ == 0) exists_ = false;
    return error_;
}

int syncStoreFolder(const std::string& folder) {
    const OwnedDescriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!descriptor) return errno;
    if (::fsync(descriptor.get()) == 0 || errno == EINVAL) return 0;
    return errno;
}

std::string setStoreFileAside(const std::string& path, AsideReason reason) {
    const std::string aside = asideName(path, reason);
    return ::rename(path.c_str(), aside.c_str()) == 0 ? fs::path(aside).filename().string() : std::string();
}

std::string keepStoreFileAside(const std::string& path, AsideReason reason) {
    // The file is only ever replaced, never written to, so a second name keeps what it holds.
    const std::string aside = asideName(path, reason);
    ::unlink(aside.c_str());
    return ::link(path.c_str(), aside.c_str()) == 0 ? fs::path(aside).filename().string() : std::string();
}

std::vector<std::string> storeFileNames(const std::string& folder, bool leftovers) {
    std::vector<std::string> names;
    std::error_code error;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        auto name = entry->path().filename().string();
        const bool leftover = name.ends_with(kNewSuffix) || name.find(kDamagedMark) != std::string::npos ||
                              name.find(kUnreadMark) != std::string::npos;
        if (name.ends_with(kStoreSuffix) || (leftovers && leftover)) names.push_back(std::move(name));
    }
    return names;
}

void removeCutOffFiles(const std::string& folder) {
    for (const auto& name : storeFileNames(folder, true)) {
        if (name.ends_with(kNewSuffix)) ::unlink((folder + "/" + name).c_str());
    }
}

}  // namespace tarnwell
