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

ErrnoOr<std::string> DriveOperations::childPath(std::uint64_t parent, std::string_view name,
                                                bool isNew) const {
    if (isNew) {
        if (const int error = newNameError(name)) return Errno{error};
    } else if (!isSafeName(name)) {
        return Errno{ENOENT};
    }
    const auto folder = nodes_.find(parent);
    const auto path = folder ? pathOf(*folder) : std::string();
    if (path.empty()) return Errno{ENOENT};
    return appendPathComponent(path, name);
}

ErrnoOr<DriveOperations::Created> DriveOperations::create(std::uint64_t parent, std::string_view name,
                                                          mode_t mode, int flags, pid_t caller) {
    if (isSpecial(parent, name)) {
        const auto entry = lookup(parent, name);
        if (!entry) return Errno{entry.error()};
        return Created{*entry, addFile(entry->node, nullptr, true, true)};
    }
    const auto path = childPath(parent, name, true);
    if (!path) return Errno{path.error()};
    TWFuseFileSystem::AttributeChanges attributes;
    attributes.permissions = mode & 07777;
    auto userData = fileSystem_->createFileAtPath(*path, attributes, caller, flags | O_CREAT);
    if (!userData) return Errno{userData.error()};
    // The journal may have given the new file the identity of one that was here before.
    const NodeIdentity identity{Kind::item, (*userData)->fileId()};
    auto item = fileSystem_->attributesOfItemAtPath(*path, userData->get());
    if (!item) return Errno{item.error()};
    const auto node = nodes_.enter(identity);
    return Created{{node, attributesOf(node, *item)}, addFile(node, *std::move(userData), true, false)};
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
    const auto path = childPath(parent, name, true);
    if (!path) return Errno{path.error()};
    TWFuseFileSystem::AttributeChanges attributes;
    attributes.permissions = mode & 07777;
    const auto made = fileSystem_->createDirectoryAtPath(*path, attributes);
    if (!made) return Errno{made.error()};
    return lookup(parent, name);
}

ErrnoOr<std::size_t> DriveOperations::write(std::uint64_t node, std::uint64_t handle, const char* buffer,
                                            std::size_t size, std::int64_t offset, int flags) {
    const auto identity = nodes_.find(node);
    const auto file = files_.find(handle);
    if (!identity || !file) return Errno{EBADF};
    if (identity->isSpecial()) return size;
    return fileSystem_->writeFileAtPath(pathOf(*identity), file->userData.get(), buffer, size, offset,
                                        (flags & O_APPEND) != 0);
}

ErrnoOr<Done> DriveOperations::fallocate(std::uint64_t node, std::uint64_t handle, int mode,
                                         std::int64_t offset, std::int64_t length) {
    const auto identity = nodes_.find(node);
    const auto file = files_.find(handle);
    if (!identity || !file) return Errno{EBADF};
    if (!file->userData) return Errno{EOPNOTSUPP};
    return fileSystem_->allocateFileAtPath(pathOf(*identity), *file->userData, mode, offset, length);
}

void DriveOperations::flush(std::uint64_t node, std::uint64_t handle) {
    const auto identity = nodes_.find(node);
    const auto file = files_.find(handle);
    if (identity && file && file->userData)
        fileSystem_->flushFileAtPath(pathOf(*identity), file->userData.get());
}

ErrnoOr<Done> DriveOperations::fsync(std::uint64_t node, std::uint64_t handle) {
    const auto identity = nodes_.find(node);
    const auto file = files_.find(handle);
    if (!identity || !file) return Errno{EBADF};
    if (!file->userData) return Done{};
    return fileSystem_->syncFileAtPath(pathOf(*identity), file->userData.get());
}

ErrnoOr<Done> DriveOperations::fsyncdir(std::uint64_t node) {
    const auto identity = nodes_.find(node);
    if (!identity) return Errno{ENOENT};
    return fileSystem_->syncDirectoryAtPath(pathOf(*identity));
}

ErrnoOr<Done> DriveOperations::unlink(std::uint64_t parent, std::string_view name) {
    if (isSpecial(parent, name)) {
        if (name == kRefreshName) return Done{};
        return Errno{EACCES};
    }
    const auto path = childPath(parent, name, false);
    if (!path) return Errno{path.error()};
    return fileSystem_->removeItemAtPath(*path);
}

ErrnoOr<Done> DriveOperations::rmdir(std::uint64_t parent, std::string_view name) {
    const auto path = childPath(parent, name, false);
    if (!path) return Errno{path.error()};
    if (isSpecial(parent, name)) return Errno{ENOTDIR};
    return fileSystem_->removeEmptyDirectoryAtPath(*path);
}

ErrnoOr<Done> DriveOperations::rename(std::uint64_t parent, std::string_view name, std::uint64_t newParent,
                                      std::string_view newName, unsigned flags) {
    if (flags != 0 && flags != RENAME_NOREPLACE && flags != RENAME_EXCHANGE) return Errno{EINVAL};
    if (isSpecial(parent, name) || isSpecial(newParent, newName)) return Errno{EACCES};
    const auto from = childPath(parent, name, false);
    if (!from) return Errno{from.error()};
    const auto to = childPath(newParent, newName, true);
    if (!to) return Errno{to.error()};
    if (flags == RENAME_EXCHANGE) return fileSystem_->exchangeDataOfItemAtPath(*from, *to);
    TWFuseFileSystem::MoveRules rules;
    rules.replaces = flags != RENAME_NOREPLACE;
    rules.takesName = true;
    return fileSystem_->moveItemAtPath(*from, *to, rules);
}

ErrnoOr<Done> DriveOperations::setxattr(std::uint64_t node, std::string_view name, std::string_view value,
                                        int flags) {
    const std::string attribute(attributeName(name));
    const auto identity = nodes_.find(node);
    if (!identity) return Errno{ENOENT};
    if (attribute.empty() || identity->isSpecial()) return Errno{EOPNOTSUPP};
    if (identity->kind == Kind::root) return Errno{EACCES};
    return atPath(*identity, [&](const std::string& path) {
        // A new value replaces the whole of an old one here, also a longer one.
        if (flags == 0) {
            const auto replaced = fileSystem_->setExtendedAttribute(attribute, path, value, 0, XATTR_REPLACE);
            if (replaced.error() != ENODATA) return replaced;
        }
        return fileSystem_->setExtendedAttribute(attribute, path, value, 0, flags);
    });
}

ErrnoOr<Done> DriveOperations::removexattr(std::uint64_t node, std::string_view name) {
    const std::string attribute(attributeName(name));
    const auto identity = nodes_.find(node);
    if (!identity) return Errno{ENOENT};
    if (attribute.empty() || identity->isSpecial()) return Errno{ENODATA};
    return atPath(*identity, [&](const std::string& path) {
        return fileSystem_->removeExtendedAttribute(attribute, path);
    });
}

}  // namespace tarnwell
