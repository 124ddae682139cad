// New files and folders.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "drive/TWFuseFileSystem.h"
#include "store/ContentVersion.h"
#include "store/Enums.h"
#include "store/LocalChangeJournal.h"
#include "util/Format.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

std::string TWFuseFileSystem::described(const AttributeChanges& attributes) {
    std::string text = "{";
    if (attributes.permissions) text += format(" permissions=%o", *attributes.permissions);
    if (attributes.size) text += format(" size=%lld", *attributes.size);
    if (attributes.modification) text += " modification=" + JSONObjectFromNSDate(*attributes.modification);
    if (attributes.access) text += " access=" + JSONObjectFromNSDate(*attributes.access);
    return text + " }";
}

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
    Creation creation;
    {
        const auto lock = store_.beginWriteStorage();
        auto made = createItem(path, attributes, caller, mode);
        if (!made) return Errno{made.error()};
        creation = *std::move(made);
    }
    if (const auto finished = finishCreation(creation, attributes); !finished) {
        releaseFileAtPath(path, creation.handle.get());
        return Errno{finished.error()};
    }
    return creation.handle;
}

ErrnoOr<TWFuseFileSystem::Creation> TWFuseFileSystem::createItem(const std::string& path,
                                                                 const AttributeChanges& attributes,
                                                                 pid_t caller, int mode) {
    TWLog(kLogFuse, "TWFuseFileSystem: createFileAtPath:%@ attributes:%@", path, described(attributes));
    if (!CacheLayout::isPathIgnored(path, false) && isReadOnly(path)) return Errno{EACCES};
    const auto parent = parentOfPath(path);
    if (!parent.share) return Errno{EACCES};
    const auto existing = visibleFileWithPath(path);
    if (existing && !existing->IsFile) {
        TWLog(kLogMain, "Warning! Trying to create file in place of directory : %@",
              layout_.relativePathToFull(path));
        return Errno{EISDIR};
    }
    if (CacheLayout::isSpecialPath(path)) return Creation{};
    if (!existing) {
        auto made = createNewFile(path, parent, attributes, mode, caller);
        if (!made) return Errno{made.error()};
        return Creation{*std::move(made), false};
    }
    if ((mode & O_EXCL) != 0) return Errno{EEXIST};
    return Creation{TWFuseFileData::create(mode, caller, existing->InternalName), (mode & O_TRUNC) != 0};
}

ErrnoOr<Done> TWFuseFileSystem::finishCreation(const Creation& creation, const AttributeChanges& attributes) {
    if (!creation.empties) return Done{};
    Resize resize;
    {
        const auto lock = store_.beginWriteStorage();
        auto begun = beginResize("", creation.handle.get(), 0);
        if (!begun) return Errno{begun.error()};
        resize = *std::move(begun);
    }
    if (const auto emptied = finishResize(resize); !emptied) return emptied;
    LocalChange change(store_);
    const auto file = store_.fileWithId(creation.handle->fileId().view());
    if (!file) return Done{};
    if (attributes.permissions) file->POSIXPermissions = static_cast<std::int32_t>(*attributes.permissions);
    store_.noteAttributesChanged(*file);
    if (!CacheLayout::isPathIgnored(file->FullPath.view(), false)) journalUpdate(file);
    return answered(change);
}

ErrnoOr<TWFuseFileDataPtr> TWFuseFileSystem::createNewFile(const std::string& path, const Parent& parent,
                                                           const AttributeChanges& attributes, int mode,
                                                           pid_t caller) {
    if (const int error = refusal()) return Errno{error};
    // An exchange that the journal makes for the new item finds the handle registered.
    LocalChange change(store_);
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
        (void)ContentVersion::edited("").set(descriptor);
        handle->pin(*file);
    } else {
        TWLog(kLogFuse, "Warning! Cannot create file in path %@ : error %d", cachePath, errno);
        if (descriptor >= 0) ::close(descriptor);
    }
    if (!CacheLayout::isPathIgnored(path, false)) {
        auto& journal = store_.journal();
        journal.addChangeToJournal(journal.createJournalForFile(file, kJournalCreate));
    }
    store_.saveDelayed();
    if (const auto lasting = answered(change); !lasting) {
        // The caller hears that there is no file.
        const auto made = store_.fileWithId(handle->fileId().view());
        handle->close();
        if (made) store_.removeFile(made);
        return Errno{lasting.error()};
    }
    return handle;
}

ErrnoOr<Done> TWFuseFileSystem::createDirectoryAtPath(const std::string& path,
                                                      const AttributeChanges& attributes) {
    TWLog(kLogFuse, "TWFuseFileSystem: createDirectoryAtPath:%@ attributes:%@", path, described(attributes));
    const auto name = lastPathComponent(path);
    if (CacheLayout::containsInvalidCharacters(name)) return Errno{ENAMETOOLONG};
    LocalChange change(store_);
    if (!CacheLayout::isPathIgnored(path, true) && isReadOnly(path)) return Errno{EACCES};
    const auto parent = parentOfPath(path);
    const auto existing = visibleFileWithPath(path);
    if (existing && !existing->IsFile) return Errno{EEXIST};
    if (const int error = refusal()) return Errno{error};
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
    const auto lasting = answered(change);
    if (!lasting) store_.removeFile(folder);
    return lasting;
}

}  // namespace tarnwell
