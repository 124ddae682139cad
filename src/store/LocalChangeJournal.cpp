#include "store/LocalChangeJournal.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "platform/PrivateFile.h"
#include "store/ContentVersion.h"
#include "store/FileCopy.h"
#include "store/RemoteChanges.h"
#include "store/TWMetadataStorage.h"
#include "util/PropertyList.h"
#include "util/RecordMapping.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

using namespace std::chrono_literals;

constexpr auto kDelay = 5s;
/// A new empty file gets its contents moments later.
constexpr auto kDelayOfEmptyFile = 150s;
constexpr const char* kScreenCaptureAttribute = "com.apple.metadata:kMDItemIsScreenCapture";
constexpr std::size_t kMaxAttributesFile = std::size_t{64} << 20U;

/// An entry that was sent, with unknown result, is told from others by its mark also when the next run reads
/// it.
LocalJournal asStored(const LocalJournal& entry) {
    LocalJournal stored = entry;
    stored.Transmitting = entry.Transmitting || entry.queue.attempted;
    return stored;
}

}  // namespace

LocalChangeJournal::LocalChangeJournal(TWMetadataStorage& store, Executor& background)
    : store_(store),
      queue_([&store](std::uint64_t order) { store.changes_.noteEntry(order); }),
      merge_(queue_, *this),
      exchange_(store),
      copies_(store, background, *this) {}

LocalJournalPtr LocalChangeJournal::createJournalForFile(const TWVirtualFilePtr& file,
                                                         LocalJournalType eventType) {
    const auto change = store_.beginLocalChange();
    auto entry = std::make_shared<LocalJournal>();
    const Date now = store_.clock().now();
    const bool isEmpty = file->IsFile && file->size() == 0;
    entry->JournalCreate = now + (isEmpty ? kDelayOfEmptyFile : kDelay);
    entry->File = std::make_shared<TWVirtualFile>(*file);
    if (auto user = store_.userName(); !user.empty()) entry->File->User = std::move(user);
    entry->LocalJournalType = eventType;
    entry->CurrentPath = file->FullPath;
    entry->File->LastUploadName = file->UploadName;
    if (file->IsFile && bringsContents(*entry)) {
        if (isEmpty) {
            // Nothing to copy; the name of former contents would lead to them.
            entry->File->UploadName.reset();
            store_.noteContentsRenamed(*file, std::exchange(file->UploadName, {}));
        } else {
            if (isScreenshot(*file)) entry->JournalCreate = now - 1s;
            copyForUpload(entry, *file);
        }
        store_.markChanged(*file);
    }
    return entry;
}

/// Begins the upload copy under a fresh name, which the record carries as well, and the cache file from when
/// the entry is in the change log: before, a kill would leave bytes of a version that nobody knows.
void LocalChangeJournal::copyForUpload(const LocalJournalPtr& entry, TWVirtualFile& record) {
    entry->CopyingFile = true;
    entry->File->UploadName = TWMetadataStorage::generateFileUploadName();
    store_.stampEdited(record);
    store_.noteContentsRenamed(record, std::exchange(record.UploadName, entry->File->UploadName));
    store_.changes_.afterAppend(
        [this, id = record.InternalName, name = record.UploadName] { stampContents(id, name, false); });
    copies_.start(entry);
}

/// The contents of that name are whole in the cache, unless the user has begun to change them again.
void LocalChangeJournal::stampContents(const SharedString& internalName, const SharedString& uploadName,
                                       bool sent) const {
    // An exchange may have given the bytes another identity.
    const auto entry = queue_.withUpload(uploadName.str());
    const auto file = store_.fileWithId((entry ? entry->File->InternalName : internalName).view());
    if (!file || uploadName.empty() || file->UploadName != uploadName || file->LocallyUpdated.value_or(false))
        return;
    const auto path = store_.layout().cachePathForFile(*file);
    const auto name = uploadName.view();
    const int error = (sent ? ContentVersion::clean(name) : ContentVersion::unsent(name)).set(path);
    if (error != 0 && error != ENOENT)
        TWLog(kLogMain, "Warning! Cannot mark cache file %@ : error %d", path, error);
}

