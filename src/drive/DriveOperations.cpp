#include "drive/DriveOperations.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "drive/DriveNames.h"
#include "drive/FileTimes.h"
#include "store/CacheLayout.h"
#include "util/TWUtils.h"

namespace tarnwell {
namespace {

constexpr std::size_t kBlock = 512;  // unit of st_blocks
/// Programs copy in pieces of this size: one request each.
constexpr blksize_t kPreferredRequest = 1 << 20;
constexpr std::uint64_t kVolumeBlock = 4096;

using Kind = NodeIdentity::Kind;

/// Listings show names decomposed, programs type them composed: both are the item's own.
bool isSpelledAs(const SharedString& itemName, std::string_view name) {
    return itemName == name || decomposed(itemName.view()) == decomposed(name);
}

}  // namespace

DriveOperations::DriveOperations(std::shared_ptr<TWFuseFileSystem> fileSystem, const MountOptions& options)
    : fileSystem_(std::move(fileSystem)), directIo_(options.directIo) {}

DriveOperations::~DriveOperations() {
    for (const auto& file : files_.all()) {
        if (file->userData) fileSystem_->releaseFileAtPath("", file->userData.get());
    }
}

std::string DriveOperations::pathOf(const NodeIdentity& identity) const {
    const auto itemPath = [this](const SharedString& id) {
        const auto lock = fileSystem_->store().beginReadStorage();
        return fileSystem_->store().pathForItemWithId(id.view());
    };
    switch (identity.kind) {
        case Kind::root:
            return "/";
        case Kind::fuseLock:
            return appendPathComponent("/", kFuseLockName);
        case Kind::item:
        case Kind::alias:
            return itemPath(identity.id);
        case Kind::gone:
            break;
        case Kind::refresh:
            return appendPathComponent(identity.id ? itemPath(identity.id) : std::string("/"), kRefreshName);
    }
    return {};
}

DriveOperations::Attributes DriveOperations::attributesOf(
    std::uint64_t node, const TWFuseFileSystem::ItemAttributes& item) const {
    Attributes result;
    struct stat& stat = result.stat;
    stat.st_ino = nodes_.shownNumber(node);
    stat.st_mode = (item.isFolder ? S_IFDIR : S_IFREG) | item.permissions;
    stat.st_nlink = item.removed ? 0 : 1;
    stat.st_uid = item.owner;
    stat.st_gid = item.group;
    stat.st_size = item.size;
    stat.st_blksize = kPreferredRequest;
    stat.st_blocks = static_cast<blkcnt_t>((static_cast<std::size_t>(item.size) + kBlock - 1) / kBlock);
    stat.st_atim = timespecOf(item.access);
    stat.st_mtim = stat.st_ctim = timespecOf(item.modification);
    return result;
}

ErrnoOr<DriveOperations::Entry> DriveOperations::lookup(std::uint64_t parent, std::string_view name) {
    const auto folder = nodes_.find(parent);
    if (!folder) return Errno{ENOENT};
    if (name.size() > kMaximumName) return Errno{ENAMETOOLONG};
    if (!isSafeName(name)) return Errno{ENOENT};
    NodeIdentity identity;
    const auto item = atPath(*folder, [&](const std::string& path) {
        return fileSystem_->attributesOfItemAtPath(appendPathComponent(path, name), nullptr);
    });
    if (!item) return Errno{item.error()};
    if (name == kRefreshName) {
        identity = {Kind::refresh, folder->id};
    } else if (folder->kind == Kind::root && name == kFuseLockName) {
        identity = {Kind::fuseLock, {}};
    } else {
        identity = {isSpelledAs(item->name, name) ? Kind::item : Kind::alias, item->id};
    }
    const auto node = nodes_.enter(identity);
    return Entry{node, attributesOf(node, *item)};
}

ErrnoOr<DriveOperations::Attributes> DriveOperations::getattr(std::uint64_t node) const {
    const auto identity = nodes_.find(node);
    if (!identity) return Errno{ENOENT};
    const auto item =
        atPath(*identity, [&](const std::string& path) -> ErrnoOr<TWFuseFileSystem::ItemAttributes> {
            auto found = fileSystem_->attributesOfItemAtPath(path, nullptr);
            // Another item may have taken the place of one that moved away.
            if (found && identity->isItem() && !(found->id == identity->id)) return Errno{ESTALE};
            return found;
        });
    if (!item && (item.error() == ENOENT || item.error() == ESTALE)) return attributesOfRemoved(node);
    if (!item) return Errno{item.error()};
    return attributesOf(node, *item);
}

/// An open of a file that is no longer on the drive.
TWFuseFileDataPtr DriveOperations::removedFile(std::uint64_t node) const {
    const auto file = files_.findIf([&](const FileHandle& handle) {
        return handle.node == node && handle.userData && handle.userData->isDetached();
    });
    return file ? file->userData : nullptr;
}

ErrnoOr<DriveOperations::Attributes> DriveOperations::attributesOfRemoved(std::uint64_t node) const {
    const auto userData = removedFile(node);
    if (!userData) return Errno{ENOENT};
    const auto item = fileSystem_->attributesOfItemAtPath("", userData.get());
    if (!item) return Errno{item.error()};
    return attributesOf(node, *item);
}

ErrnoOr<DriveOperations::Attributes> DriveOperations::setattr(std::uint64_t node, std::uint64_t handle,
                                                              const AttributeRequest& request) {
    const auto identity = nodes_.find(node);
    if (!identity) return Errno{ENOENT};
    if (identity->isSpecial()) return getattr(node);
    const auto before = getattr(node);
    if (!before) return before;
    const struct stat& stat = before->stat;
    if ((request.owner && *request.owner != stat.st_uid) ||
        (request.group && *request.group != stat.st_gid)) {
        return Errno{EPERM};
    }
    const Date now = fileSystem_->store().clock().now();
    TWFuseFileSystem::AttributeChanges changes;
    if (request.mode) changes.permissions = *request.mode & 07777;
    changes.size = request.size;
    if (request.access || request.accessNow)
        changes.access = request.accessNow ? now : dateOf(*request.access);
    if (request.modification || request.modificationNow)
        changes.modification = request.modificationNow ? now : dateOf(*request.modification);
    if (!changes.permissions && !changes.size && !changes.access && !changes.modification) return before;

    const auto file = files_.find(handle);
    const auto userData = file ? file->userData : removedFile(node);
    const auto changed = userData ? fileSystem_->setAttributes(changes, pathOf(*identity), userData.get())
                                  : atPath(*identity, [&](const std::string& path) {
                                        return fileSystem_->setAttributes(changes, path, nullptr);
                                    });
    if (!changed) return Errno{changed.error()};
    return getattr(node);
}

ErrnoOr<Done> DriveOperations::access(std::uint64_t node, int mask) const {
    const auto attributes = getattr(node);
    if (!attributes) return Errno{attributes.error()};
    const auto identity = nodes_.find(node);
    const bool isSpecial = identity && identity->isSpecial();
    if ((mask & W_OK) != 0 && !isSpecial && !(identity && fileSystem_->isWritable(pathOf(*identity))))
        return Errno{EACCES};
    // The mount is the user's own: the owner's bits count, and a folder can always be entered.
    if ((mask & X_OK) != 0 && !S_ISDIR(attributes->stat.st_mode) &&
        (attributes->stat.st_mode & S_IXUSR) == 0) {
        return Errno{EACCES};
    }
    return Done{};
}

ErrnoOr<DriveOperations::OpenFile> DriveOperations::open(std::uint64_t node, int flags, pid_t caller) {
    const auto identity = nodes_.find(node);
    if (!identity) return Errno{ENOENT};
    const bool changes = (flags & O_ACCMODE) != O_RDONLY || (flags & O_TRUNC) != 0;
    auto opened = atPath(*identity, [&](const std::string& path) -> ErrnoOr<TWFuseFileDataPtr> {
        auto result = fileSystem_->openFileAtPath(path, flags, caller);
        if (result && identity->isItem() && !((*result)->fileId() == identity->id)) return Errno{ESTALE};
        return result;
    });
    if (!opened) return Errno{opened.error()};
    return addFile(node, *std::move(opened), changes, identity->isSpecial());
}

DriveOperations::OpenFile DriveOperations::addFile(std::uint64_t node, TWFuseFileDataPtr userData,
                                                   bool changes, bool isSpecial) {
    OpenFile result;
    result.directIo = directIo_;
    // Nothing to write out at a close. The process itself keeps "/.fuselock" open: a flush would make it
    // wait, when it is killed, for an answer that nobody is there to give.
    result.noflush = !changes || isSpecial;
    result.handle = files_.add(std::make_shared<FileHandle>(FileHandle{std::move(userData), node}));
    return result;
}

ErrnoOr<std::size_t> DriveOperations::read(std::uint64_t node, std::uint64_t handle, char* buffer,
                                           std::size_t size, std::int64_t offset) const {
    const auto identity = nodes_.find(node);
    const auto file = files_.find(handle);
    if (!identity || !file) return Errno{EBADF};
    if (identity->isSpecial()) return std::size_t{0};
    return fileSystem_->readFileAtPath(pathOf(*identity), file->userData.get(), buffer, size, offset);
}

void DriveOperations::release(std::uint64_t node, std::uint64_t handle) {
    const auto file = files_.remove(handle);
    const auto identity = nodes_.find(node);
    if (!file || !file->userData) return;
    fileSystem_->releaseFileAtPath(identity ? pathOf(*identity) : std::string(), file->userData.get());
}

ErrnoOr<DriveOperations::OpenDirectory> DriveOperations::opendir(std::uint64_t node) {
    const auto identity = nodes_.find(node);
    if (!identity || pathOf(*identity).empty()) return Errno{ENOENT};
    return OpenDirectory{directories_.add(std::make_shared<DirectoryHandle>())};
}

ErrnoOr<DriveOperations::ListingPtr> DriveOperations::makeListing(const NodeIdentity& identity) const {
    const auto path = pathOf(identity);
    if (path.empty()) return Errno{ENOENT};
    auto listing = std::make_shared<Listing>();
    auto contents = fileSystem_->contentsOfDirectoryAtPath(path);
    listing->entries.reserve(contents.size() + 2);
    // The kernel knows the parent's number itself.
    const auto number = nodes_.shownNumber(identity);
    listing->entries.push_back({".", number, S_IFDIR});
    listing->entries.push_back({"..", number, S_IFDIR});
    for (auto& entry : contents) {
        if (!isSafeName(entry.name)) continue;
        const NodeIdentity child{entry.id ? Kind::item : Kind::fuseLock, std::move(entry.id)};
        listing->entries.push_back({std::move(entry.name), nodes_.shownNumber(child),
                                    static_cast<mode_t>(entry.isFolder ? S_IFDIR : S_IFREG)});
    }
    return ListingPtr(std::move(listing));
}

ErrnoOr<DriveOperations::ListingPtr> DriveOperations::listing(std::uint64_t node, std::uint64_t handle,
                                                              std::int64_t offset) const {
    const auto identity = nodes_.find(node);
    const auto directory = directories_.find(handle);
    if (!identity || !directory || offset < 0) return Errno{EBADF};
    {
        std::lock_guard lock(directory->mutex);
        if (directory->listing && offset > 0) return directory->listing;
    }
    auto listing = makeListing(*identity);
    if (!listing) return listing;
    std::lock_guard lock(directory->mutex);
    directory->listing = *listing;
    return listing;
}

ErrnoOr<struct statvfs> DriveOperations::statfs() const {
    const auto volume = fileSystem_->attributesOfFileSystemForPath("/");
    if (!volume) return Errno{volume.error()};
    struct statvfs result {};
    result.f_bsize = result.f_frsize = kVolumeBlock;
    result.f_blocks = volume->size / kVolumeBlock;
    result.f_bfree = volume->freeSize / kVolumeBlock;
    result.f_bavail = volume->availableSize / kVolumeBlock;
    result.f_files = volume->nodes;
    result.f_ffree = result.f_favail = volume->freeNodes;
    result.f_namemax = kMaximumNewName;
    return result;
}

ErrnoOr<std::string> DriveOperations::getxattr(std::uint64_t node, std::string_view name) const {
    const std::string attribute(attributeName(name));
    if (attribute.empty()) return Errno{ENODATA};
    const auto identity = nodes_.find(node);
    if (!identity) return Errno{ENOENT};
    return atPath(*identity, [&](const std::string& path) {
        return fileSystem_->valueOfExtendedAttribute(attribute, path, 0);
    });
}

ErrnoOr<std::string> DriveOperations::listxattr(std::uint64_t node) const {
    const auto identity = nodes_.find(node);
    if (!identity) return Errno{ENOENT};
    std::string list;
    if (identity->isSpecial()) return list;
    const auto names = atPath(*identity, [&](const std::string& path) {
        return fileSystem_->extendedAttributesOfItemAtPath(path);
    });
    if (!names) return Errno{names.error()};
    for (const auto& name : *names) {
        if (name.empty() || name.find('\0') != std::string::npos) continue;
        if (!name.starts_with(kUserPrefix)) list += kUserPrefix;
        list.append(name).push_back('\0');
    }
    return list;
}

void DriveOperations::identityChanged(std::string_view from, std::string_view to) {
    TWFuseFileData::identityChanged(from, to);
    nodes_.identityChanged(SharedString(from), SharedString(to));
}

void DriveOperations::identitiesExchanged(std::string_view a, std::string_view b) {
    TWFuseFileData::identitiesExchanged(a, b);
    nodes_.identitiesExchanged(SharedString(a), SharedString(b));
}

}  // namespace tarnwell
