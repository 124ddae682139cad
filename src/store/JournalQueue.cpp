#include "store/JournalQueue.h"

#include <algorithm>
#include <utility>

#include "util/TWUtils.h"

namespace tarnwell {

namespace {

const std::vector<LocalJournalPtr> kNone;

std::string placeKey(std::string_view parentId, std::string_view name) {
    std::string key(parentId);
    key += '/';
    key += keyFromPath(name);
    return key;
}

template <class Map>
void countDown(Map& map, const std::string& key) {
    const auto it = map.find(key);
    if (it != map.end() && --it->second == 0) map.erase(it);
}

}  // namespace

std::string JournalQueue::placeAfter(const LocalJournal& entry) {
    return placeKey(entry.File->ParrentId.view(), entry.File->PublicName.view());
}

std::vector<std::string> JournalQueue::placesLeft(const LocalJournal& entry) {
    std::vector<std::string> places = entry.queue.formerPlaces;
    const auto type = entry.LocalJournalType;
    const bool seen = type == kJournalDelete || type == kJournalRename || type == kJournalUpdate ||
                      (type == kJournalCreate && entry.queue.attempted);
    if (seen && !entry.OriginalPath.empty()) {
        const auto& parent = entry.OriginalParent.empty() ? entry.File->ParrentId : entry.OriginalParent;
        places.push_back(placeKey(parent.view(), lastPathComponent(entry.OriginalPath.view())));
    }
    if (type == kJournalDelete) places.push_back(placeAfter(entry));
    std::sort(places.begin(), places.end());
    places.erase(std::unique(places.begin(), places.end()), places.end());
    return places;
}

void JournalQueue::append(const LocalJournalPtr& entry) {
    insert(entry, lastOrder_ + 1);
}

void JournalQueue::putBack(const LocalJournalPtr& entry) {
    const std::uint64_t order = entry->queue.order;
    insert(entry, order == 0 || items_.contains(order) ? lastOrder_ + 1 : order);
}

void JournalQueue::insert(const LocalJournalPtr& entry, std::uint64_t order) {
    lastOrder_ = std::max(lastOrder_, order);
    entry->queue.order = order;
    entry->queue.queued = true;
    items_.emplace(order, entry);
    index(entry);
    noted_(order);
}

bool JournalQueue::remove(const LocalJournal& entry) {
    if (!contains(entry)) return false;
    const auto it = items_.find(entry.queue.order);
    const LocalJournalPtr kept = it->second;
    unindex(*kept);
    items_.erase(it);
    noted_(kept->queue.order);
    return true;
}

void JournalQueue::moveToEnd(const LocalJournalPtr& entry) {
    if (isLast(*entry)) return;
    if (remove(*entry)) append(entry);
}

void JournalQueue::clear() {
    const Items old = std::move(items_);
    *this = JournalQueue(std::move(noted_));
    for (const auto& [order, entry] : old)
        noted_(order);
}

LocalJournalPtr JournalQueue::at(std::uint64_t order) const {
    const auto it = items_.find(order);
    return it == items_.end() ? nullptr : it->second;
}

bool JournalQueue::contains(const LocalJournal& entry) const {
    const auto it = items_.find(entry.queue.order);
    return it != items_.end() && it->second.get() == &entry;
}

std::vector<LocalJournalPtr> JournalQueue::ofShare(std::string_view shareId) const {
    std::vector<LocalJournalPtr> entries;
    const auto it = shares_.find(std::string(shareId));
    if (it == shares_.end()) return entries;
    entries.reserve(it->second.size());
    for (const auto& [order, entry] : it->second)
        entries.push_back(entry);
    return entries;
}

LocalJournalPtr JournalQueue::nextOfShare(std::string_view shareId, std::uint64_t after) const {
    const auto share = shares_.find(std::string(shareId));
    if (share == shares_.end()) return nullptr;
    const auto it = share->second.upper_bound(after);
    return it == share->second.end() ? nullptr : it->second;
}

const std::vector<LocalJournalPtr>& JournalQueue::ofItem(std::string_view internalName) const {
    const auto it = byItem_.find(std::string(internalName));
    return it == byItem_.end() ? kNone : it->second;
}

const std::vector<LocalJournalPtr>& JournalQueue::leavers(const std::string& place) const {
    const auto it = byPlaceLeft_.find(place);
    return it == byPlaceLeft_.end() ? kNone : it->second;
}

LocalJournalPtr JournalQueue::withUpload(std::string_view uploadName) const {
    const auto it = byUpload_.find(std::string(uploadName));
    return it == byUpload_.end() ? nullptr : it->second;
}

std::size_t JournalQueue::countBelow(std::string_view parentId) const {
    const auto it = below_.find(std::string(parentId));
    return it == below_.end() ? 0 : it->second;
}

bool JournalQueue::hasCatchUp(std::string_view shareId) const {
    return catchUps_.contains(std::string(shareId));
}

/// The keys are kept with the entry: whatever happens to its fields, it leaves where it entered.
void JournalQueue::index(const LocalJournalPtr& entry) {
    auto& keys = entry->queue;
    keys.share = entry->File->ShareId.str();
    shares_[keys.share].emplace(keys.order, entry);
    if (entry->LocalJournalType == kJournalCatchUp) {
        ++catchUps_[keys.share];
        ++markers_;
        keys.id.clear();
        return;
    }
    keys.id = entry->File->InternalName.str();
    keys.parent = entry->File->ParrentId.str();
    keys.left = placesLeft(*entry);
    keys.upload = bringsContents(*entry) ? entry->File->UploadName.str() : std::string();
    enter(byItem_, keys.id, entry);
    for (const auto& place : keys.left)
        enter(byPlaceLeft_, place, entry);
    if (!keys.upload.empty()) byUpload_[keys.upload] = entry;
    keys.bytes = bringsContents(*entry) && entry->File->IsFile ? entry->File->size() : 0;
    bytes_ += keys.bytes;
    ++below_[keys.parent];
}

void JournalQueue::unindex(LocalJournal& entry) {
    const auto& keys = entry.queue;
    if (const auto share = shares_.find(keys.share); share != shares_.end()) {
        share->second.erase(keys.order);
        if (share->second.empty()) shares_.erase(share);
    }
    if (keys.id.empty()) {
        countDown(catchUps_, keys.share);
        --markers_;
        return;
    }
    bytes_ -= keys.bytes;
    leave(byItem_, keys.id, entry);
    for (const auto& place : keys.left)
        leave(byPlaceLeft_, place, entry);
    if (const auto upload = byUpload_.find(keys.upload);
        upload != byUpload_.end() && upload->second.get() == &entry) {
        byUpload_.erase(upload);
    }
    countDown(below_, keys.parent);
}

void JournalQueue::enter(Index& index, const std::string& key, const LocalJournalPtr& entry) {
    auto& entries = index[key];
    const auto at =
        std::upper_bound(entries.begin(), entries.end(), entry->queue.order,
                         [](std::uint64_t order, const auto& other) { return order < other->queue.order; });
    entries.insert(at, entry);
}

void JournalQueue::leave(Index& index, const std::string& key, const LocalJournal& entry) {
    const auto it = index.find(key);
    if (it == index.end()) return;
    std::erase_if(it->second, [&](const auto& other) { return other.get() == &entry; });
    if (it->second.empty()) index.erase(it);
}

}  // namespace tarnwell