bool LocalChangeJournal::isPending(const SharedString& uploadName) const {
    return !uploadName.empty() && queue_.withUpload(uploadName.str());
}

LocalJournalPtr LocalChangeJournal::entryWithUpload(const std::string& uploadName) const {
    return queue_.withUpload(uploadName);
}

void LocalChangeJournal::copyEnded(const std::string& uploadName, std::int64_t size) {
    const auto entry = queue_.withUpload(uploadName);
    if (!entry) return;
    entry->CopyingFile.reset();
    if (size >= 0 && size != entry->File->size()) {
        // What is sent and what is said of it belong together.
        const JournalQueue::Edit edit(queue_, entry);
        entry->File->AllocationSize = entry->File->EndOfFile = size;
        queue_.noteChanged(*entry);
    }
    store_.saveDelayed();
}

bool LocalChangeJournal::isScreenshot(const TWVirtualFile& file) const {
    if (!uploadsScreenshots_) return false;
    const auto contents = readWholeFile(store_.layout().extendedAttrsPathForFile(file), kMaxAttributesFile);
    if (contents.error != 0) return false;
    std::string error;
    const auto list = parsePropertyList(contents.bytes, error);
    const auto* map = list ? list->get<PropertyList::Dictionary>() : nullptr;
    return map && map->find(kScreenCaptureAttribute);
}

TWVirtualFilePtr LocalChangeJournal::addChangeToJournal(const LocalJournalPtr& entry) {
    const auto change = store_.beginLocalChange();
    if (!entry->File || entry->File->InternalName.empty()) {
        TWLog(kLogMain, "Warning! AddChangeToJournal: a change of no item is ignored.");
        return nullptr;
    }
    const std::string id = entry->File->InternalName.str();
    if (CacheLayout::isPathIgnored(entry->CurrentPath.view(), !entry->File->IsFile)) {
        if (bringsContents(*entry)) releaseUpload(*entry);
        return store_.fileWithId(id);
    }
    takenOver_.reset();
    // The record as it is now goes with its entry.
    store_.changes_.noteFile(entry->File->InternalName);
    const bool worthSaving = merge_.add(entry);
    store_.setStorageEmpty(false);
    if (worthSaving) store_.saveDelayed();
    store_.noteJournalChanged(id);
    if (takenOver_) return std::exchange(takenOver_, nullptr);
    return store_.fileWithId(id);
}

std::vector<LocalJournalPtr> LocalChangeJournal::journalEntriesForShare(std::string_view shareId) const {
    const auto lock = store_.beginReadJournal();
    return queue_.ofShare(shareId);
}

LocalJournalPtr LocalChangeJournal::nextOfShare(std::string_view shareId, std::uint64_t after) const {
    const auto lock = store_.beginReadJournal();
    return queue_.nextOfShare(shareId, after);
}

bool LocalChangeJournal::isQueued(const LocalJournal& entry) const {
    const auto lock = store_.beginReadJournal();
    return queue_.contains(entry);
}

LocalChangeJournal::Backlog LocalChangeJournal::backlog() const {
    const auto lock = store_.beginReadJournal();
    return {static_cast<std::int64_t>(queue_.changes()), queue_.bytes()};
}

void LocalChangeJournal::contentsSent(const LocalJournal& entry) {
    const auto lock = store_.beginWriteJournal();
    store_.changes_.afterAppend([this, id = entry.File->InternalName, name = entry.File->UploadName] {
        stampContents(id, name, true);
    });
    auto& item = sent_[entry.File->InternalName.str()];
    item.when = ++sendings_;
    item.replaced.push_back(entry.File->LastUploadName);
}

void LocalChangeJournal::forgetTicks(std::string_view shareId, std::int32_t tick) {
    for (const auto& entry : queue_.ofShare(shareId)) {
        if (entry->File->Tick > tick) entry->File->Tick = -1;
        if (entry->ForeignTick.value_or(-1) > tick) entry->ForeignTick.reset();
        queue_.noteChanged(*entry);
    }
}

void LocalChangeJournal::becomeCreate(const LocalJournalPtr& entry) {
    const auto change = store_.beginLocalChange();
    if (entry->LocalJournalType != kJournalUpdate || !queue_.contains(*entry)) return;
    const JournalQueue::Edit edit(queue_, entry);
    entry->LocalJournalType = kJournalCreate;
}

