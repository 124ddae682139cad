#include "store/StoreIndex.h"

#include <algorithm>
#include <utility>

#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

/// More distinct users and share ids than this are not worth keeping a table of.
constexpr std::size_t kMaxInterned = 4096;
/// A loop of more records is reported by its first one: the service must not fill the log.
constexpr std::size_t kMaxLoopLines = 16;

/// An empty path is a text, not an absent one.
const SharedString& noPath() {
    static const SharedString empty(std::string_view{});
    return empty;
}

/// A name from the service may be anything. One that is not a single path component would give the record
/// another record's place, so it gets none.
bool isPathComponent(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}

SharedString joined(std::string_view parentPath, const SharedString& name) {
    const std::size_t size = parentPath.size() + 1 + name.view().size();
    if (parentPath.empty() || size > StoreIndex::kMaxPathBytes || !isPathComponent(name.view()))
        return noPath();
    static thread_local std::string path;
    path.assign(parentPath);
    path += '/';
    path += name.view();
    return SharedString(path);
}

SharedString orphanPath(const TWVirtualFile& file) {
    return joined(StoreIndex::kOrphanFolder, file.PublicName);
}

std::string sharePath(const ManagedShare& share) {
    return "/" + share.DisplayName.value_or("");
}

void logLoop(const TWVirtualFile& file) {
    TWLog(kLogMain, "ERROR! Got circular reference for the file %@ (Iname %@, Pname %@)", file.PublicName,
          file.InternalName, file.ParrentId);
}

}  // namespace

TWVirtualFilePtr StoreIndex::fileWithId(std::string_view id) const {
    const auto it = files_.find(id);
    return it == files_.end() ? nullptr : it->file;
}

TWVirtualFile* StoreIndex::find(std::string_view id) const {
    const auto it = files_.find(id);
    return it == files_.end() ? nullptr : it->file.get();
}

ManagedSharePtr StoreIndex::shareWithId(std::string_view id) const {
    const auto it = shares_.find(id);
    return it == shares_.end() ? nullptr : it->second;
}

ManagedSharePtr StoreIndex::shareWithPath(std::string_view path) const {
    const auto it = sharesByPath_.find(keyFromPath(path));
    return it == sharesByPath_.end() ? nullptr : it->second;
}

const DirectoryItems* StoreIndex::children(std::string_view parentId) const {
    const auto it = directoryItems_.find(parentId);
    return it == directoryItems_.end() ? nullptr : it->second.get();
}

DirectoryItems& StoreIndex::childrenOrNew(std::string_view parentId) {
    const auto it = directoryItems_.find(parentId);
    if (it != directoryItems_.end()) return *it->second;
    const TWVirtualFile* parent = find(parentId);
    const SharedString key = parent ? parent->InternalName : SharedString(parentId);
    return *directoryItems_.emplace(key, std::make_unique<DirectoryItems>()).first->second;
}

/// The folder above a record; null below a share's root, and when there is none. A folder of another share is
/// none: what a share's service says stays within the share.
TWVirtualFile* StoreIndex::parentOf(const TWVirtualFile& file) const {
    if (file.ParrentId == file.ShareId) return nullptr;
    TWVirtualFile* parent = find(file.ParrentId.view());
    return parent && parent->ShareId == file.ShareId ? parent : nullptr;
}

/// Brent's method: a loop further up that leaves `file` out ends the walk too.
bool StoreIndex::isInLoop(const TWVirtualFile& file) const {
    const TWVirtualFile* mark = &file;
    std::size_t steps = 0;
    std::size_t limit = 1;
    for (const TWVirtualFile* up = parentOf(file); up; up = parentOf(*up)) {
        if (up == &file) return true;
        if (up == mark) return false;
        if (++steps == limit) {
            mark = up;
            steps = 0;
            limit *= 2;
        }
    }
    return false;
}

