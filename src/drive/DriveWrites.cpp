// Creating and changing files: the bytes in the cache, the record, the burst that ends in the journal.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "drive/TWFuseFileSystem.h"
#include "platform/LocalSocket.h"
#include "store/Enums.h"
#include "store/FileCopy.h"
#include "store/LocalChangeJournal.h"
#include "store/StorePersistence.h"
#include "util/Format.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {
namespace {

/// Contents are fetched in pieces of this size.
constexpr std::int64_t kFetchPiece = 1 << 20;
/// New versions may arrive while contents are fetched; a file that changes all the time is given up.
constexpr int kFetchTries = 3;

std::string described(const TWFuseFileSystem::AttributeChanges& attributes) {
    std::string text = "{";
    if (attributes.permissions) text += format(" permissions=%o", *attributes.permissions);
    if (attributes.size) text += format(" size=%lld", *attributes.size);
    if (attributes.modification) text += " modification=" + JSONObjectFromNSDate(*attributes.modification);
    if (attributes.access) text += " access=" + JSONObjectFromNSDate(*attributes.access);
    return text + " }";
}

/// All of it, or the error of what came after the first bytes. `append`: at the end of the file, as one step
/// against every other writer.
ErrnoOr<std::size_t> writeAll(int descriptor, const char* buffer, std::size_t size, std::int64_t offset,
                              bool append) {
    std::size_t done = 0;
    while (done < size) {
        iovec piece{const_cast<char*>(buffer) + done, size - done};  // NOLINT: writev reads only
        const auto count =
            ::pwritev2(descriptor, &piece, 1, offset + static_cast<off_t>(done), append ? RWF_APPEND : 0);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && done == 0) return Errno{errno};
        if (count <= 0) break;
        done += static_cast<std::size_t>(count);
    }
    return done;
}

}  // namespace

// New items

TWFuseFileSystem::Parent TWFuseFileSystem::parentOfPath(const std::string& path) const {
    const std::string parentPath(deletingLastPathComponent(path));
    if (CacheLayout::isRootPath(parentPath)) return {};
    if (CacheLayout::isSharePath(parentPath)) return {store_.shareWithPath(parentPath), nullptr};
    const auto folder = visibleFileWithPath(parentPath);
    if (!folder || folder->IsFile) return {};
    return {store_.shareWithId(folder->ShareId.view()), folder};
}

ErrnoOr<TWFuseFileDataPtr> TWFuseFileSystem::createFileAtPath(const std::string& path,
                                                              const AttributeChanges& attributes,
                                                              pid_t caller, int mode) {
    TWLog(kLogFuse, "TWFuseFileSystem: createFileAtPath:%@ attributes:%@", path, described(attributes));
    TWFuseFileDataPtr handle;
    TWVirtualFilePtr existing;
    {
        // An exchange that the journal makes for the new item finds the handle registered.
        const auto change = store_.beginLocalChange();
        if (!CacheLayout::isPathIgnored(path, false) && isReadOnly(path)) return Errno{EACCES};
        const auto parent = parentOfPath(path);
        if (!parent.share) return Errno{EACCES};
        existing = visibleFileWithPath(path);
        if (existing && !existing->IsFile) {
            TWLog(kLogMain, "Warning! Trying to create file in place of directory : %@",
                  layout_.relativePathToFull(path));
            return Errno{EISDIR};
        }
        if (CacheLayout::isSpecialPath(path)) return TWFuseFileDataPtr{};
        if (!existing) return createNewFile(path, parent, attributes, mode, caller);
        if ((mode & O_EXCL) != 0) return Errno{EEXIST};
        handle = TWFuseFileData::create(mode, caller, existing->InternalName);
    }
    if ((mode & O_TRUNC) == 0) return handle;
    if (const auto emptied = resizeItem(existing, handle.get(), 0); !emptied) return Errno{emptied.error()};
    const auto change = store_.beginLocalChange();
    if (const auto file = store_.fileWithId(handle->fileId().view())) {
        if (attributes.permissions)
            file->POSIXPermissions = static_cast<std::int32_t>(*attributes.permissions);
        store_.noteAttributesChanged(*file);
        if (!CacheLayout::isPathIgnored(path, false)) journalUpdate(file);
    }
    return handle;
}

