// Moving, exchanging and removing items. Whatever is open goes on with the bytes that it was opened on.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "drive/DriveNames.h"
#include "drive/TWFuseFileSystem.h"
#include "store/Enums.h"
#include "store/LocalChangeJournal.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {
namespace {

/// Bytes whose space is not freed in a moment.
constexpr std::int64_t kLargeFile = std::int64_t{32} << 20;

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

/// Makes an empty file where none is. 0 or errno.
int makeSureOfFile(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0) return errno;
    ::close(descriptor);
    return 0;
}

}  // namespace

/// An open of the cache file of the item at `path` when that is large: its space, which takes time to free,
/// is then freed by whoever closes this, not under the store's lock. To be called, and to end, without the
/// lock.
OwnedDescriptor TWFuseFileSystem::holdLargeFile(const std::string& path) const {
    std::string cachePath;
    {
        const auto lock = store_.beginReadStorage();
        const auto file = visibleFileWithPath(path);
        if (file && file->IsFile && file->size() >= kLargeFile) cachePath = layout_.cachePathForFile(*file);
    }
    return cachePath.empty() ? OwnedDescriptor()
                             : OwnedDescriptor(::open(cachePath.c_str(), O_RDONLY | O_CLOEXEC));
}

void TWFuseFileSystem::detachOpens(const TWVirtualFilePtr& file) const {
    for (const auto& handle : TWFuseFileData::openedFiles(file->InternalName.view()))
        handle->detach(file, layout_.cachePathForFile(*file));
}

bool TWFuseFileSystem::showsEntries(const TWVirtualFile& folder, bool alsoHidden) const {
    bool shows = false;
    if (const auto* items = store_.directoryItemsWithParent(folder.InternalName.view())) {
        items->forEach([&](const TWVirtualFilePtr& file) {
            const bool visible =
                !file->Deleted && !CacheLayout::containsInvalidCharacters(file->PublicName.view());
            shows = shows || visible || (alsoHidden && !file->Deleted);
        });
    }
    return shows;
}

// Moving

ErrnoOr<Done> TWFuseFileSystem::moveItemAtPath(const std::string& path, const std::string& toPath,
                                               MoveRules rules) {
    TWLog(kLogFuse, "TWFuseFileSystem: moveItemAtPath:%@ toPath:%@", path, toPath);
    if (isReadOnly(toPath)) {
        TWLog(kLogFuse, "TWFuseFileSystem: moveItemAtPath failed since share is read-only");
        return Errno{EACCES};
    }
    fetchForMove(path, toPath);
    const auto held = holdLargeFile(toPath);
    const auto lock = store_.beginWriteStorage();
    const auto moved = moveLocked(path, toPath, rules);
    if (!moved) TWLog(kLogFuse, "TWFuseFileSystem: moveItemAtPath failed, errcode is %d", moved.error());
    return moved;
}

/// A name that takes no part in synchronisation leaves the service: the bytes have to be here then.
void TWFuseFileSystem::fetchForMove(const std::string& path, const std::string& toPath) {
    TWVirtualFilePtr file;
    {
        const auto lock = store_.beginReadStorage();
        file = visibleFileWithPath(path);
        if (!file || !file->IsFile || mediator_.isFileDownloaded(file)) return;
        if (!CacheLayout::isPathIgnored(toPath, false) || CacheLayout::isPathIgnored(path, false)) return;
    }
    // Where that fails the move does, and says so.
    (void)fetchContents(file);
}

ErrnoOr<Done> TWFuseFileSystem::moveLocked(const std::string& path, const std::string& toPath,
                                           MoveRules rules) {
    if (CacheLayout::isRootPath(path) || CacheLayout::isRootPath(toPath)) return Errno{EIO};
    if (CacheLayout::isSharePath(path)) return moveShare(path, toPath);
    if (CacheLayout::isSharePath(toPath)) return Errno{store_.shareWithPath(toPath) ? EIO : ENOENT};
    const auto source = visibleFileWithPath(path);
    if (!source) return Errno{ENOENT};
    const auto target = visibleFileWithPath(toPath);
    if (!target || target == source) {
        // Nothing to do, and nothing to tell the service.
        const auto parent = parentOfPath(toPath);
        const bool samePlace =
            target && parent.share &&
            source->ParrentId == (parent.folder ? parent.folder->InternalName : source->ShareId) &&
            source->PublicName == lastPathComponent(toPath);
        return samePlace ? ErrnoOr<Done>(Done{}) : moveToFreePlace(source, toPath);
    }
    if (!rules.replaces) return Errno{EEXIST};
    if (source->ShareId != target->ShareId) return Errno{EIO};
    if (source->IsFile && target->IsFile) {
        return source->size() == 0 || mediator_.isFileDownloaded(source) ? replaceFile(source, target)
                                                                         : replaceByUncached(source, target);
    }
    if (source->IsFile) return Errno{EISDIR};
    if (target->IsFile) return Errno{ENOTDIR};
    return replaceFolder(source, target,
                         rules.takesName ? lastPathComponent(toPath) : source->PublicName.view());
}

