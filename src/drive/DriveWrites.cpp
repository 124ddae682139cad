// Changing files: the bytes in the cache and the record.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "drive/DescriptorWriting.h"
#include "drive/TWFuseFileSystem.h"
#include "store/ContentVersion.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {
namespace {

/// New versions may arrive while contents are fetched; a file that changes all the time is given up.
constexpr int kFetchTries = 3;

}  // namespace

// Bytes

int TWFuseFileSystem::refusal() const {
    const int error = store_.admitChange();
    if (error != 0)
        TWLog(kLogFuse, "TWFuseFileSystem: a change is refused, the change log answers %d", error);
    return error;
}

/// 0 when the mark outlives the process; otherwise the file is not marked.
int TWFuseFileSystem::mark(TWVirtualFile& file) {
    if (const int error = refusal()) return error;
    LocalChange change(store_);
    file.LocallyUpdated = true;
    store_.markChanged(file);
    const int error = change.commit();
    if (error != 0) unmark(file);
    return error;
}

void TWFuseFileSystem::unmark(TWVirtualFile& file) {
    const auto change = store_.beginLocalChange();
    file.LocallyUpdated.reset();
    store_.markChanged(file);
}

void TWFuseFileSystem::setSize(TWVirtualFile& file, std::int64_t size) const {
    file.AllocationSize = file.EndOfFile = size;
}

/// One look at the file as it stands. `obstacle` is set, and the value an error, when something that takes
/// long has to be done first.
ErrnoOr<TWFuseFileSystem::WriteTarget> TWFuseFileSystem::tryToBeginWriting(TWFuseFileData& userData,
                                                                           Extent extent,
                                                                           Obstacle& obstacle) {
    obstacle = {};
    const auto lock = store_.beginWriteStorage();
    const Date now = store_.clock().now();
    const auto file = store_.fileWithId(userData.fileId().view());
    auto held = userData.cacheFile();
    if (!file) {
        // Its share was withdrawn, or another device removed it: nobody would hear of what is written.
        if (!held || !userData.isDetached()) return Errno{EIO};
        userData.beginWrite(now);
        return WriteTarget{std::move(held)};
    }
    if (!file->IsFile) return Errno{EISDIR};
    const auto path = layout_.cachePathForFile(*file);
    const bool wasMarked = file->LocallyUpdated.value_or(false);
    const bool isNamed = held && held->isAt(path);
    if (isNamed && wasMarked && userData.modified()) {
        userData.repin(*file);
        userData.beginWrite(now);
        return WriteTarget{std::move(held), false,
                           userData.stampUnsynced() && extent.overwrites(file->size())};
    }
    if (isNamed && (userData.usesVersion(file->UploadName) || mediator_.isFileDownloaded(file)))
        userData.repin(*file);
    if (!userData.usesVersion(file->UploadName)) {
        // Of two versions that were both changed here only one can be the item's.
        if (!store_.hasUnsentContents(*file)) obstacle.outdated = userData.pinned();
        return Errno{ESTALE};
    }
    const bool isEmpty = file->size() == 0;
    const bool isHere = isEmpty || isNamed || mediator_.isFileDownloaded(file);
    const bool replaces = !isHere && extent.replacesAll(file->size());
    if (!isHere && !replaces) {
        // What was dropped from the cache while it was open is here still.
        if (held) obstacle.outdated = userData.pinned();
        if (!obstacle.outdated) obstacle.notHere = file;
        return Errno{ENOENT};
    }
    // The mark first, and only then a cache file: an empty one would pass for the contents.
    if (const int error = wasMarked ? 0 : mark(*file)) return Errno{error};
    struct stat status {};
    // Bytes of which nobody knows the version give way.
    const bool isStale = isEmpty && !wasMarked && ::lstat(path.c_str(), &status) == 0 && status.st_size > 0;
    if (replaces || (isStale && !isNamed)) ::unlink(path.c_str());
    const auto opened = userData.openCacheFile(path, file->UploadName, isEmpty || replaces ? O_CREAT : 0);
    int error = opened.error();
    if (error == 0) error = stamp(*file, userData, **opened, !wasMarked);
    if (error != 0) {
        if (!wasMarked) unmark(*file);
        return Errno{error};
    }
    userData.pin(*file);
    userData.beginWrite(now);
    return WriteTarget{*opened, replaces, userData.stampUnsynced() && extent.overwrites(file->size())};
}

