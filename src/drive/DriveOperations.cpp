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

/// The composed and the decomposed spelling of a name are both the item's own.
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
    const auto itemPath = [&store = fileSystem_->store()](const SharedString& id) -> std::string {
        if (const auto file = store.fileWithId(id.view())) {
            // Names that differ in letter case alone share one path, which shows one of their items.
            const bool shows = !file->Deleted && store.fileWithPath(file->FullPath.view()) == file;
            return shows ? file->FullPath.str() : std::string();
        }
        return store.pathForItemWithId(id.view());
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
            // A request that looked the name up just before it was replaced means what has the name now. The
            // kernel would look it up again only once.
            return itemPath(identity.id);
        case Kind::refresh: {
            const auto folder = identity.id ? itemPath(identity.id) : std::string("/");
            return folder.empty() ? folder : appendPathComponent(folder, kRefreshName);
        }
    }
    return {};
}

std::string DriveOperations::pathOf(std::uint64_t node) const {
    const auto place = placeOf(node);
    return place ? place->path : std::string();
}

ErrnoOr<DriveOperations::Place> DriveOperations::placeOf(std::uint64_t node) const {
    Place place{fileSystem_->store().beginWriteStorage(), {}, {}};
    auto identity = nodes_.find(node);
    if (!identity || (identity->kind == Kind::gone && removedFile(node))) return Errno{ESTALE};
    place.identity = *std::move(identity);
    place.path = pathOf(place.identity);
    if (place.path.empty()) return Errno{ESTALE};
    return place;
}

ErrnoOr<DriveOperations::Place> DriveOperations::placeOfChild(std::uint64_t parent, std::string_view name,
                                                              bool isNew) const {
    if (isNew) {
        if (const int error = newNameError(name)) return Errno{error};
    } else if (!isSafeName(name)) {
        return Errno{name.size() > kMaximumName ? ENAMETOOLONG : ENOENT};
    }
    auto place = placeOf(parent);
    if (place) place->path = appendPathComponent(place->path, name);
    return place;
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
    const auto folder = placeOf(parent);
    if (!folder) return Errno{folder.error()};
    if (name.size() > kMaximumName) return Errno{ENAMETOOLONG};
    if (!isSafeName(name)) return Errno{ENOENT};
    return entryIn(*folder, name);
}

ErrnoOr<DriveOperations::Entry> DriveOperations::entryIn(const Place& folder, std::string_view name) {
    const auto item = fileSystem_->attributesOfItemAtPath(appendPathComponent(folder.path, name), nullptr);
    if (!item) return Errno{item.error()};
    NodeIdentity identity;
    if (name == kRefreshName) {
        identity = {Kind::refresh, folder.identity.id};
    } else if (folder.identity.kind == Kind::root && name == kFuseLockName) {
        identity = {Kind::fuseLock, {}};
    } else {
        identity = {isSpelledAs(item->name, name) ? Kind::item : Kind::alias, item->id};
    }
    const auto node = nodes_.enter(identity);
    return Entry{node, attributesOf(node, *item)};
}

ErrnoOr<DriveOperations::Attributes> DriveOperations::getattr(std::uint64_t node) const {
    const auto place = placeOf(node);
    if (!place) return attributesOfRemoved(node);
    return attributesAt(*place, node);
}

ErrnoOr<DriveOperations::Attributes> DriveOperations::attributesAt(const Place& place,
                                                                   std::uint64_t node) const {
    const auto item = fileSystem_->attributesOfItemAtPath(place.path, nullptr);
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
    if (!userData) return Errno{ESTALE};
    const auto item = fileSystem_->attributesOfItemAtPath("", userData.get());
    if (!item) return Errno{item.error()};
    return attributesOf(node, *item);
}

ErrnoOr<DriveOperations::Attributes> DriveOperations::setattr(std::uint64_t node, std::uint64_t handle,
                                                              const AttributeRequest& request) {
    const Date now = fileSystem_->store().clock().now();
    TWFuseFileSystem::AttributeChanges changes;
    if (request.mode) changes.permissions = *request.mode & 07777;
    if (request.access || request.accessNow)
        changes.access = request.accessNow ? now : dateOf(*request.access);
    if (request.modification || request.modificationNow)
        changes.modification = request.modificationNow ? now : dateOf(*request.modification);
    const bool changesMore = changes.permissions || changes.access || changes.modification;

    const auto file = files_.find(handle);
    auto userData = file ? file->userData : nullptr;
    TWFuseFileSystem::Resize resize;
    {
        const auto place = placeOf(node);
        if (!place && !userData) userData = removedFile(node);
        if (!place && !userData) return Errno{place.error()};
        const auto before = place ? attributesAt(*place, node) : attributesOfRemoved(node);
        if (!before || (place && place->identity.isSpecial())) return before;
        const struct stat& stat = before->stat;
        if ((request.owner && *request.owner != stat.st_uid) ||
            (request.group && *request.group != stat.st_gid)) {
            return Errno{EPERM};
        }
        if (!request.size && !changesMore) return before;
        const auto path = place ? place->path : std::string();
        if (!request.size) {
            const auto changed = fileSystem_->setAttributes(changes, path, userData.get());
            if (!changed) return Errno{changed.error()};
            return place ? attributesAt(*place, node) : attributesOfRemoved(node);
        }
        auto begun = fileSystem_->beginResize(path, userData.get(), *request.size);
        if (!begun) return Errno{begun.error()};
        resize = *std::move(begun);
    }
    if (const auto resized = fileSystem_->finishResize(resize); !resized) return Errno{resized.error()};
    const auto place = placeOf(node);
    if (changesMore && (place || userData)) {
        // After the size, which moves the time on.
        const auto changed =
            fileSystem_->setAttributes(changes, place ? place->path : std::string(), userData.get());
        if (!changed) return Errno{changed.error()};
    }
    return place ? attributesAt(*place, node) : attributesOfRemoved(node);
}

