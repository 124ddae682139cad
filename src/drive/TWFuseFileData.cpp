#include "drive/TWFuseFileData.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace tarnwell {
namespace {

/// A new version has a new name and is seen at once; this bounds how long another file under the same name is
/// not.
constexpr std::chrono::milliseconds kFreshFor{100};

struct Registry {
    std::mutex mutex;
    std::vector<std::pair<const TWFuseFileData*, std::weak_ptr<TWFuseFileData>>> handles;  // guarded by mutex
};

Registry& registry() {
    // Never destroyed: a file-system thread that was left to itself may close its handle while the process
    // ends.
    static auto* registry = new Registry;
    return *registry;
}

}  // namespace

CacheFile::~CacheFile() {
    ::close(descriptor_);
}

TWFuseFileData::TWFuseFileData(int openFlags, pid_t openProcess, SharedString fileId)
    : openFlags_(openFlags), openProcess_(openProcess), fileId_(std::move(fileId)) {}

std::shared_ptr<TWFuseFileData> TWFuseFileData::create(int openFlags, pid_t openProcess,
                                                       SharedString fileId) {
    std::shared_ptr<TWFuseFileData> handle(new TWFuseFileData(openFlags, openProcess, std::move(fileId)));
    std::lock_guard lock(registry().mutex);
    registry().handles.emplace_back(handle.get(), handle);
    return handle;
}

TWFuseFileData::~TWFuseFileData() {
    close();
}

std::vector<std::shared_ptr<TWFuseFileData>> TWFuseFileData::openedFiles() {
    std::vector<std::shared_ptr<TWFuseFileData>> result;
    std::lock_guard lock(registry().mutex);
    result.reserve(registry().handles.size());
    for (const auto& [address, weak] : registry().handles) {
        if (auto handle = weak.lock()) result.push_back(std::move(handle));
    }
    return result;
}

void TWFuseFileData::close() {
    {
        std::lock_guard lock(registry().mutex);
        std::erase_if(registry().handles, [this](const auto& entry) { return entry.first == this; });
    }
    CacheFilePtr file;
    std::lock_guard lock(mutex_);
    closed_ = true;
    file.swap(file_);
    fileId_.reset();
    modified_ = false;
    lastWrite_.reset();
}

SharedString TWFuseFileData::fileId() const {
    std::lock_guard lock(mutex_);
    return fileId_;
}

int TWFuseFileData::fileDescriptor() const {
    std::lock_guard lock(mutex_);
    return file_ ? file_->descriptor() : -1;
}

bool TWFuseFileData::modified() const {
    std::lock_guard lock(mutex_);
    return modified_;
}

std::optional<Date> TWFuseFileData::lastWrite() const {
    std::lock_guard lock(mutex_);
    return lastWrite_;
}

CacheFilePtr TWFuseFileData::freshCacheFile(const SharedString& version) const {
    std::lock_guard lock(mutex_);
    const bool fresh =
        file_ && version_ == version && std::chrono::steady_clock::now() - verified_ < kFreshFor;
    return fresh ? file_ : nullptr;
}

ErrnoOr<CacheFilePtr> TWFuseFileData::openCacheFile(const std::string& path, const SharedString& version,
                                                    int extraFlags) {
    std::lock_guard lock(mutex_);
    if (closed_) return Errno{EBADF};
    version_ = version;
    verified_ = std::chrono::steady_clock::now();
    struct stat now {};
    if (file_ && (::stat(path.c_str(), &now) != 0 || file_->isSameFile(now.st_dev, now.st_ino))) return file_;

    // The access mode alone: O_APPEND would defeat positioned writes, O_DIRECT asks for aligned buffers, and
    // creation and truncation are the drive's own decisions.
    const int flags = (openFlags_ & O_ACCMODE) | extraFlags | O_CLOEXEC;
    const int descriptor = ::open(path.c_str(), flags, 0600);
    if (descriptor < 0) return Errno{errno};
    if (::fstat(descriptor, &now) != 0) {
        const Errno error{errno};
        ::close(descriptor);
        return error;
    }
    file_ = std::make_shared<const CacheFile>(descriptor, now.st_dev, now.st_ino);
    return file_;
}

void TWFuseFileData::setCacheFile(CacheFilePtr file) {
    std::lock_guard lock(mutex_);
    if (!closed_) file_ = std::move(file);
}

void TWFuseFileData::noteWrite(Date now) {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    modified_ = true;
    lastWrite_ = now;
}

SharedString TWFuseFileData::takeQuietBurst(Date now, std::chrono::milliseconds quiet) {
    std::lock_guard lock(mutex_);
    if (!modified_ || !lastWrite_ || now - *lastWrite_ <= quiet) return {};
    modified_ = false;
    lastWrite_.reset();
    return fileId_;
}

}  // namespace tarnwell
