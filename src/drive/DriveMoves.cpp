// Moving, exchanging and removing items. Whatever is open goes on with the bytes that it was opened on.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <optional>
#include <utility>

#include "drive/DriveNames.h"
#include "drive/TWFuseFileSystem.h"
#include "store/ContentVersion.h"
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

/// Says of a cache file that is about to become another item's that it is being edited: until the journal
/// has given the contents a name there, it proves them by the mark of that item. Taken back unless kept.
class EditedStamp {
  public:
    EditedStamp(std::string path, const TWVirtualFile& record)
        : path_(std::move(path)), former_(ContentVersion::of(path_)) {
        if (former_ && former_->isEdited()) return;
        error_ = ContentVersion::edited(record.UploadName.view()).set(path_);
        isSet_ = error_ == 0;
        if (error_ == EOPNOTSUPP) error_ = 0;
    }
    EditedStamp(const EditedStamp&) = delete;
    EditedStamp& operator=(const EditedStamp&) = delete;
    ~EditedStamp() {
        if (isSet_ && former_) (void)former_->set(path_);
    }
    [[nodiscard]] int error() const { return error_; }
    void keep() { isSet_ = false; }

  private:
    const std::string path_;
    const std::optional<ContentVersion> former_;
    int error_ = 0;
    bool isSet_ = false;
};

}  // namespace

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
    const auto cachePath = mediator_.isFileDownloaded(file) ? layout_.cachePathForFile(*file) : std::string();
    for (const auto& handle : TWFuseFileData::openedFiles(file->InternalName.view()))
        handle->detach(file, cachePath);
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
    if (const auto missing = missingForMove(path, toPath)) {
        // Where that fails the move does, and says so.
        (void)fetchContents(missing);
    }
    const auto held = holdLargeFile(toPath);
    const auto lock = store_.beginWriteStorage();
    return moveItem(path, toPath, rules);
}

ErrnoOr<Done> TWFuseFileSystem::moveItem(const std::string& path, const std::string& toPath,
                                         MoveRules rules) {
    TWLog(kLogFuse, "TWFuseFileSystem: moveItemAtPath:%@ toPath:%@", path, toPath);
    if (isReadOnly(toPath)) {
        TWLog(kLogFuse, "TWFuseFileSystem: moveItemAtPath failed since share is read-only");
        return Errno{EACCES};
    }
    LocalChange change(store_);
    auto moved = moveLocked(path, toPath, rules);
    if (moved) moved = answered(change);
    if (!moved) TWLog(kLogFuse, "TWFuseFileSystem: moveItemAtPath failed, errcode is %d", moved.error());
    return moved;
}

/// A name that takes no part in synchronisation leaves the service: the bytes have to be here then.
TWVirtualFilePtr TWFuseFileSystem::missingForMove(const std::string& path, const std::string& toPath) const {
    const auto lock = store_.beginReadStorage();
    const auto file = visibleFileWithPath(path);
    if (!file || !file->IsFile || mediator_.isFileDownloaded(file)) return nullptr;
    if (!CacheLayout::isPathIgnored(toPath, false) || CacheLayout::isPathIgnored(path, false)) return nullptr;
    return file;
}