ErrnoOr<Done> TWFuseFileSystem::moveShare(const std::string& path, const std::string& toPath) {
    const auto share = store_.shareWithPath(path);
    if (!share) return Errno{ENOENT};
    // A share cannot lie in a folder; file browsers take the answer for done.
    if (!CacheLayout::isSharePath(toPath)) return Done{};
    const auto change = store_.beginLocalChange();
    if (!store_.renameShare(share, lastPathComponent(toPath))) return Errno{EACCES};
    return Done{};
}

ErrnoOr<Done> TWFuseFileSystem::moveToFreePlace(const TWVirtualFilePtr& source, const std::string& toPath) {
    const std::string parentPath(deletingLastPathComponent(toPath));
    if (CacheLayout::isRootPath(parentPath)) return Errno{EIO};
    SharedString parentId;
    if (CacheLayout::isSharePath(parentPath)) {
        const auto share = store_.shareWithPath(parentPath);
        if (!share || !(source->ShareId == share->ShareId.value_or(""))) return Errno{EIO};
        parentId = source->ShareId;
    } else {
        const auto folder = visibleFileWithPath(parentPath);
        if (!folder) return Errno{ENOENT};
        if (folder->IsFile) return Errno{ENOTDIR};
        if (folder->ShareId != source->ShareId) return Errno{EIO};
        parentId = folder->InternalName;
    }
    const auto change = store_.beginLocalChange();
    if (const auto hidden = store_.fileWithPath(toPath); hidden && hidden->Deleted)
        store_.deleteFileMetadata(hidden);
    if (!store_.changeParentOfFile(source, parentId.view(), lastPathComponent(toPath))) return Errno{EIO};
    return Done{};
}

/// The target keeps identity and name and takes over the bytes; the source's record goes.
ErrnoOr<Done> TWFuseFileSystem::replaceFile(const TWVirtualFilePtr& source, const TWVirtualFilePtr& target) {
    const auto sourcePath = layout_.cachePathForFile(*source);
    if (source->size() == 0 && !exists(sourcePath)) {
        if (const int error = makeSureOfFile(sourcePath)) return Errno{error};
    }
    const auto change = store_.beginLocalChange();
    // What the target had goes with the source's record.
    if (!store_.exchangeCachedFiles(*source, *target)) return Errno{EIO};
    // Not before: the opens of a target that stays would write what nobody hears of. They keep the record as
    // it was, by which contents that are not here can still be fetched.
    const auto former = std::make_shared<TWVirtualFile>(*target);
    for (const auto& handle : TWFuseFileData::openedFiles(target->InternalName.view()))
        handle->detach(former, sourcePath);
    target->LocallyUpdated = true;
    setSize(*target, source->size());
    target->LastWriteTime = source->LastWriteTime;
    target->LastAccessTime = source->LastAccessTime;
    target->POSIXPermissions = source->POSIXPermissions;
    store_.noteContentsChanged(*target);
    store_.noteAttributesChanged(*target);
    store_.noteIdentityChanged(*source, *target);
    store_.removeFile(source);
    // A program that goes on writing to what it has renamed ends the burst itself.
    endBurst(target, true, nullptr);
    store_.saveDelayed();
    return Done{};
}

/// There are no bytes to hand over: the target goes, and the source gets its name.
ErrnoOr<Done> TWFuseFileSystem::replaceByUncached(const TWVirtualFilePtr& source,
                                                  const TWVirtualFilePtr& target) {
    // Checked before anything is lost: such a name needs the bytes.
    if (CacheLayout::isPathIgnored(target->PublicName.view(), false) !=
        CacheLayout::isPathIgnored(source->PublicName.view(), false)) {
        return Errno{EIO};
    }
    const auto change = store_.beginLocalChange();
    const std::string name = target->PublicName.str();
    const SharedString parentId = target->ParrentId;
    detachOpens(target);
    store_.removeFile(target);
    if (!store_.changeParentOfFile(source, parentId.view(), name)) return Errno{EIO};
    return Done{};
}

ErrnoOr<Done> TWFuseFileSystem::replaceFolder(const TWVirtualFilePtr& source, const TWVirtualFilePtr& target,
                                              std::string_view name) {
    if (showsEntries(*target, true)) return Errno{ENOTEMPTY};
    for (auto above = target; above; above = store_.fileWithId(above->ParrentId.view())) {
        if (above == source) return Errno{EINVAL};
    }
    const SharedString parentId = target->ParrentId;
    const auto parentPath = std::string(deletingLastPathComponent(target->FullPath.view()));
    const auto other = visibleFileWithPath(appendPathComponent(parentPath, name));
    if (other && other != source && other != target) return Errno{EIO};
    const auto change = store_.beginLocalChange();
    store_.removeFile(target);
    if (source->ParrentId == parentId && source->PublicName == name) return Done{};
    if (!store_.changeParentOfFile(source, parentId.view(), name)) return Errno{EIO};
    return Done{};
}

// Exchanging