std::uint64_t LocalChangeJournal::sendings() const {
    const auto lock = store_.beginReadJournal();
    return sendings_;
}

bool LocalChangeJournal::replacedSince(std::uint64_t sendings, const TWVirtualFile& file) const {
    const auto it = sent_.find(file.InternalName.str());
    if (it == sent_.end() || it->second.when <= sendings) return false;
    const auto& replaced = it->second.replaced;
    return std::find(replaced.begin(), replaced.end(), file.UploadName) != replaced.end();
}

void LocalChangeJournal::forgetSent(std::string_view internalName) {
    if (!sent_.empty()) sent_.erase(std::string(internalName));
}

void LocalChangeJournal::putOff(std::string_view internalName, std::int32_t tick) {
    for (const auto& entry : queue_.ofItem(internalName)) {
        if (entry->ForeignTick.value_or(tick - 1) >= tick) continue;
        entry->ForeignTick = tick;
        queue_.noteChanged(*entry);
    }
}

void LocalChangeJournal::deleteJournalEntry(const LocalJournalPtr& entry) {
    const auto change = store_.beginLocalChange();
    // The caller's reference may be the one in the queue.
    const LocalJournalPtr removed = entry;
    if (!queue_.remove(*removed)) return;
    // What the service answered stands in the record.
    store_.changes_.noteFile(removed->File->InternalName);
    store_.noteJournalChanged(removed->File->InternalName.view());
}

void LocalChangeJournal::setTransmitting(const LocalJournalPtr& entry, bool transmitting) {
    const auto lock = store_.beginWriteJournal();
    entry->Transmitting = transmitting;
    if (transmitting) entry->queue.attempted = true;
    queue_.noteChanged(*entry);
}

void LocalChangeJournal::entryChanged(const LocalJournalPtr& entry) {
    const auto lock = store_.beginWriteJournal();
    queue_.noteChanged(*entry);
    store_.saveDelayed();
}

void LocalChangeJournal::attributesChanged(const TWVirtualFile& file) {
    const auto lock = store_.beginWriteJournal();
    for (const auto& entry : queue_.ofItem(file.InternalName.view())) {
        if (!bringsContents(*entry) || entry->Transmitting) continue;
        entry->File->LastWriteTime = file.LastWriteTime;
        entry->File->LastAccessTime = file.LastAccessTime;
        entry->File->POSIXPermissions = file.POSIXPermissions;
        queue_.noteChanged(*entry);
    }
}

void LocalChangeJournal::removeUploadFileData(const TWVirtualFile& file) {
    const auto lock = store_.beginWriteJournal();
    copies_.release(file);
}

void LocalChangeJournal::releaseUpload(const LocalJournal& entry) {
    copies_.release(*entry.File);
}

void LocalChangeJournal::checkForFileModifications() {
    const auto change = store_.beginLocalChange();
    for (const auto& file : store_.allFiles()) {
        if (file->IsFile && file->LocallyUpdated.value_or(false)) journalModified(file);
    }
}

void LocalChangeJournal::journalModified(const TWVirtualFilePtr& file) {
    // What takes no part in synchronisation stays as it is: nobody else has it.
    if (CacheLayout::isPathIgnored(file->FullPath.view(), false)) return;
    file->LocallyUpdated = false;
    store_.markChanged(*file);
    addChangeToJournal(createJournalForFile(file, kJournalUpdate));
}