/// What it returns is to be given to endWriting(). The caller holds the handle's write lock.
ErrnoOr<TWFuseFileSystem::WriteTarget> TWFuseFileSystem::beginWriting(const std::string& path,
                                                                      TWFuseFileData& userData,
                                                                      Extent extent) {
    for (int attempt = 0;; ++attempt) {
        Obstacle obstacle;
        auto target = tryToBeginWriting(userData, extent, obstacle);
        if (target && target->needsSync) {
            // Half of the new bytes must not pass for the version that the file was, should the power fail.
            if (::fsync(target->file->descriptor()) != 0) {
                const Errno error{errno};
                endWriting(userData, *target, true);
                return error;
            }
            userData.stampSynced();
        }
        if (target) return target;
        if (!obstacle.isSet() || attempt == kFetchTries) {
            TWLog(kLogFuse, "TWFuseFileSystem: writeFileAtPath:%@ open failed: error %d", path,
                  target.error());
            return target;
        }
        const auto removed = obstacle.notHere ? fetchContents(obstacle.notHere)
                                              : bringBack(userData, obstacle.outdated, extent);
        if (!removed) {
            if (obstacle.notHere) {
                TWLog(kLogFuse,
                      "TWFuseFileSystem: attempt to write to middle of non-downloaded file, failing");
            }
            return Errno{removed.error()};
        }
    }
}

void TWFuseFileSystem::endWriting(TWFuseFileData& userData, const WriteTarget& target, bool failed) {
    const auto lock = store_.beginWriteStorage();
    const Date now = store_.clock().now();
    userData.endWrite(now);
    const auto file = store_.fileWithId(userData.fileId().view());
    if (!file) return;
    struct stat status {};
    const bool known = ::fstat(target.file->descriptor(), &status) == 0;
    if (failed && target.replacesUncached &&
        !TWFuseFileData::isWritten(file->InternalName.view(), &userData)) {
        // The contents are at the service still; half of the new ones must not stand for them.
        const auto change = store_.beginLocalChange();
        ::unlink(layout_.cachePathForFile(*file).c_str());
        userData.dropBurst();
        unmark(*file);
        return;
    }
    if (known) setSize(*file, status.st_size);
    file->LastWriteTime = now;
    if (file->LocallyUpdated.value_or(false)) {
        store_.noteWriteProgress(*file);
    } else {
        // Journalled while the bytes were on their way.
        const auto change = store_.beginLocalChange();
        file->LocallyUpdated = true;
        (void)ContentVersion::edited(file->UploadName.view()).set(target.file->descriptor());
        store_.noteAttributesChanged(*file);
    }
}

ErrnoOr<std::size_t> TWFuseFileSystem::writeFileAtPath(const std::string& path, TWFuseFileData* userData,
                                                       const char* buffer, std::size_t size,
                                                       std::int64_t offset, bool append) {
    if (mediator_.excessiveLogging()) {
        TWLog(kLogFuse, "TWFuseFileSystem: writeFileAtPath:%@ userData:%@ size:%zd offset:%lld", path,
              userData ? "present" : "(null)", size, offset);
    }
    if (!userData) {
        {
            const auto lock = store_.beginReadStorage();
            if (!visibleFileWithPath(path)) return Errno{EINVAL};
        }
        TWLog(kLogFuse, "TWFuseFileSystem: writeFileAtPath:%@ no userData!", path);
        return Errno{ENOENT};
    }
    if (offset < 0) return Errno{EINVAL};
    if (size == 0) return std::size_t{0};
    const std::lock_guard own(userData->writeMutex());
    const Extent extent{offset, static_cast<std::int64_t>(size), false, append};
    const auto target = beginWriting(path, *userData, extent);
    if (!target) return Errno{target.error()};
    const auto written = writeAll(target->file->descriptor(), buffer, size, offset, append);
    if (!written) {
        TWLog(kLogFuse, "TWFuseFileSystem: writeFileAtPath:%@ pwrite failed: error %d", path,
              written.error());
    }
    const bool whole = written && *written == size;
    endWriting(*userData, *target, !whole);
    if (!whole && target->replacesUncached && written) return Errno{ENOSPC};
    return written;
}

