#include "drive/DriveOperations.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "store/CacheLayout.h"
#include "util/TWUtils.h"

namespace tarnwell {
namespace {

constexpr std::string_view kFuseLockName = ".fuselock";
constexpr std::string_view kRefreshName = ".twrefresh";
constexpr std::string_view kUserPrefix = "user.";
constexpr std::size_t kMaximumName = 1024;  // longer names fail the kernel's whole listing
constexpr std::size_t kBlock = 512;         // unit of st_blocks
/// Programs copy in pieces of this size: one request each.
constexpr blksize_t kPreferredRequest = 1 << 20;
constexpr std::uint64_t kVolumeBlock = 4096;
constexpr int kMoveRetries = 3;

using Kind = NodeIdentity::Kind;

/// Names from the service that must not reach the kernel: they would leave the folder or void the listing.
bool isSafeName(std::string_view name) {
    return !name.empty() && name.size() <= kMaximumName && name != "." && name != ".." &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

/// The drive's name of an attribute; empty for the namespaces that it never has anything in.
std::string_view attributeName(std::string_view name) {
    for (const std::string_view foreign : {"security.", "system.", "trusted."}) {
        if (name.starts_with(foreign)) return {};
    }
    if (name.starts_with(kUserPrefix)) name.remove_prefix(kUserPrefix.size());
    return name;
}

timespec timespecOf(Date date) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(date);
    return {static_cast<time_t>(seconds.time_since_epoch().count()),
            static_cast<long>(std::chrono::nanoseconds(date - seconds).count())};
}

}  // namespace

DriveOperations::DriveOperations(std::shared_ptr<TWFuseFileSystem> fileSystem, const MountOptions& options)
    : fileSystem_(std::move(fileSystem)), directIo_(options.directIo) {}

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
            return itemPath(identity.id);
        case Kind::refresh:
            return appendPathComponent(identity.id ? itemPath(identity.id) : std::string("/"), kRefreshName);
    }
    return {};
}

template <class Call>
auto DriveOperations::atPath(const NodeIdentity& identity, Call call) const -> decltype(call(std::string())) {
    auto path = pathOf(identity);
    for (int attempt = 0; !path.empty(); ++attempt) {
        auto result = call(path);
        const bool missed = result.error() == ENOENT || result.error() == EINVAL || result.error() == ESTALE;
        if (!missed || attempt == kMoveRetries) return result;
        auto now = pathOf(identity);
        if (now == path) return result;
        path = std::move(now);
    }
    return Errno{ENOENT};
}

DriveOperations::Attributes DriveOperations::attributesOf(
    const NodeIdentity& identity, const TWFuseFileSystem::ItemAttributes& item) const {
    Attributes result;
    struct stat& stat = result.stat;
    stat.st_ino = identity.stableNumber();
    stat.st_mode = (item.isFolder ? S_IFDIR : S_IFREG) | item.permissions;
    stat.st_nlink = 1;
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
        identity = {Kind::item, item->id};
    }
    auto attributes = attributesOf(identity, *item);
    return Entry{nodes_.enter(identity), attributes};
}

ErrnoOr<DriveOperations::Attributes> DriveOperations::getattr(std::uint64_t node) const {
    const auto identity = nodes_.find(node);
    if (!identity) return Errno{ENOENT};
    const auto item =
        atPath(*identity, [&](const std::string& path) -> ErrnoOr<TWFuseFileSystem::ItemAttributes> {
            auto found = fileSystem_->attributesOfItemAtPath(path, nullptr);
            // Another item may have taken the place of one that moved away.
            if (found && identity->kind == Kind::item && !(found->id == identity->id)) return Errno{ESTALE};
            return found;
        });
    if (!item) return Errno{item.error()};
    return attributesOf(*identity, *item);
}

ErrnoOr<DriveOperations::Attributes> DriveOperations::setattr(std::uint64_t node) const {
    const auto identity = nodes_.find(node);
    if (!identity) return Errno{ENOENT};
    if (!identity->isSpecial()) return Errno{EROFS};
    return getattr(node);
}

ErrnoOr<Done> DriveOperations::access(std::uint64_t node, int mask) const {
    const auto attributes = getattr(node);
    if (!attributes) return Errno{attributes.error()};
    const auto identity = nodes_.find(node);
    if ((mask & W_OK) != 0 && !(identity && identity->isSpecial())) return Errno{EROFS};
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
    if (changes && !identity->isSpecial()) return Errno{EROFS};
    auto opened = atPath(*identity, [&](const std::string& path) -> ErrnoOr<TWFuseFileDataPtr> {
        auto result = fileSystem_->openFileAtPath(path, flags, caller);
        if (result && identity->kind == Kind::item && !((*result)->fileId() == identity->id))
            return Errno{ESTALE};
        return result;
    });
    if (!opened) return Errno{opened.error()};
    OpenFile result;
    result.directIo = directIo_;
    // Nothing to write out at a close. The process itself keeps "/.fuselock" open: a flush would make it
    // wait, when it is killed, for an answer that nobody is there to give.
    result.noflush = !changes || identity->isSpecial();
    result.handle = files_.add(std::make_shared<FileHandle>(FileHandle{*std::move(opened)}));
    return result;
}

ErrnoOr<std::size_t> DriveOperations::read(std::uint64_t node, std::uint64_t handle, char* buffer,
                                           std::size_t size, std::int64_t offset) const {
    const auto identity = nodes_.find(node);
    const auto file = files_.find(handle);
    if (!identity || !file) return Errno{EBADF};
    if (identity->isSpecial()) return std::size_t{0};
    return atPath(*identity, [&](const std::string& path) {
        return fileSystem_->readFileAtPath(path, file->userData.get(), buffer, size, offset);
    });
}

ErrnoOr<std::size_t> DriveOperations::write(std::uint64_t node, std::size_t size) const {
    const auto identity = nodes_.find(node);
    if (!identity || !identity->isSpecial()) return Errno{EROFS};
    return size;
}

void DriveOperations::release(std::uint64_t node, std::uint64_t handle) {
    const auto file = files_.remove(handle);
    const auto identity = nodes_.find(node);
    if (!file || !identity || identity->isSpecial()) return;
    fileSystem_->releaseFileAtPath(pathOf(*identity), file->userData.get());
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
    listing->entries.push_back({".", identity.stableNumber(), S_IFDIR});
    listing->entries.push_back({"..", identity.stableNumber(), S_IFDIR});
    for (auto& entry : contents) {
        if (!isSafeName(entry.name)) continue;
        const NodeIdentity child{entry.id ? Kind::item : Kind::fuseLock, std::move(entry.id)};
        listing->entries.push_back({std::move(entry.name), child.stableNumber(),
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
    result.f_namemax = 255;
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

ErrnoOr<Done> DriveOperations::unlink(std::uint64_t /*parent*/, std::string_view name) const {
    if (name == kRefreshName) return Done{};
    return Errno{EROFS};
}

}  // namespace tarnwell