ErrnoOr<Done> TWFuseFileSystem::moveLocked(const std::string& path, const std::string& toPath,
                                           MoveRules rules) {
    if (CacheLayout::isRootPath(path) || CacheLayout::isRootPath(toPath)) return Errno{EIO};
    if (const int error = refusal()) return Errno{error};
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
    const bool targetIsHere = mediator_.isFileDownloaded(target);
    EditedStamp stamp(sourcePath, *source);
    if (stamp.error() != 0) return Errno{stamp.error()};
    // What the target had goes with the source's record.
    if (!store_.exchangeCachedFiles(*source, *target)) return Errno{EIO};
    stamp.keep();
    // Not before: the opens of a target that stays would write what nobody hears of. They keep the record as
    // it was, by which contents that are not here can still be fetched.
    const auto former = std::make_shared<TWVirtualFile>(*target);
    for (const auto& handle : TWFuseFileData::openedFiles(target->InternalName.view()))
        handle->detach(former, targetIsHere ? sourcePath : std::string());
    target->LocallyUpdated = true;
    setSize(*target, source->size());
    target->LastWriteTime = source->LastWriteTime;
    target->LastAccessTime = source->LastAccessTime;
    target->POSIXPermissions = source->POSIXPermissions;
    store_.noteContentsChanged(*target);
    store_.noteAttributesChanged(*target);
    store_.noteIdentityChanged(*source, *target);
    TWFuseFileData::contentsRenamed(target->InternalName.view(), source->UploadName.view(),
                                    target->UploadName.view());
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
    if (const int error = refusal()) return Errno{error};
    LocalChange change(store_);
    {
        EditedStamp first(layout_.cachePathForFile(*files[0]), *files[0]);
        EditedStamp second(layout_.cachePathForFile(*files[1]), *files[1]);
        if (const int error = first.error() != 0 ? first.error() : second.error()) return Errno{error};
        if (!store_.exchangeCachedContents(*files[0], *files[1])) return Errno{EIO};
        first.keep();
        second.keep();
    }
    std::swap(files[0]->AllocationSize, files[1]->AllocationSize);
    std::swap(files[0]->EndOfFile, files[1]->EndOfFile);
    std::swap(files[0]->LastWriteTime, files[1]->LastWriteTime);
    store_.noteIdentitiesExchanged(*files[0], *files[1]);
    for (int i = 0; i < 2; ++i) {
        TWFuseFileData::contentsRenamed(files[i]->InternalName.view(), files[1 - i]->UploadName.view(),
                                        files[i]->UploadName.view());
    }
    for (const auto& file : files) {
        file->LocallyUpdated = true;
        store_.noteContentsChanged(*file);
        store_.noteAttributesChanged(*file);
        endBurst(file, true, nullptr);
    }
    store_.saveDelayed();
    return answered(change);
}

// Removing

ErrnoOr<Done> TWFuseFileSystem::removeDirectoryAtPath(const std::string& path) {
    TWLog(kLogFuse, "TWFuseFileSystem: removeDirectoryAtPath:%@", path);
    if (!CacheLayout::isPathIgnored(path, true) && isReadOnly(path)) return Errno{EACCES};
    if (CacheLayout::isRootPath(path)) return Errno{EACCES};
    LocalChange change(store_);
    if (CacheLayout::isSharePath(path)) return Errno{store_.shareWithPath(path) ? EACCES : ENOENT};
    const auto folder = visibleFileWithPath(path);
    if (!folder) return Errno{ENOENT};
    if (folder->IsFile) return Errno{ENOTDIR};
    if (const int error = refusal()) return Errno{error};
    for (const auto& handle : TWFuseFileData::openedFiles()) {
        const auto file = store_.fileWithId(handle->fileId().view());
        if (file && file->FullPath.view().starts_with(folder->FullPath.str() + "/")) detachOpens(file);
    }
    store_.removeFolderRecursively(folder);
    return answered(change);
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
    LocalChange change(store_);
    const auto file = visibleFileWithPath(path);
    const bool isFolder = file && !file->IsFile;
    if (!CacheLayout::isPathIgnored(path, isFolder) && isReadOnly(path)) return Errno{EACCES};
    if (CacheLayout::isRootPath(path)) return Errno{EACCES};
    if (lastPathComponent(path) == kRefreshName) return Done{};
    if (CacheLayout::isSharePath(path)) return Errno{store_.shareWithPath(path) ? EACCES : ENOENT};
    if (!file) return Errno{ENOENT};
    if (isFolder && showsEntries(*file, true)) return Errno{ENOTEMPTY};
    if (const int error = refusal()) return Errno{error};
    if (!isFolder) detachOpens(file);
    store_.removeFile(file);
    return answered(change);
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