std::vector<TWVirtualFilePtr> StoreIndex::descendants(std::string_view parentId,
                                                      bool includingFolders) const {
    std::vector<TWVirtualFilePtr> result;
    std::vector<const DirectoryItems*> stack;
    if (const auto* top = children(parentId)) stack.push_back(top);
    while (!stack.empty()) {
        const auto* list = stack.back();
        stack.pop_back();
        list->forEach([&](const TWVirtualFilePtr& file) {
            // Each record has one parent, so a walk down that comes round can only come back to where it
            // began.
            if (file->InternalName == parentId) return;
            if (file->IsFile || includingFolders) result.push_back(file);
            if (file->IsFile) return;
            if (const auto* below = children(file->InternalName.view())) stack.push_back(below);
        });
    }
    return result;
}

bool StoreIndex::isOrphaned(const TWVirtualFile& file) const {
    const TWVirtualFile* last = &file;
    const TWVirtualFile* mark = &file;
    std::size_t steps = 0;
    std::size_t limit = 1;
    while (const TWVirtualFile* up = parentOf(*last)) {
        if (up == mark) return true;
        last = up;
        if (++steps == limit) {
            mark = up;
            steps = 0;
            limit *= 2;
        }
    }
    return last->ParrentId != last->ShareId || !shares_.contains(last->ParrentId.view());
}

/// The path of a record that has no folder above it.
SharedString StoreIndex::pathFromTop(const TWVirtualFile& file) const {
    if (file.ParrentId == file.ShareId) {
        if (const auto share = shareWithId(file.ShareId.view()))
            return joined(sharePath(*share), file.PublicName);
    }
    return orphanPath(file);
}

SharedString StoreIndex::fuseFilePath(const TWVirtualFile& file) const {
    // `file` may be a copy of the stored record: a walk that comes round meets the stored one.
    const TWVirtualFile* stored = find(file.InternalName.view());
    std::vector<const TWVirtualFile*> chain{&file};
    Members visited{stored ? stored : &file};
    const TWVirtualFile* loop = nullptr;
    while (const TWVirtualFile* up = parentOf(*chain.back())) {
        if (!visited.insert(up).second) {
            loop = up;
            break;
        }
        chain.push_back(up);
    }
    if (loop) {
        // Every member of a loop lies under the orphan folder itself, so the path starts at the first one
        // met.
        const auto first = loop == stored ? chain.begin() : std::find(chain.begin(), chain.end(), loop);
        chain.erase(first + 1, chain.end());
        if (chain.size() == 1) logLoop(file);
    }
    SharedString path = loop ? orphanPath(*chain.back()) : pathFromTop(*chain.back());
    for (auto it = chain.rbegin() + 1; it != chain.rend() && !path.empty(); ++it) {
        path = joined(path.view(), (*it)->PublicName);
    }
    return path;
}

void StoreIndex::insert(const TWVirtualFilePtr& file) {
    if (const auto old = fileWithId(file->InternalName.view())) {
        if (replaceInPlace(old, file)) return;
        remove(old->InternalName.view());
    }
    file->FullPath = noPath();
    link(file);

    const auto* below = children(file->InternalName.view());
    const bool mayClose = (below && !below->empty()) || file->ParrentId == file->InternalName;
    SharedString path = noPath();
    if (shares_.contains(file->ParrentId.view())) {
        path = pathFromTop(*file);
    } else if (const auto* parent = parentOf(*file); parent && !parent->FullPath.empty()) {
        if (mayClose && isInLoop(*file)) {
            placeLoop(*file);
            return;
        }
        path = joined(parent->FullPath.view(), file->PublicName);
    }
    setPath(file, std::move(path));
    if (mayClose) refreshBelow(*file);
}

