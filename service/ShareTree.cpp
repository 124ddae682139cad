#include "service/ShareTree.h"

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

TWVirtualFilePtr itemAtPath(ShareChange& change, std::string_view path) {
    std::string parent = change.share().id;
    TWVirtualFilePtr item;
    for (std::string_view rest = trimmed(path); !rest.empty();) {
        const auto slash = rest.find('/');
        if (item && item->IsFile) return nullptr;
        item = change.childNamed(parent, rest.substr(0, slash));
        if (!item) return nullptr;
        parent = item->InternalName.str();
        rest = slash == std::string_view::npos ? std::string_view() : trimmed(rest.substr(slash));
    }
    return item;
}

std::string folderAtPath(ShareChange& change, std::string_view path) {
    if (trimmed(path).empty()) return change.share().id;
    const auto item = itemAtPath(change, path);
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

std::string availableName(ShareChange& change, std::string_view parent, std::string_view name, bool isFile,
                          std::string_view self) {
    const auto isTaken = [&](const std::string& candidate) {
        const auto other = change.childNamed(parent, candidate);
        return other && other->InternalName.view() != self;
    };
    if (!isTaken(std::string(name))) return std::string(name);
    return freeName(name, isFile, isTaken);
}

void insertItem(ShareChange& change, TWVirtualFile& record) {
    record.ShareId = change.share().id;
    record.Tick = record.ShareTick = record.UpdateTick = record.CreateTick = change.nextTick();
    change.put(record);
}

void updateItem(ShareChange& change, TWVirtualFile& item, const TWVirtualFile& version) {
    if (!item.IsFile) throw ServiceError("\"" + item.PublicName.str() + "\" is a folder");
    if (item.UploadName) change.retireContents(item.UploadName.view());
    item.UploadName = version.UploadName;
    item.FilehHash = version.FilehHash;
    item.EndOfFile = version.EndOfFile;
    item.AllocationSize = version.AllocationSize;
    item.LastWriteTime = version.LastWriteTime;
    item.Tick = item.ShareTick = item.UpdateTick = change.nextTick();
    change.put(item);
}

void moveItem(ShareChange& change, TWVirtualFile& item, const std::string& parent, const std::string& name) {
    if (const auto why = whyNotItemName(name); !why.empty()) throw ServiceError(why);
    if (const auto other = change.childNamed(parent, name);
        other && other->InternalName != item.InternalName) {
        throw ServiceError("there is an item \"" + other->PublicName.str() + "\" already");
    }
    std::string above = parent;
    for (int depth = 0; above != change.share().id; ++depth) {
        if (above == item.InternalName.view()) throw ServiceError("a folder cannot be moved into itself");
        const auto folder = change.find(above);
        if (!folder || folder->Deleted || folder->IsFile || depth > kMaxDepth) {
            throw ServiceError("the folder to move to does not exist");
        }
        above = folder->ParrentId.str();
    }
    item.ParrentId = parent;
    item.PublicName = name;
    item.Tick = item.ShareTick = change.nextTick();
    change.put(item);
}

int removeItem(ShareChange& change, TWVirtualFile& item) {
    // Folders are met before their contents here, and marked in the opposite order.
    std::vector<TWVirtualFilePtr> met;
    if (!item.IsFile) met = change.children(item.InternalName.view());
    for (std::size_t next = 0; next < met.size(); ++next) {
        if (met[next]->IsFile) continue;
        auto inner = change.children(met[next]->InternalName.view());
        met.insert(met.end(), inner.begin(), inner.end());
    }
    for (auto record = met.rbegin(); record != met.rend(); ++record)
        markDeleted(change, **record);
    markDeleted(change, item);
    return static_cast<int>(met.size()) + 1;
}

}  // namespace tarnwell::service
