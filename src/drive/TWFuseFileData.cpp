#include "drive/TWFuseFileData.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

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

bool CacheFile::isAt(const std::string& path) const {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && isSameFile(status.st_dev, status.st_ino);
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

std::vector<std::shared_ptr<TWFuseFileData>> TWFuseFileData::openedFiles(std::string_view fileId) {
    auto handles = openedFiles();
    std::erase_if(handles, [&](const auto& handle) { return !(handle->fileId() == fileId); });
    return handles;
}

bool TWFuseFileData::isWritten(std::string_view fileId, const TWFuseFileData* except) {
    const auto handles = openedFiles();
    return std::any_of(handles.begin(), handles.end(), [&](const auto& handle) {
        return handle.get() != except && handle->modified() && handle->fileId() == fileId;
    });
}

void TWFuseFileData::identityChanged(std::string_view from, std::string_view to) {
    const SharedString newId(to);
    for (const auto& handle : openedFiles()) {
        handle->changeFileId(to, {});
        handle->changeFileId(from, newId);
    }
}

void TWFuseFileData::identitiesExchanged(std::string_view a, std::string_view b) {
    const SharedString first(a), second(b);
    for (const auto& handle : openedFiles()) {
        const auto id = handle->fileId();
        if (id == first) handle->changeFileId(a, second);
        if (id == second) handle->changeFileId(b, first);
    }
}

void TWFuseFileData::contentsRenamed(std::string_view id, std::string_view from, std::string_view to) {
    if (from == to) return;
    for (const auto& handle : openedFiles(id)) {
        std::lock_guard lock(handle->mutex_);
        if (!handle->pinned_ || !(handle->pinned_->UploadName == from)) continue;
        const auto renamed = std::make_shared<TWVirtualFile>(*handle->pinned_);
        renamed->UploadName = to;
        handle->pinned_ = renamed;
    }
}

void TWFuseFileData::cacheFileChanged(std::string_view fileId) {
    for (const auto& handle : openedFiles(fileId)) {
        std::lock_guard lock(handle->mutex_);
        handle->verified_ = {};
    }
}

bool TWFuseFileData::isOpen(std::string_view fileId) {
    return !openedFiles(fileId).empty();
}

/// An absent `to` detaches.
void TWFuseFileData::changeFileId(std::string_view from, const SharedString& to) {
    std::lock_guard lock(mutex_);
    if (!(fileId_ == from)) return;
    fileId_ = to;
    if (!to) detached_ = true;
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
    formerRecord_.reset();
    pinned_.reset();
    fileId_.reset();
    modified_ = created_ = false;
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
    if (file_ && file_->isAt(path)) return file_;

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

CacheFilePtr TWFuseFileData::cacheFile() const {
    std::lock_guard lock(mutex_);
    return file_;
}

bool TWFuseFileData::pin(const TWVirtualFile& record) {
    std::lock_guard lock(mutex_);
    if (!pinned_) pinned_ = std::make_shared<TWVirtualFile>(record);
    return pinned_->UploadName == record.UploadName;
}

void TWFuseFileData::repin(const TWVirtualFile& record) {
    std::lock_guard lock(mutex_);
    if (pinned_ && pinned_->UploadName == record.UploadName && pinned_->Tick == record.Tick) return;
    pinned_ = std::make_shared<TWVirtualFile>(record);
}

TWVirtualFilePtr TWFuseFileData::pinned() const {
    std::lock_guard lock(mutex_);
    return pinned_;
}

bool TWFuseFileData::usesVersion(const SharedString& version) const {
    std::lock_guard lock(mutex_);
    return !pinned_ || pinned_->UploadName == version;
}

void TWFuseFileData::detach(TWVirtualFilePtr record, const std::string& path) {
    // Without a cache file there is nothing to open, and nothing to keep.
    if (usesVersion(record->UploadName)) {
        if (!path.empty()) (void)openCacheFile(path, record->UploadName);
    } else {
        record = pinned();
    }
    std::lock_guard lock(mutex_);
    detached_ = true;
    fileId_.reset();
    formerRecord_ = std::move(record);
    modified_ = created_ = progress_ = false;
}

ErrnoOr<std::shared_ptr<TWFuseFileData>> TWFuseFileData::reopen(int openFlags, pid_t openProcess) const {
    // Nobody else knows it yet.
    auto handle = create(openFlags, openProcess, {});
    std::lock_guard lock(mutex_);
    handle->detached_ = true;
    handle->formerRecord_ = formerRecord_;
    handle->pinned_ = pinned_;
    if (file_) {
        const auto path = "/proc/self/fd/" + std::to_string(file_->descriptor());
        const int descriptor = ::open(path.c_str(), (openFlags & O_ACCMODE) | O_CLOEXEC);
        struct stat status {};
        if (descriptor < 0 || ::fstat(descriptor, &status) != 0) {
            const Errno error{errno};
            if (descriptor >= 0) ::close(descriptor);
            return error;
        }
        handle->file_ = std::make_shared<const CacheFile>(descriptor, status.st_dev, status.st_ino);
    }
    return handle;
}

bool TWFuseFileData::isDetached() const {
    std::lock_guard lock(mutex_);
    return detached_;
}

TWVirtualFilePtr TWFuseFileData::formerRecord() const {
    std::lock_guard lock(mutex_);
    return formerRecord_;
}

void TWFuseFileData::noteCreation() {
    std::lock_guard lock(mutex_);
    created_ = true;
}

bool TWFuseFileData::created() const {
    std::lock_guard lock(mutex_);
    return created_;
}

void TWFuseFileData::beginWrite(Date now) {
    std::lock_guard lock(mutex_);
    ++writing_;
    if (closed_ || detached_) return;
    modified_ = true;
    lastWrite_ = now;
}

void TWFuseFileData::endWrite(Date now) {
    std::lock_guard lock(mutex_);
    --writing_;
    if (closed_ || detached_) return;
    modified_ = progress_ = true;
    lastWrite_ = now;
}

bool TWFuseFileData::claimQuietBurst(Date now, std::chrono::milliseconds quiet) {
    std::lock_guard lock(mutex_);
    if (claimed_ || !modified_ || writing_ > 0 || !lastWrite_ || now - *lastWrite_ <= quiet) return false;
    claimed_ = true;
    return true;
}

bool TWFuseFileData::takeQuietBurst(Date now, std::chrono::milliseconds quiet) {
    std::lock_guard lock(mutex_);
    claimed_ = false;
    if (!modified_ || writing_ > 0 || !lastWrite_ || now - *lastWrite_ <= quiet) return false;
    modified_ = created_ = progress_ = false;
    lastWrite_.reset();
    return true;
}

bool TWFuseFileData::joinBurst(std::string_view fileId) {
    bool found = false;
    for (const auto& handle : openedFiles(fileId)) {
        std::lock_guard lock(handle->mutex_);
        found = found || handle->modified_;
        // Whichever is synced or closed first.
        handle->progress_ = true;
    }
    return found;
}

bool TWFuseFileData::takeProgress() {
    std::lock_guard lock(mutex_);
    return std::exchange(progress_, false);
}

void TWFuseFileData::noteProgress() {
    std::lock_guard lock(mutex_);
    progress_ = true;
}

void TWFuseFileData::dropBurst() {
    std::lock_guard lock(mutex_);
    modified_ = progress_ = false;
    lastWrite_.reset();
}

void TWFuseFileData::noteStamp(bool isNew) {
    bool unsynced = isNew;
    for (const auto& handle : openedFiles(fileId().view()))
        unsynced = unsynced || handle->stampUnsynced();
    std::lock_guard lock(mutex_);
    stampUnsynced_ = unsynced;
}

bool TWFuseFileData::stampUnsynced() const {
    std::lock_guard lock(mutex_);
    return stampUnsynced_;
}

void TWFuseFileData::stampSynced() {
    std::lock_guard lock(mutex_);
    stampUnsynced_ = false;
}

}  // namespace tarnwell
