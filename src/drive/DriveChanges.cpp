// The requests of the kernel that change the drive.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstdio>

#include "drive/DriveNames.h"
#include "drive/DriveOperations.h"
#include "util/TWUtils.h"

namespace tarnwell {

using Kind = NodeIdentity::Kind;

bool DriveOperations::isSpecial(std::uint64_t parent, std::string_view name) const {
    if (name == kRefreshName) return true;
    const auto folder = nodes_.find(parent);
    return folder && folder->kind == Kind::root && name == kFuseLockName;
}

ErrnoOr<DriveOperations::Created> DriveOperations::create(std::uint64_t parent, std::string_view name,
                                                          mode_t mode, int flags, pid_t caller) {
    if (isSpecial(parent, name)) {
        const auto entry = lookup(parent, name);
        if (!entry) return Errno{entry.error()};
        return Created{*entry, addFile(entry->node, nullptr, true, true)};
    }
    TWFuseFileSystem::AttributeChanges attributes;
    attributes.permissions = mode & 07777;
    Created result;
    TWFuseFileSystem::Creation creation;
    {
        const auto place = placeOfChild(parent, name, true);
        if (!place) return Errno{place.error()};
        auto made = fileSystem_->createItem(place->path, attributes, caller, flags | O_CREAT);
        if (!made) return Errno{made.error()};
        creation = *std::move(made);
        const auto& userData = creation.handle;
        // The journal may have given the new file the identity of one that was here before.
        const auto item = fileSystem_->attributesOfItemAtPath(place->path, userData.get());
        if (!item) {
            fileSystem_->releaseFileAtPath(place->path, userData.get());
            return Errno{item.error()};
        }
        const NodeIdentity identity{Kind::item, userData->fileId()};
        const auto node = nodes_.enter(identity);
        result.entry = {node, attributesOf(node, *item)};
        result.file = addFile(node, userData, true, false);
    }
    const auto emptied = fileSystem_->finishCreation(creation, attributes);
    if (emptied) return result;
    release(result.entry.node, result.file.handle);
    forget(result.entry.node, 1);
    return Errno{emptied.error()};
}

ErrnoOr<DriveOperations::Entry> DriveOperations::mknod(std::uint64_t parent, std::string_view name,
                                                       mode_t mode, pid_t caller) {
    if ((mode & S_IFMT) != S_IFREG && (mode & S_IFMT) != 0) return Errno{EPERM};
    const auto created = create(parent, name, mode, O_WRONLY | O_CREAT | O_EXCL, caller);
    if (!created) return Errno{created.error()};
    release(created->entry.node, created->file.handle);
    return created->entry;
}

ErrnoOr<DriveOperations::Entry> DriveOperations::mkdir(std::uint64_t parent, std::string_view name,
                                                       mode_t mode) {
    if (isSpecial(parent, name)) return Errno{EEXIST};
    if (const int error = newNameError(name)) return Errno{error};
    const auto folder = placeOf(parent);
    if (!folder) return Errno{folder.error()};
    TWFuseFileSystem::AttributeChanges attributes;
    attributes.permissions = mode & 07777;
    const auto made = fileSystem_->createDirectoryAtPath(appendPathComponent(folder->path, name), attributes);
    if (!made) return Errno{made.error()};
    return entryIn(*folder, name);
}

ErrnoOr<std::size_t> DriveOperations::write(std::uint64_t node, std::uint64_t handle, const char* buffer,
                                            std::size_t size, std::int64_t offset, int flags) {
    const auto file = files_.find(handle);
    if (!file) return Errno{EBADF};
    if (!file->userData) return size;
    return fileSystem_->writeFileAtPath(pathOf(node), file->userData.get(), buffer, size, offset,
                                        (flags & O_APPEND) != 0);
}

ErrnoOr<Done> DriveOperations::fallocate(std::uint64_t node, std::uint64_t handle, int mode,
                                         std::int64_t offset, std::int64_t length) {
    const auto file = files_.find(handle);
    if (!file) return Errno{EBADF};
    if (!file->userData) return Errno{EOPNOTSUPP};
    return fileSystem_->allocateFileAtPath(pathOf(node), *file->userData, mode, offset, length);
}

ErrnoOr<Done> DriveOperations::flush(std::uint64_t node, std::uint64_t handle) {
    const auto file = files_.find(handle);
    if (!file || !file->userData) return Done{};
    return fileSystem_->flushFileAtPath(pathOf(node), file->userData.get());
}

ErrnoOr<Done> DriveOperations::fsync(std::uint64_t node, std::uint64_t handle) {
    const auto file = files_.find(handle);
    if (!file) return Errno{EBADF};
    if (!file->userData) return Done{};
    return fileSystem_->syncFileAtPath(pathOf(node), file->userData.get());
}

ErrnoOr<Done> DriveOperations::fsyncdir(std::uint64_t node) {
    std::string cacheFolder;
    {
        const auto place = placeOf(node);
        if (!place) return Errno{place.error()};
        cacheFolder = fileSystem_->cacheFolderOfItemAtPath(place->path);
    }
    return fileSystem_->syncCacheFolder(cacheFolder);
}

ErrnoOr<Done> DriveOperations::unlink(std::uint64_t parent, std::string_view name) {
    if (isSpecial(parent, name)) {
        if (name == kRefreshName) return Done{};
        return Errno{EACCES};
    }
    OwnedDescriptor held;  // closed, and with it a large file's space freed, after the lock
    const auto place = placeOfChild(parent, name, false);
    if (!place) return Errno{place.error()};
    const auto item = fileSystem_->attributesOfItemAtPath(place->path, nullptr);
    if (item && item->isFolder && place->identity.kind != Kind::root) return Errno{EISDIR};
    held = fileSystem_->holdLargeFile(place->path);
    return fileSystem_->removeItemAtPath(place->path);
}

ErrnoOr<Done> DriveOperations::rmdir(std::uint64_t parent, std::string_view name) {
    const auto place = placeOfChild(parent, name, false);
    if (!place) return Errno{place.error()};
    if (isSpecial(parent, name)) return Errno{ENOTDIR};
    return fileSystem_->removeEmptyDirectoryAtPath(place->path);
}

ErrnoOr<Done> DriveOperations::rename(std::uint64_t parent, std::string_view name, std::uint64_t newParent,
                                      std::string_view newName, unsigned flags) {
    if (flags != 0 && flags != RENAME_NOREPLACE && flags != RENAME_EXCHANGE) return Errno{EINVAL};
    if (isSpecial(parent, name) || isSpecial(newParent, newName)) return Errno{EACCES};
    TWFuseFileSystem::MoveRules rules;
    rules.replaces = flags != RENAME_NOREPLACE;
    rules.takesName = true;
    for (bool fetched = false;; fetched = true) {
        TWVirtualFilePtr missing;
        {
            OwnedDescriptor held;  // as in unlink()
            const auto from = placeOfChild(parent, name, false);
            if (!from) return Errno{from.error()};
            const auto to = placeOfChild(newParent, newName, true);
            if (!to) return Errno{to.error()};
            if (flags == RENAME_EXCHANGE) return fileSystem_->exchangeDataOfItemAtPath(from->path, to->path);
            if (!fetched) missing = fileSystem_->missingForMove(from->path, to->path);
            if (!missing) {
                held = fileSystem_->holdLargeFile(to->path);
                return fileSystem_->moveItem(from->path, to->path, rules);
            }
        }
        // Where that fails the move does, and says so.
        (void)fileSystem_->fetchContents(missing);
    }
}

ErrnoOr<Done> DriveOperations::setxattr(std::uint64_t node, std::string_view name, std::string_view value,
                                        int flags) {
    const std::string attribute(attributeName(name));
    const auto place = placeOf(node);
    if (!place) return Errno{place.error()};
    if (attribute.empty() || place->identity.isSpecial()) return Errno{EOPNOTSUPP};
    if (place->identity.kind == Kind::root) return Errno{EACCES};
    // A new value replaces the whole of an old one here, also a longer one.
    if (flags == 0) {
        const auto replaced =
            fileSystem_->setExtendedAttribute(attribute, place->path, value, 0, XATTR_REPLACE);
        if (replaced.error() != ENODATA) return replaced;
    }
    return fileSystem_->setExtendedAttribute(attribute, place->path, value, 0, flags);
}

ErrnoOr<Done> DriveOperations::removexattr(std::uint64_t node, std::string_view name) {
    const std::string attribute(attributeName(name));
    const auto place = placeOf(node);
    if (!place) return Errno{place.error()};
    if (attribute.empty() || place->identity.isSpecial()) return Errno{ENODATA};
    return fileSystem_->removeExtendedAttribute(attribute, place->path);
}

}  // namespace tarnwell
