#include "service/ShareTree.h"

#include <vector>

#include "service/Names.h"
#include "service/ServiceError.h"

namespace tarnwell::service {

namespace {

/// No folder tree that file systems can hold is deeper. A longer chain of parents is a loop.
constexpr int kMaxDepth = 4096;

std::string_view trimmed(std::string_view path) {
    while (path.starts_with('/'))
        path.remove_prefix(1);
    while (path.ends_with('/'))
        path.remove_suffix(1);
    return path;
}

void markDeleted(ShareChange& change, TWVirtualFile& item) {
    item.Deleted = true;
    item.Tick = item.ShareTick = change.nextTick();
    change.put(item);
    if (item.UploadName) change.retireContents(item.UploadName.view());
}

}  // namespace

TWVirtualFilePtr itemAtPath(ShareView& view, std::string_view path) {
    std::string parent = view.share().id;
    TWVirtualFilePtr item;
    for (std::string_view rest = trimmed(path); !rest.empty();) {
        const auto slash = rest.find('/');
        if (item && item->IsFile) return nullptr;
        item = view.childNamed(parent, rest.substr(0, slash));
        if (!item) return nullptr;
        parent = item->InternalName.str();
        rest = slash == std::string_view::npos ? std::string_view() : trimmed(rest.substr(slash));
    }
    return item;
}

std::optional<std::string> pathOf(ShareView& view, std::string_view item) {
    std::string path;
    std::string above(item);
    for (int depth = 0; above != view.share().id; ++depth) {
        const auto record = view.find(above);
        if (!record || record->Deleted || depth > kMaxDepth) return std::nullopt;
        path = record->PublicName.str() + (path.empty() ? "" : "/" + path);
        above = record->ParrentId.str();
    }
    return path;
}

std::string folderAtPath(ShareView& view, std::string_view path) {
    if (trimmed(path).empty()) return view.share().id;
    const auto item = itemAtPath(view, path);
    if (!item || item->IsFile)
        throw ServiceError("there is no folder \"" + std::string(path) + "\" in the share");
    return item->InternalName.str();
}

SplitPath splitPath(std::string_view path) {
    path = trimmed(path);
    const auto slash = path.rfind('/');
    if (slash == std::string_view::npos) return {{}, std::string(path)};
    return {std::string(path.substr(0, slash)), std::string(path.substr(slash + 1))};
}

std::string availableName(ShareView& view, std::string_view parent, std::string_view name, bool isFile,
                          std::string_view self) {
    const auto isTaken = [&](const std::string& candidate) {
        const auto other = view.childNamed(parent, candidate);
        return other && other->InternalName.view() != self;
    };
    if (!isTaken(std::string(name))) return std::string(name);
    return freeName(name, isFile, isTaken);
}

bool canContain(ShareView& view, std::string_view parent, std::string_view item, bool deletedToo) {
    std::string above(parent);
    for (int depth = 0; above != view.share().id; ++depth) {
        if (above == item || depth > kMaxDepth) return false;
        const auto folder = view.find(above);
        if (!folder || folder->IsFile || (folder->Deleted && !deletedToo)) return false;
        above = folder->ParrentId.str();
    }
    return true;
}

void insertItem(ShareChange& change, TWVirtualFile& record, const std::string& device) {
    record.ShareId = change.share().id;
    record.Tick = record.ShareTick = record.UpdateTick = record.CreateTick = change.nextTick();
    change.put(record);
    change.setAuthorship(record.InternalName.view(), {device, -1, device, record.Tick, -1});
}

void updateItem(ShareChange& change, TWVirtualFile& item, const TWVirtualFile& version,
                const std::string& device) {
    if (!item.IsFile) throw ServiceError("\"" + item.PublicName.str() + "\" is a folder");
    if (item.UploadName) change.retireContents(item.UploadName.view());
    auto authorship = change.authorship(item.InternalName.view());
    authorship.writtenBefore = authorship.foreignContents(device, item.UpdateTick);
    authorship.writer = device;
    item.LastUploadName = item.UploadName;
    item.UploadName = version.UploadName;
    item.FilehHash = version.FilehHash;
    item.EndOfFile = version.EndOfFile;
    item.AllocationSize = version.AllocationSize;
    item.LastWriteTime = version.LastWriteTime;
    item.Tick = item.ShareTick = item.UpdateTick = change.nextTick();
    change.put(item);
    change.setAuthorship(item.InternalName.view(), authorship);
}

void moveItem(ShareChange& change, TWVirtualFile& item, const std::string& parent, const std::string& name,
              const std::string& device) {
    if (const auto why = whyNotItemName(name); !why.empty()) throw ServiceError(why);
    if (const auto other = change.childNamed(parent, name);
        other && other->InternalName != item.InternalName) {
        throw ServiceError("there is an item \"" + other->PublicName.str() + "\" already");
    }
    if (!canContain(change, parent, item.InternalName.view())) {
        throw ServiceError("the folder to move to does not exist, or is inside what is moved");
    }
    auto authorship = change.authorship(item.InternalName.view());
    authorship.placedBefore = authorship.foreignPlace(device);
    authorship.mover = device;
    item.ParrentId = parent;
    item.PublicName = name;
    item.Tick = item.ShareTick = authorship.placeTick = change.nextTick();
    change.put(item);
    change.setAuthorship(item.InternalName.view(), authorship);
}

void touchItem(ShareChange& change, TWVirtualFile& item) {
    item.Tick = item.ShareTick = change.nextTick();
    change.put(item);
}

void reviveFolder(ShareChange& change, const std::string& folder, const std::string& device) {
    std::vector<TWVirtualFilePtr> gone;
    for (std::string above = folder; above != change.share().id;) {
        auto record = change.find(above);
        if (!record) throw ServiceError("the folder " + above + " does not exist");
        above = record->ParrentId.str();
        if (!record->Deleted) break;
        gone.push_back(std::move(record));
    }
    // From the top, so that whoever applies the changes one by one always has the folder of an item.
    for (auto record = gone.rbegin(); record != gone.rend(); ++record) {
        (*record)->Deleted = false;
        const std::string parent = (*record)->ParrentId.str();
        moveItem(change, **record, parent, availableName(change, parent, (*record)->PublicName.view(), false),
                 device);
    }
}

int removeItem(ShareChange& change, TWVirtualFile& item,
               const std::function<bool(const TWVirtualFile&)>& spares) {
    struct Met {
        TWVirtualFile* record;
        std::size_t folder;  ///< place of its folder in the list; the item's own for itself
        bool kept;
        TWVirtualFilePtr owner;
    };
    // Folders are met before their contents here, and marked in the opposite order.
    std::vector<Met> met;
    met.push_back({&item, 0, spares && spares(item), nullptr});
    for (std::size_t next = 0; next < met.size(); ++next) {
        if (met[next].record->IsFile) continue;
        for (auto& inner : change.children(met[next].record->InternalName.view())) {
            TWVirtualFile& record = *inner;
            met.push_back({&record, next, met[next].kept || (spares && spares(record)), std::move(inner)});
        }
    }
    int count = 0;
    for (auto one = met.rbegin(); one != met.rend(); ++one) {
        if (one->kept) {
            met[one->folder].kept = true;
            touchItem(change, *one->record);
        } else {
            markDeleted(change, *one->record);
            ++count;
        }
    }
    return count;
}

}  // namespace tarnwell::service