ErrnoOr<TWFuseFileDataPtr> TWFuseFileSystem::createNewFile(const std::string& path, const Parent& parent,
                                                           const AttributeChanges& attributes, int mode,
                                                           pid_t caller) {
    // What the service deleted while it was in use is out of sight, and in the way.
    if (const auto hidden = store_.fileWithPath(path)) store_.deleteFileMetadata(hidden);
    const auto file = store_.createFile(lastPathComponent(path), parent.share, parent.folder, false);
    if (!file || !file->IsFile) return Errno{EACCES};
    if (attributes.permissions) file->POSIXPermissions = static_cast<std::int32_t>(*attributes.permissions);
    file->LocallyUpdated = true;
    store_.noteAttributesChanged(*file);

    const auto handle = TWFuseFileData::create(mode, caller, file->InternalName);
    handle->noteCreation();
    // Whatever the permissions on the drive: its own cache file must stay open to the client.
    const auto cachePath = layout_.cachePathForFile(*file);
    const int descriptor = ::open(cachePath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct stat status {};
    // The store made it empty. Truncating it once more would have some disks write it out when it is closed.
    const bool isThere = descriptor >= 0 && ::fstat(descriptor, &status) == 0 &&
                         (status.st_size == 0 || ::ftruncate(descriptor, 0) == 0);
    if (isThere) {
        handle->setCacheFile(std::make_shared<const CacheFile>(descriptor, status.st_dev, status.st_ino));
    } else {
        TWLog(kLogFuse, "Warning! Cannot create file in path %@ : error %d", cachePath, errno);
        if (descriptor >= 0) ::close(descriptor);
    }
    if (!CacheLayout::isPathIgnored(path, false)) {
        auto& journal = store_.journal();
        journal.addChangeToJournal(journal.createJournalForFile(file, kJournalCreate));
    }
    store_.saveDelayed();
    return handle;
}

ErrnoOr<Done> TWFuseFileSystem::createDirectoryAtPath(const std::string& path,
                                                      const AttributeChanges& attributes) {
    TWLog(kLogFuse, "TWFuseFileSystem: createDirectoryAtPath:%@ attributes:%@", path, described(attributes));
    const auto name = lastPathComponent(path);
    if (CacheLayout::containsInvalidCharacters(name)) return Errno{ENAMETOOLONG};
    const auto change = store_.beginLocalChange();
    if (!CacheLayout::isPathIgnored(path, true) && isReadOnly(path)) return Errno{EACCES};
    const auto parent = parentOfPath(path);
    const auto existing = visibleFileWithPath(path);
    if (existing && !existing->IsFile) return Errno{EEXIST};
    TWVirtualFilePtr folder;
    if (parent.share && !existing) {
        if (const auto hidden = store_.fileWithPath(path)) store_.deleteFileMetadata(hidden);
        folder = store_.createFile(name, parent.share, parent.folder, true);
    }
    if (!folder) {
        TWLog(kLogFuse, "TWFuseFileSystem: createDirectoryAtPath: failed.");
        return Errno{EACCES};
    }
    if (attributes.permissions) folder->POSIXPermissions = static_cast<std::int32_t>(*attributes.permissions);
    store_.noteAttributesChanged(*folder);
    if (!CacheLayout::isPathIgnored(path, true)) {
        auto& journal = store_.journal();
        journal.addChangeToJournal(journal.createJournalForFile(folder, kJournalCreate));
    }
    store_.saveDelayed();
    return Done{};
}

// Bytes

void TWFuseFileSystem::mark(TWVirtualFile& file) {
    if (file.LocallyUpdated.value_or(false)) return;
    const auto change = store_.beginLocalChange();
    file.LocallyUpdated = true;
    store_.markChanged(file);
}

void TWFuseFileSystem::setSize(TWVirtualFile& file, std::int64_t size) const {
    file.AllocationSize = file.EndOfFile = size;
}

/// One look at the file as it stands. `notHere` is set, and the value an error, when its contents must be
/// fetched first.
ErrnoOr<TWFuseFileSystem::WriteTarget> TWFuseFileSystem::tryToBeginWriting(TWFuseFileData& userData,
                                                                           Extent extent,
                                                                           TWVirtualFilePtr& notHere) {
    notHere.reset();
    const auto lock = store_.beginWriteStorage();
    const Date now = store_.clock().now();
    const auto file = store_.fileWithId(userData.fileId().view());
    if (!file) {
        auto held = userData.cacheFile();
        if (!held) return Errno{userData.isDetached() ? EIO : EINVAL};
        userData.beginWrite(now);
        return WriteTarget{std::move(held)};
    }
    if (!file->IsFile) return Errno{EISDIR};
    const bool isEmpty = file->size() == 0;
    const bool isHere = isEmpty || mediator_.isFileDownloaded(file);
    const bool replaces = !isHere && extent.replacesAll(file->size());
    if (!isHere && !replaces) {
        notHere = file;
        return Errno{ENOENT};
    }
    // The mark first, and only then a cache file: an empty one would pass for the contents.
    const bool wasMarked = file->LocallyUpdated.value_or(false);
    mark(*file);
    auto opened = userData.openCacheFile(layout_.cachePathForFile(*file), file->UploadName,
                                         isEmpty || replaces ? O_CREAT : 0);
    if (!opened) {
        if (!wasMarked) {
            const auto change = store_.beginLocalChange();
            file->LocallyUpdated.reset();
            store_.markChanged(*file);
        }
        return Errno{opened.error()};
    }
    userData.beginWrite(now);
    return WriteTarget{*std::move(opened), replaces};
}

/// What it returns is to be given to endWriting(). The caller holds the handle's write lock.
ErrnoOr<TWFuseFileSystem::WriteTarget> TWFuseFileSystem::beginWriting(const std::string& path,
                                                                      TWFuseFileData& userData,
                                                                      Extent extent) {
    for (int attempt = 0;; ++attempt) {
        TWVirtualFilePtr notHere;
        auto target = tryToBeginWriting(userData, extent, notHere);
        if (target) return target;
        if (!notHere) {
            TWLog(kLogFuse, "TWFuseFileSystem: writeFileAtPath:%@ open failed: error %d", path,
                  target.error());
            return target;
        }
        const auto fetched = attempt < kFetchTries ? fetchContents(notHere) : Errno{ENOENT};
        if (!fetched) {
            TWLog(kLogFuse, "TWFuseFileSystem: attempt to write to middle of non-downloaded file, failing");
            return Errno{fetched.error()};
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
    if (failed && target.replacesUncached) {
        // The contents are at the service still; half of the new ones must not stand for them.
        const auto change = store_.beginLocalChange();
        ::unlink(layout_.cachePathForFile(*file).c_str());
        file->LocallyUpdated.reset();
        store_.markChanged(*file);
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
    // At the end: nothing of what is there is replaced.
    const Extent extent{append ? 1 : offset, static_cast<std::int64_t>(size)};
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
    const auto target = beginWriting(path, userData, {1, 0});
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
    const auto target = beginWriting(path, userData, {0, 0, size == 0});
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
ErrnoOr<Done> TWFuseFileSystem::resizeItem(const TWVirtualFilePtr& file, TWFuseFileData* userData,
                                           std::int64_t size) {
    std::string path;
    TWFuseFileDataPtr own;
    {
        const auto lock = store_.beginReadStorage();
        path = file->FullPath.str();
        const bool detached = userData && userData->isDetached();
        if (!detached && file->size() == size) return Done{};
        const bool mayWrite = userData && (userData->openFlags() & O_ACCMODE) != O_RDONLY;
        if (!mayWrite) {
            own = TWFuseFileData::create(O_WRONLY, ::getpid(), file->InternalName);
            userData = own.get();
        }
    }
    const auto result = resize(path, *userData, size);
    if (own) {
        const auto change = store_.beginLocalChange();
        const auto stored = store_.fileWithId(own->fileId().view());
        if (stored && own->modified()) endBurst(stored, true, own.get());
        own->close();
    }
    return result;
}

/// Brings the whole contents into the cache. Each piece is bounded by the connector's time-outs.
ErrnoOr<Done> TWFuseFileSystem::fetchContents(const TWVirtualFilePtr& file) {
    SharedString version;
    std::int64_t size = 0;
    {
        const auto lock = store_.beginReadStorage();
        version = file->UploadName;
        size = file->size();
    }
    const std::string temporary =
        layout_.downloadsCachePath() + "/" + std::string(kFetchedPrefix) + generateGUID();
    const OwnedDescriptor out(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!out) return Errno{errno};
    int error = 0;
    for (std::int64_t at = 0; at < size && error == 0;) {
        if (mediator_.isFileDownloaded(file)) break;
        const auto bytes = mediator_.downloadFileChunk(file, at, std::min(kFetchPiece, size - at));
        if (!bytes || bytes->empty()) {
            error = ENOENT;
            break;
        }
        const auto written = writeAll(out.get(), bytes->data(), bytes->size(), at, false);
        error = !written ? written.error() : *written == bytes->size() ? 0 : ENOSPC;
        at += static_cast<std::int64_t>(bytes->size());
    }
    // They are not told from contents that were lost, should the power fail before they are on the disk.
    if (error == 0 && ::fdatasync(out.get()) != 0) error = errno;
    if (error == 0) {
        const auto change = store_.beginLocalChange();
        const auto stored = store_.fileWithId(file->InternalName.view());
        const bool isCurrent = stored && stored->UploadName == version && stored->size() == size &&
                               !mediator_.isFileDownloaded(stored);
        if (isCurrent && ::rename(temporary.c_str(), layout_.cachePathForFile(*stored).c_str()) == 0) {
            stored->DownloadDate = store_.clock().now();
            store_.markChanged(*stored);
            return Done{};
        }
    }
    ::unlink(temporary.c_str());
    if (error != 0) return Errno{error};
    return Done{};
}

// Attributes

ErrnoOr<Done> TWFuseFileSystem::setAttributes(const AttributeChanges& attributes,
                                              const std::string& ofItemAtPath, TWFuseFileData* userData) {
    TWLog(kLogFuse, "TWFuseFileSystem: setAttributes:%@ ofItemAtPath:%@", described(attributes),
          ofItemAtPath);
    const bool detached = userData && userData->isDetached();
    TWVirtualFilePtr file;
    if (detached) {
        file = userData->formerRecord();
        if (attributes.size) {
            const auto resized = resize(ofItemAtPath, *userData, *attributes.size);
            if (!resized) return resized;
        }
    } else {
        if (CacheLayout::isRootPath(ofItemAtPath) || CacheLayout::isSharePath(ofItemAtPath))
            return Errno{EACCES};
        if (isReadOnly(ofItemAtPath)) return Errno{EACCES};
        {
            const auto lock = store_.beginReadStorage();
            file =
                userData ? store_.fileWithId(userData->fileId().view()) : visibleFileWithPath(ofItemAtPath);
            if (!file) return Errno{ENOENT};
            if (attributes.size) {
                if (*attributes.size < 0) return Errno{EINVAL};
                if (!file->IsFile) return Errno{EISDIR};
                if (*attributes.size > 0 && !mediator_.isFileDownloaded(file)) {
                    TWLog(kLogMain, "Warning! Attempt to truncate file %@, which is not yet downloaded.",
                          ofItemAtPath);
                    return Errno{EFBIG};
                }
            }
        }
        if (attributes.size) {
            if (const auto resized = resizeItem(file, userData, *attributes.size); !resized) return resized;
        }
    }
    // After the size, which moves the time on.
    if (!(attributes.permissions || attributes.modification || attributes.access)) return Done{};
    const auto lock = store_.beginWriteStorage();
    if (!detached)
        file = userData ? store_.fileWithId(userData->fileId().view()) : visibleFileWithPath(ofItemAtPath);
    if (!file) return Done{};
    if (attributes.permissions)
        file->POSIXPermissions = static_cast<std::int32_t>(*attributes.permissions & 07777U);
    if (attributes.modification) file->LastWriteTime = *attributes.modification;
    if (attributes.access) file->LastAccessTime = *attributes.access;
    if (detached) return Done{};
    // As what is written: programs that unpack set three attributes of each file before they close it.
    if (file->LocallyUpdated.value_or(false) && TWFuseFileData::joinBurst(file->InternalName.view())) {
        store_.noteWriteProgress(*file);
        return Done{};
    }
    const auto change = store_.beginLocalChange();
    store_.noteAttributesChanged(*file);
    store_.journal().attributesChanged(*file);
    return Done{};
}

// Making it last

void TWFuseFileSystem::flushFileAtPath(const std::string& /*path*/, TWFuseFileData* userData) {
    if (!userData || !userData->takeProgress()) return;
    const auto change = store_.beginLocalChange();
    if (const auto file = store_.fileWithId(userData->fileId().view())) store_.markChanged(*file);
}

ErrnoOr<Done> TWFuseFileSystem::syncFileAtPath(const std::string& path, TWFuseFileData* userData) {
    if (CacheLayout::isSpecialPath(path)) return Done{};
    CacheFilePtr held;
    std::string cachePath;
    {
        const auto lock = store_.beginReadStorage();
        const auto file = userData ? store_.fileWithId(userData->fileId().view()) : visibleFileWithPath(path);
        if (userData) held = userData->cacheFile();
        if (file && file->IsFile) cachePath = layout_.cachePathForFile(*file);
    }
    // The bytes before the record that speaks of them. A read-only open may hold nothing, and another open's
    // writes count as well.
    if (held && ::fdatasync(held->descriptor()) != 0) return Errno{errno};
    if (cachePath.empty()) return Done{};
    if (!held) {
        const OwnedDescriptor current(::open(cachePath.c_str(), O_RDONLY | O_CLOEXEC));
        if (current && ::fdatasync(current.get()) != 0) return Errno{errno};
    }
    syncFolder(std::string(deletingLastPathComponent(cachePath)));
    flushFileAtPath(path, userData);
    if (!store_.persistence().syncChanges()) return Errno{EIO};
    return Done{};
}

ErrnoOr<Done> TWFuseFileSystem::syncDirectoryAtPath(const std::string& path) {
    std::string cacheFolder;
    {
        const auto lock = store_.beginReadStorage();
        ManagedSharePtr share = store_.shareWithPath(path);
        if (!share) share = store_.shareWithFilePath(path);
        if (share) cacheFolder = layout_.cachePathForShare(*share);
    }
    if (!cacheFolder.empty()) syncFolder(cacheFolder);
    if (!store_.persistence().syncChanges()) return Errno{EIO};
    return Done{};
}

}  // namespace tarnwell