ErrnoOr<Done> TWFuseFileSystem::allocateFileAtPath(const std::string& path, TWFuseFileData& userData,
                                                   int mode, std::int64_t offset, std::int64_t length) {
    if (offset < 0 || length <= 0) return Errno{EINVAL};
    const std::lock_guard own(userData.writeMutex());
    const auto target = beginWriting(path, userData, {offset, length, false, mode == 0});
    if (!target) return Errno{target.error()};
    int error = 0;
    while (::fallocate(target->file->descriptor(), mode, offset, length) != 0) {
        if ((error = errno) != EINTR) break;
        error = 0;
    }
    endWriting(userData, *target, error != 0);
    if (error != 0) return Errno{error};
    return Done{};
}

ErrnoOr<Done> TWFuseFileSystem::resize(const std::string& path, TWFuseFileData& userData, std::int64_t size) {
    const std::lock_guard own(userData.writeMutex());
    const auto target = beginWriting(path, userData, {0, 0, size == 0, size != 0});
    if (!target) return Errno{target.error()};
    int error = 0;
    while (::ftruncate(target->file->descriptor(), size) != 0) {
        if ((error = errno) != EINTR) break;
        error = 0;
    }
    endWriting(userData, *target, error != 0);
    if (error == 0) return Done{};
    TWLog(kLogFuse, "Failed to truncate file %@, error %d", path, error);
    return Errno{error};
}

/// Through the open when that may write; otherwise through one of its own, which journals at once.
ErrnoOr<TWFuseFileSystem::Resize> TWFuseFileSystem::beginResize(const std::string& path,
                                                                TWFuseFileData* userData, std::int64_t size) {
    if (size < 0) return Errno{EINVAL};
    if (userData && userData->isDetached()) {
        if ((userData->openFlags() & O_ACCMODE) != O_RDONLY)
            return Resize{userData->shared_from_this(), size, false};
        auto own = userData->reopen(O_WRONLY, ::getpid());
        if (!own) return Errno{own.error()};
        return Resize{*std::move(own), size, true};
    }
    if (!userData && (CacheLayout::isRootPath(path) || CacheLayout::isSharePath(path))) return Errno{EACCES};
    const auto file = userData ? store_.fileWithId(userData->fileId().view()) : visibleFileWithPath(path);
    if (!file) return Errno{userData ? ESTALE : ENOENT};
    if (!userData && isReadOnly(path)) return Errno{EACCES};
    if (!file->IsFile) return Errno{EISDIR};
    const bool isHere = userData && userData->cacheFile();
    if (size > 0 && !isHere && !mediator_.isFileDownloaded(file)) {
        TWLog(kLogMain, "Warning! Attempt to truncate file %@, which is not yet downloaded.", path);
        return Errno{EFBIG};
    }
    const bool usesVersion = !userData || userData->usesVersion(file->UploadName);
    if (file->size() == size && usesVersion) return Resize{};
    const bool mayWrite = userData && (userData->openFlags() & O_ACCMODE) != O_RDONLY;
    if (mayWrite) return Resize{userData->shared_from_this(), size, false};
    return Resize{TWFuseFileData::create(O_WRONLY, ::getpid(), file->InternalName), size, true};
}

ErrnoOr<Done> TWFuseFileSystem::finishResize(const Resize& resizing) {
    if (!resizing.handle) return Done{};
    const auto result = resize("", *resizing.handle, resizing.size);
    if (resizing.isOwn) {
        const auto change = store_.beginLocalChange();
        const auto stored = store_.fileWithId(resizing.handle->fileId().view());
        if (stored && resizing.handle->modified()) endBurst(stored, true, resizing.handle.get());
        resizing.handle->close();
    }
    return result;
}

}  // namespace tarnwell