/// The common case of a merge, where only attributes changed: nothing moves, nothing below is looked at.
bool StoreIndex::replaceInPlace(const TWVirtualFilePtr& old, const TWVirtualFilePtr& file) {
    const bool samePlace = old != file && old->ParrentId == file->ParrentId &&
                           old->ShareId == file->ShareId && old->PublicName == file->PublicName &&
                           !old->FullPath.empty();
    if (!samePlace) return false;
    auto list = directoryItems_.find(old->ParrentId.view());
    if (list == directoryItems_.end() || !list->second->replace(*old, file)) return false;
    filesByPath_.remove(*old);
    files_.erase(files_.find(old->InternalName.view()));
    file->InternalName = old->InternalName;
    file->ParrentId = old->ParrentId;
    file->ShareId = old->ShareId;
    shareFiles_.replace(*old, *file);
    file->PublicName = old->PublicName;
    file->FullPath = old->FullPath;
    file->User = intern(file->User);
    files_.emplace(file);
    filesByPath_.add(file);
    return true;
}

SharedString StoreIndex::intern(const SharedString& text) {
    if (!text) return text;
    const auto it = interned_.find(text.view());
    if (it != interned_.end()) return *it;
    if (interned_.size() < kMaxInterned) interned_.insert(text);
    return text;
}

/// Lets the record share the texts that others have already.
void StoreIndex::shareTexts(TWVirtualFile& file) {
    file.ShareId = intern(file.ShareId);
    file.User = intern(file.User);
    if (const auto own = directoryItems_.find(file.InternalName.view()); own != directoryItems_.end()) {
        file.InternalName = own->first;
    }
    if (file.ParrentId == file.ShareId) {
        file.ParrentId = file.ShareId;
    } else if (const auto list = directoryItems_.find(file.ParrentId.view()); list != directoryItems_.end()) {
        file.ParrentId = list->first;
    } else if (const auto* parent = find(file.ParrentId.view())) {
        file.ParrentId = parent->InternalName;
    }
}

void StoreIndex::link(const TWVirtualFilePtr& file) {
    shareTexts(*file);
    files_.emplace(file);
    shareFiles_.add(*file);
    auto list = directoryItems_.find(file->ParrentId.view());
    if (list == directoryItems_.end()) {
        list = directoryItems_.emplace(file->ParrentId, std::make_unique<DirectoryItems>()).first;
    }
    list->second->add(file);
}

TWVirtualFilePtr StoreIndex::remove(std::string_view id) {
    const auto it = files_.find(id);
    if (it == files_.end()) return nullptr;
    TWVirtualFilePtr file = it->file;
    files_.erase(it);
    shareFiles_.remove(*file);
    if (!file->FullPath.empty()) filesByPath_.remove(*file);
    if (const auto list = directoryItems_.find(file->ParrentId.view()); list != directoryItems_.end()) {
        list->second->remove(*file);
    }
    dropListIfUnused(file->ParrentId.view());
    dropListIfUnused(file->InternalName.view());
    return file;
}

/// An empty list is kept for a parent that is stored, since it may be in use.
void StoreIndex::dropListIfUnused(std::string_view parentId) {
    const auto list = directoryItems_.find(parentId);
    if (list == directoryItems_.end() || !list->second->empty()) return;
    if (!files_.contains(parentId) && !shares_.contains(parentId)) directoryItems_.erase(list);
}

void StoreIndex::setPath(const TWVirtualFilePtr& file, SharedString path) {
    if (file->FullPath == path) return;
    if (!file->FullPath.empty()) filesByPath_.remove(*file);
    file->FullPath = std::move(path);
    if (!file->FullPath.empty()) filesByPath_.add(file);
}

void StoreIndex::refreshPaths(const TWVirtualFilePtr& file) {
    if (isInLoop(*file)) {
        placeLoop(*file);
        return;
    }
    const auto* parent = parentOf(*file);
    const bool placed = parent && !parent->FullPath.empty();
    setPath(file, placed ? joined(parent->FullPath.view(), file->PublicName) : fuseFilePath(*file));
    refreshBelow(*file);
}

void StoreIndex::refreshChildren(std::string_view parentId) {
    if (const auto* list = children(parentId)) {
        list->forEach([&](const TWVirtualFilePtr& file) { refreshPaths(file); });
    }
}