/// False when there is no cache file and there should be one.
bool LocalChangeJournal::takeSizeFromCache(TWVirtualFile& file) const {
    struct stat status {};
    if (::lstat(store_.layout().cachePathForFile(file).c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        if (file.size() != 0) return false;
        store_.createNewFileForFile(file);
        return true;
    }
    file.AllocationSize = file.EndOfFile = status.st_size;
    const auto written =
        std::chrono::seconds(status.st_mtim.tv_sec) + std::chrono::nanoseconds(status.st_mtim.tv_nsec);
    const Date date{std::chrono::duration_cast<TickDuration>(written)};
    file.LastWriteTime = std::max(file.LastWriteTime, date);
    return true;
}

void LocalChangeJournal::recover(const std::vector<TWVirtualFilePtr>& changed) {
    const auto change = store_.beginLocalChange();
    for (const auto& file : changed) {
        if (takeSizeFromCache(*file)) {
            store_.markChanged(*file);
            journalModified(file);
            continue;
        }
        // Nothing is left that could be sent; the service may have what was there before.
        TWLog(kLogMain, "Warning! The contents of %@ are not in the cache. Leaving it to the service.",
              file->FullPath);
        file->LocallyUpdated.reset();
        file->DownloadDate.reset();
        // The next catch-up replaces the record.
        file->UploadUrl.reset();
        store_.markChanged(*file);
        store_.remoteChanges().askAgain(file->ShareId.view(), file->Tick - 1);
    }
    for (const auto& entry : queue_.items())
        recoverUpload(entry);
}

/// What was being copied when the last run ended is copied again, while the cache has that very version; so
/// is what was not synced and may not have all its bytes.
void LocalChangeJournal::recoverUpload(const LocalJournalPtr& entry) {
    const TWVirtualFile& file = *entry->File;
    const bool hasCopy = bringsContents(*entry) && file.IsFile && file.size() > 0 && !file.UploadName.empty();
    if (!hasCopy || entry->CopyingFile.value_or(false)) return;
    struct stat copy {};
    const bool isThere = ::lstat(store_.layout().cachePathForUpload(file).c_str(), &copy) == 0;
    if (isThere && copy.st_size >= kSyncedCopy) {
        copyEnded(file.UploadName.str(), copy.st_size);
        return;
    }
    const auto record = store_.fileWithId(file.InternalName.view());
    const bool isThat = record && record->UploadName == file.UploadName && record->size() == file.size() &&
                        store_.hasWholeContents(*record);
    if (!isThat) {
        // A newer version is queued behind it, or everything of this one is lost.
        if (isThere && copy.st_size == file.size()) return;
        TWLog(kLogMain, "Warning! The contents of %@ that wait to be sent are gone.", entry->CurrentPath);
        copies_.release(file);
        return;
    }
    entry->CopyingFile = true;
    copies_.start(entry);
}

void LocalChangeJournal::addCatchupForFileUpdate(const TWVirtualFilePtr& file) {
    const auto lock = store_.beginWriteJournal();
    if (queue_.hasCatchUp(file->ShareId.view())) return;
    auto entry = std::make_shared<LocalJournal>();
    entry->LocalJournalType = kJournalCatchUp;
    entry->JournalCreate = store_.clock().now();
    entry->File = std::make_shared<TWVirtualFile>(*file);
    entry->CurrentPath = file->FullPath;
    queue_.append(entry);
    store_.setStorageEmpty(false);
    store_.saveDelayed();
}

bool LocalChangeJournal::hasPendingContents(std::string_view internalName) const {
    const auto lock = store_.beginReadJournal();
    for (const auto& entry : queue_.ofItem(internalName)) {
        if (bringsContents(*entry)) return true;
    }
    return false;
}

bool LocalChangeJournal::hasPendingCreate(std::string_view internalName) const {
    return pendingCreate(internalName) != nullptr;
}

LocalJournalPtr LocalChangeJournal::pendingCreate(std::string_view internalName) const {
    const auto lock = store_.beginReadJournal();
    for (const auto& entry : queue_.ofItem(internalName)) {
        if (entry->LocalJournalType == kJournalCreate) return entry;
    }
    return nullptr;
}

bool LocalChangeJournal::hasPending(std::string_view internalName, LocalJournalType type) const {
    const auto& entries = queue_.ofItem(internalName);
    return std::any_of(entries.begin(), entries.end(),
                       [type](const auto& entry) { return entry->LocalJournalType == type; });
}

bool LocalChangeJournal::hasPendingPlace(std::string_view internalName) const {
    const auto& entries = queue_.ofItem(internalName);
    return std::any_of(entries.begin(), entries.end(), [](const auto& entry) {
        return entry->LocalJournalType == kJournalRename || !entry->OriginalPath.empty();
    });
}

bool LocalChangeJournal::refersTo(std::string_view internalName) const {
    const auto lock = store_.beginReadJournal();
    return !queue_.ofItem(internalName).empty();
}

bool LocalChangeJournal::takeOver(const LocalJournalPtr& created, const LocalJournalPtr& earlier) {
    if (!exchange_.placeJournalItem(*created, *earlier)) return false;
    takenOver_ = store_.fileWithId(earlier->File->InternalName.view());
    return true;
}

bool LocalChangeJournal::tradePlaces(const LocalJournalPtr& created, const LocalJournalPtr& earlier) {
    if (!exchange_.exchangeJournalEntry(*earlier, *created)) return false;
    takenOver_ = store_.fileWithId(earlier->File->InternalName.view());
    const auto other = store_.fileWithId(created->File->InternalName.view());
    if (created->File->UploadName.empty() && created->File->size() > 0) copyForUpload(created, *other);
    return true;
}

std::string LocalChangeJournal::parentOf(std::string_view internalName) const {
    const auto file = store_.fileWithId(internalName);
    return file ? file->ParrentId.str() : std::string();
}

void LocalChangeJournal::changeInternalName(std::string_view fromName, const SharedString& toName) {
    for (const auto& entry : queue_.items()) {
        const auto renamed = [&](const SharedString& id) { return id == fromName; };
        if (!renamed(entry->File->InternalName) && !renamed(entry->File->ParrentId) &&
            !renamed(entry->OriginalParent)) {
            continue;
        }
        const JournalQueue::Edit edit(queue_, entry);
        for (auto* id : {&entry->File->InternalName, &entry->File->ParrentId, &entry->OriginalParent}) {
            if (renamed(*id)) *id = toName;
        }
    }
}

void LocalChangeJournal::deleteShareEntries(std::string_view shareId) {
    for (const auto& entry : queue_.ofShare(shareId)) {
        if (entry->Transmitting) continue;
        if (bringsContents(*entry)) releaseUpload(*entry);
        queue_.remove(*entry);
    }
}

void LocalChangeJournal::clear() {
    const auto lock = store_.beginWriteJournal();
    queue_.clear();
    sent_.clear();
}

std::optional<std::string> LocalChangeJournal::journalText(std::uint64_t order) const {
    const auto entry = queue_.at(order);
    return entry ? std::optional(toJsonText(asStored(*entry))) : std::nullopt;
}

std::function<std::vector<JournalText>()> LocalChangeJournal::journalSnapshot() const {
    std::vector<std::pair<std::uint64_t, LocalJournal>> entries;
    entries.reserve(queue_.items().size());
    for (const auto& entry : queue_.items()) {
        entries.emplace_back(entry->queue.order, asStored(*entry));
        entries.back().second.File = std::make_shared<TWVirtualFile>(*entry->File);
    }
    return [entries = std::move(entries)] {
        std::vector<JournalText> texts;
        texts.reserve(entries.size());
        for (const auto& [order, entry] : entries)
            texts.push_back({order, toJsonText(entry)});
        return texts;
    };
}

std::size_t LocalChangeJournal::loadJournals(const std::vector<JournalText>& texts) {
    queue_.clear();
    for (const auto& [order, text] : texts) {
        std::string error;
        const auto entry = parseRecord<LocalJournal>(text, error);
        if (!entry) {
            TWLog(kLogMain, "Warning! Cannot deserialize journal item from metadata storage. Error %@",
                  error);
        } else if (!entry->File || entry->File->InternalName.empty()) {
            TWLog(kLogMain, "Warning! A journal entry of no item is ignored, operation %@",
                  journalEventName(entry->LocalJournalType));
        } else {
            adopt(entry, order);
        }
    }
    merge_.noteTakenPlaces();
    return queue_.items().size();
}

/// An entry of an earlier run, which ended while it may have been copied or sent.
void LocalChangeJournal::adopt(const LocalJournalPtr& entry, std::uint64_t order) {
    // A deletion may be all that is left of a Create whose answer was lost.
    const bool doubtful = entry->LocalJournalType == kJournalDelete && entry->File->Tick < 0;
    entry->queue.attempted = entry->Transmitting || doubtful;
    entry->Transmitting = false;
    entry->CopyingFile.reset();
    entry->File->FullPath = entry->CurrentPath;
    entry->queue.order = order;
    queue_.putBack(entry);
}

}  // namespace tarnwell