ErrnoOr<Done> DriveOperations::access(std::uint64_t node, int mask) const {
    const auto place = placeOf(node);
    const auto attributes = place ? attributesAt(*place, node) : attributesOfRemoved(node);
    if (!attributes) return Errno{attributes.error()};
    if ((mask & W_OK) != 0 && place && !place->identity.isSpecial() && !fileSystem_->isWritable(place->path))
        return Errno{EACCES};
    // The mount is the user's own: the owner's bits count, and a folder can always be entered.
    if ((mask & X_OK) != 0 && !S_ISDIR(attributes->stat.st_mode) &&
        (attributes->stat.st_mode & S_IXUSR) == 0) {
        return Errno{EACCES};
    }
    return Done{};
}

ErrnoOr<DriveOperations::OpenFile> DriveOperations::open(std::uint64_t node, int flags, pid_t caller) {
    const bool changes = (flags & O_ACCMODE) != O_RDONLY || (flags & O_TRUNC) != 0;
    OpenFile result;
    TWFuseFileSystem::Resize resize;
    {
        const auto place = placeOf(node);
        const auto removed = place ? nullptr : removedFile(node);
        if (!place && !removed) return Errno{place.error()};
        // What was removed while it was open can be opened once more.
        auto opened =
            removed ? removed->reopen(flags, caller) : fileSystem_->openItem(place->path, flags, caller);
        if (!opened) return Errno{opened.error()};
        const auto userData = *opened;
        result = addFile(node, userData, changes, place && place->identity.isSpecial());
        if ((flags & O_TRUNC) == 0 || !userData) return result;
        auto begun = fileSystem_->beginResize("", userData.get(), 0);
        if (!begun) {
            release(node, result.handle);
            return Errno{begun.error()};
        }
        resize = *std::move(begun);
    }
    const auto emptied = fileSystem_->finishResize(resize);
    if (emptied) return result;
    release(node, result.handle);
    return Errno{emptied.error()};
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
    const auto file = files_.find(handle);
    if (!file) return Errno{EBADF};
    if (!file->userData) return std::size_t{0};
    return fileSystem_->readFileAtPath(pathOf(node), file->userData.get(), buffer, size, offset);
}

void DriveOperations::release(std::uint64_t node, std::uint64_t handle) {
    const auto file = files_.remove(handle);
    if (file && file->userData) fileSystem_->releaseFileAtPath(pathOf(node), file->userData.get());
}

ErrnoOr<DriveOperations::OpenDirectory> DriveOperations::opendir(std::uint64_t node) {
    if (const auto place = placeOf(node); !place) return Errno{place.error()};
    return OpenDirectory{directories_.add(std::make_shared<DirectoryHandle>())};
}

ErrnoOr<DriveOperations::ListingPtr> DriveOperations::makeListing(std::uint64_t node) const {
    NodeIdentity identity;
    std::vector<TWFuseFileSystem::Child> children;
    {
        const auto place = placeOf(node);
        if (!place) return Errno{place.error()};
        identity = place->identity;
        children = fileSystem_->childrenOfDirectoryAtPath(place->path);
    }
    auto listing = std::make_shared<Listing>();
    listing->entries.reserve(children.size() + 2);
    // The kernel knows the parent's number itself.
    const auto number = nodes_.shownNumber(identity);
    listing->entries.push_back({".", number, S_IFDIR});
    listing->entries.push_back({"..", number, S_IFDIR});
    for (auto& entry : children) {
        if (!isSafeName(entry.name.view())) continue;
        const NodeIdentity child{entry.id ? Kind::item : Kind::fuseLock, std::move(entry.id)};
        // As the item is spelled, not decomposed: programs compare names byte by byte with those they gave.
        listing->entries.push_back({entry.name.str(), nodes_.shownNumber(child),
                                    static_cast<mode_t>(entry.isFolder ? S_IFDIR : S_IFREG)});
    }
    return ListingPtr(std::move(listing));
}

ErrnoOr<DriveOperations::ListingPtr> DriveOperations::listing(std::uint64_t node, std::uint64_t handle,
                                                              std::int64_t offset) const {
    const auto directory = directories_.find(handle);
    if (!directory || offset < 0) return Errno{EBADF};
    {
        std::lock_guard lock(directory->mutex);
        if (directory->listing && offset > 0) return directory->listing;
    }
    auto listing = makeListing(node);
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
    const auto place = placeOf(node);
    if (!place) return Errno{place.error()};
    return fileSystem_->valueOfExtendedAttribute(attribute, place->path, 0);
}

ErrnoOr<std::string> DriveOperations::listxattr(std::uint64_t node) const {
    const auto place = placeOf(node);
    if (!place) return Errno{place.error()};
    std::string list;
    if (place->identity.isSpecial()) return list;
    const auto names = fileSystem_->extendedAttributesOfItemAtPath(place->path);
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

void DriveOperations::contentsRenamed(std::string_view id, std::string_view from, std::string_view to) {
    TWFuseFileData::contentsRenamed(id, from, to);
}

bool DriveOperations::isOpen(std::string_view id) const {
    return TWFuseFileData::isOpen(id);
}

}  // namespace tarnwell