ErrnoOr<Done> TWFuseFileSystem::exchangeDataOfItemAtPath(const std::string& path,
                                                         const std::string& withItemAtPath) {
    TWLog(kLogFuse, "TWFuseFileSystem: exchangeDataOfItemAtPath:%@ withItemAtPath:%@", path, withItemAtPath);
    const bool ignored =
        CacheLayout::isPathIgnored(path, false) && CacheLayout::isPathIgnored(withItemAtPath, false);
    if (!ignored && (isReadOnly(path) || isReadOnly(withItemAtPath))) return Errno{EACCES};
    if (path == withItemAtPath) return Errno{EINVAL};
    const auto lock = store_.beginWriteStorage();
    const TWVirtualFilePtr files[] = {visibleFileWithPath(path), visibleFileWithPath(withItemAtPath)};
    if (!files[0] || !files[1]) return Errno{ENOENT};
    if (!files[0]->IsFile || !files[1]->IsFile || files[0] == files[1]) return Errno{EINVAL};
    for (int i = 0; i < 2; ++i) {
        if (mediator_.isFileDownloaded(files[i])) continue;
        TWLog(kLogFuse, i == 0 ? "Warning! Source of exchanging files is not downloaded."
                               : "Warning! Destination of exchanging files is not downloaded.");
        return Errno{ENOENT};
    }
    for (const auto& file : files) {
        // An empty file may never have had a cache file.
        const auto cachePath = layout_.cachePathForFile(*file);
        if (exists(cachePath)) continue;
        if (file->size() != 0) return Errno{ENOENT};
        if (const int error = makeSureOfFile(cachePath)) return Errno{error};
    }
    const auto change = store_.beginLocalChange();
    if (!store_.exchangeCachedContents(*files[0], *files[1])) return Errno{EIO};
    std::swap(files[0]->AllocationSize, files[1]->AllocationSize);
    std::swap(files[0]->EndOfFile, files[1]->EndOfFile);
    std::swap(files[0]->LastWriteTime, files[1]->LastWriteTime);
    store_.noteIdentitiesExchanged(*files[0], *files[1]);
    for (const auto& file : files) {
        file->LocallyUpdated = true;
        store_.noteContentsChanged(*file);
        store_.noteAttributesChanged(*file);
        endBurst(file, true, nullptr);
    }
    store_.saveDelayed();
    return Done{};
}

// Removing

ErrnoOr<Done> TWFuseFileSystem::removeDirectoryAtPath(const std::string& path) {
    TWLog(kLogFuse, "TWFuseFileSystem: removeDirectoryAtPath:%@", path);
    if (!CacheLayout::isPathIgnored(path, true) && isReadOnly(path)) return Errno{EACCES};
    if (CacheLayout::isRootPath(path)) return Errno{EACCES};
    const auto change = store_.beginLocalChange();
    if (CacheLayout::isSharePath(path)) return Errno{store_.shareWithPath(path) ? EACCES : ENOENT};
    const auto folder = visibleFileWithPath(path);
    if (!folder) return Errno{ENOENT};
    if (folder->IsFile) return Errno{ENOTDIR};
    for (const auto& handle : TWFuseFileData::openedFiles()) {
        const auto file = store_.fileWithId(handle->fileId().view());
        if (file && file->FullPath.view().starts_with(folder->FullPath.str() + "/"))
            handle->detach(file, layout_.cachePathForFile(*file));
    }
    store_.removeFolderRecursively(folder);
    return Done{};
}

ErrnoOr<Done> TWFuseFileSystem::removeEmptyDirectoryAtPath(const std::string& path) {
    const auto change = store_.beginLocalChange();
    const auto folder = visibleFileWithPath(path);
    if (folder && !folder->IsFile && showsEntries(*folder, false)) return Errno{ENOTEMPTY};
    return removeDirectoryAtPath(path);
}

ErrnoOr<Done> TWFuseFileSystem::removeItemAtPath(const std::string& path) {
    TWLog(kLogFuse, "TWFuseFileSystem: removeItemAtPath:%@", path);
    const auto held = holdLargeFile(path);
    const auto change = store_.beginLocalChange();
    const auto file = visibleFileWithPath(path);
    const bool isFolder = file && !file->IsFile;
    if (!CacheLayout::isPathIgnored(path, isFolder) && isReadOnly(path)) return Errno{EACCES};
    if (CacheLayout::isRootPath(path)) return Errno{EACCES};
    if (lastPathComponent(path) == kRefreshName) return Done{};
    if (CacheLayout::isSharePath(path)) return Errno{store_.shareWithPath(path) ? EACCES : ENOENT};
    if (!file) return Errno{ENOENT};
    if (isFolder && showsEntries(*file, true)) return Errno{ENOTEMPTY};
    if (!isFolder) detachOpens(file);
    store_.removeFile(file);
    return Done{};
}

bool TWFuseFileSystem::isWritable(const std::string& path) const {
    if (CacheLayout::isRootPath(path)) return false;
    const auto lock = store_.beginReadStorage();
    if (const auto share = store_.shareWithPath(path))
        return !(share->ShareAcl && share->ShareAcl->AclType == kAclReadOnly);
    const auto file = visibleFileWithPath(path);
    const bool ignored = file && file->IsFile && CacheLayout::isPathIgnored(path, false);
    return ignored || !isReadOnly(path);
}

}  // namespace tarnwell