/// Puts each member of a loop under the orphan folder, with what hangs below it.
void StoreIndex::placeLoop(const TWVirtualFile& member) {
    std::vector<const TWVirtualFile*> loop;
    const TWVirtualFile* at = &member;
    do {
        loop.push_back(at);
        at = parentOf(*at);
    } while (at != &member);
    const Members members(loop.begin(), loop.end());
    for (const auto* file : loop) {
        setPath(fileWithId(file->InternalName.view()), orphanPath(*file));
        if (loop.size() <= kMaxLoopLines || file == &member) logLoop(*file);
    }
    for (const auto* file : loop) {
        refreshBelow(*file, &members);
    }
}

/// Forms the paths below `top`. Stops where a path turns out to be right, since all below it is right as
/// well.
void StoreIndex::refreshBelow(const TWVirtualFile& top, const Members* except) {
    std::vector<const TWVirtualFile*> stack{&top};
    while (!stack.empty()) {
        const TWVirtualFile& parent = *stack.back();
        stack.pop_back();
        const auto* list = children(parent.InternalName.view());
        if (!list) continue;
        list->forEach([&](const TWVirtualFilePtr& file) {
            if (file.get() == &top || (except && except->contains(file.get()))) return;
            if (file->ShareId != parent.ShareId) return;
            SharedString path = joined(parent.FullPath.view(), file->PublicName);
            if (path == file->FullPath) return;
            setPath(file, std::move(path));
            stack.push_back(file.get());
        });
    }
}

void StoreIndex::settlePath(const TWVirtualFilePtr& file, Settled& settled) {
    Members walk;
    TWVirtualFilePtr top = file;
    while (top->FullPath.empty()) {
        if (!walk.insert(top.get()).second) {
            placeLoop(*top);
            return;
        }
        // A way up that an earlier call tried cannot be formed.
        if (!settled.insert(top).second) return;
        const auto* parent = parentOf(*top);
        if (!parent || !parent->FullPath.empty()) {
            setPath(top, parent ? joined(parent->FullPath.view(), top->PublicName) : pathFromTop(*top));
            refreshBelow(*top);
            return;
        }
        top = fileWithId(parent->InternalName.view());
    }
}

void StoreIndex::reserve(std::size_t records) {
    files_.reserve(records);
    filesByPath_.reserve(records);
}

void StoreIndex::insertWithoutPath(const TWVirtualFilePtr& file) {
    if (files_.contains(file->InternalName.view())) remove(file->InternalName.view());
    file->FullPath = noPath();
    link(file);
}

void StoreIndex::formAllPaths() {
    for (const auto& [id, share] : shares_)
        refreshChildren(id);
    Settled settled;
    for (const auto& stored : files_) {
        if (stored.file->FullPath.empty()) settlePath(stored.file, settled);
    }
}

void StoreIndex::insertShare(const ManagedSharePtr& share) {
    const std::string id = *share->ShareId;
    const auto old = shareWithId(id);
    removeShare(id);
    shares_.insert_or_assign(id, share);
    sharesByPath_.insert_or_assign(keyFromPath(sharePath(*share)), share);
    if (!old || old == share || old->DisplayName != share->DisplayName) refreshChildren(id);
}

void StoreIndex::removeShare(std::string_view shareId) {
    const auto it = shares_.find(shareId);
    if (it == shares_.end()) return;
    const ManagedSharePtr share = it->second;
    shares_.erase(it);
    // Compared by identity: the share's name may have changed since, or another share may stand at it.
    const auto entry = std::find_if(sharesByPath_.begin(), sharesByPath_.end(),
                                    [&](const auto& named) { return named.second == share; });
    if (entry != sharesByPath_.end()) sharesByPath_.erase(entry);
    if (sharesByPath_.size() == shares_.size()) return;
    for (const auto& [id, other] : shares_) {
        sharesByPath_.emplace(keyFromPath(sharePath(*other)), other);
    }
}

void StoreIndex::removeFilesOfShare(std::string_view shareId) {
    for (const auto* file : shareFiles_.all(shareId)) {
        const SharedString id = file->InternalName;
        remove(id.view());
    }
    dropListIfUnused(shareId);
}

}  // namespace tarnwell
