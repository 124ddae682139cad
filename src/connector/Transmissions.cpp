#include "connector/Transmissions.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "connector/FileDescriptor.h"
#include "connector/StoreQueries.h"
#include "platform/Clock.h"
#include "store/LocalChangeJournal.h"
#include "store/RemoteChanges.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

constexpr std::chrono::seconds kRetransmitDelay{30};

/// Whether an item may be called so on the drive. Names that take no part in synchronisation would drop the
/// user's change from the journal.
bool isItemName(std::string_view name, bool isFolder) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos &&
           !CacheLayout::isPathIgnored(name, isFolder);
}

}  // namespace

Transmissions::Transmissions(const ConnectorEnvironment& environment, std::function<void()> passWanted)
    : environment_(environment), journal_(environment.store.journal()), passWanted_(std::move(passWanted)) {}

bool Transmissions::mayBegin(std::string_view shareId, const std::string& gateWayUrl) const {
    std::size_t there = 0;
    for (const auto& [entry, operation] : operations_) {
        if (operation.shareId == shareId) return false;
        if (operation.gateWayUrl == gateWayUrl) ++there;
    }
    return there < kMostAtOneGateway;
}

std::optional<ShareAddress> Transmissions::begin(const LocalJournalPtr& entry) {
    auto address = shareAddress(environment_.store, entry->File->ShareId.view());
    if (!address) return std::nullopt;
    operations_[entry] = {address->shareId, address->gateWayUrl};
    journal_.setTransmitting(entry, true);
    showCounter(address->shareId);
    return address;
}

bool Transmissions::wanted(const LocalJournal& entry) const {
    const auto lock = environment_.store.beginReadStorage();
    return journal_.isQueued(entry) && environment_.store.shareWithId(entry.File->ShareId.view());
}

/// False when the operation has ended already.
bool Transmissions::leave(const LocalJournalPtr& entry) {
    const auto found = operations_.find(entry);
    if (found == operations_.end()) return false;
    const std::string shareId = std::move(found->second.shareId);
    operations_.erase(found);
    showCounter(shareId);
    return true;
}

void Transmissions::showCounter(const std::string& shareId) const {
    const auto share = environment_.store.shareWithId(shareId);
    if (!share) return;
    share->TransmitCounter = static_cast<std::int32_t>(
        std::count_if(operations_.begin(), operations_.end(),
                      [&](const auto& operation) { return operation.second.shareId == shareId; }));
}

void Transmissions::deleteSucceededRequest(const LocalJournalPtr& entry) {
    auto& store = environment_.store;
    if (store.terminating()) return;
    const ShutdownBlock block(store);
    syncContents(*entry);
    TWVirtualFile sent;
    {
        const auto change = store.beginLocalChange();
        if (!leave(entry)) return;
        if (bringsContents(*entry)) sent = *entry->File;
        if (journal_.isQueued(*entry)) {
            if (wanted(*entry)) {
                if (entry->ForeignTick)
                    store.remoteChanges().askAgain(entry->File->ShareId.view(), *entry->ForeignTick - 1);
                journal_.addCatchupForFileUpdate(entry->File);
            }
            if (bringsContents(*entry)) {
                if (const auto live = store.fileWithId(entry->File->InternalName.view())) {
                    live->LastUploadName = entry->File->UploadName;
                    store.markChanged(*live);
                }
                journal_.contentsSent(*entry);
            }
            journal_.deleteJournalEntry(entry);
        }
    }
    // Last: a crash before leaves a copy without an entry, never an entry without its copy.
    journal_.removeUploadFileData(sent);
    store.saveDelayed();
    passWanted_();
}

/// Without its entry the cached bytes count as what the service has, also after a loss of power: they have to
/// be on the disk before. Waits for the disk, without the lock.
void Transmissions::syncContents(const LocalJournal& entry) const {
    std::string path;
    {
        const auto lock = environment_.store.beginReadStorage();
        if (!bringsContents(entry) || entry.File->size() == 0) return;
        const auto live = environment_.store.fileWithId(entry.File->InternalName.view());
        if (!live || live->UploadName != entry.File->UploadName) return;
        path = environment_.store.layout().cachePathForFile(*live);
    }
    const FileDescriptor cached(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (cached && ::fdatasync(cached.get()) != 0)
        TWLog(kLogMain, "Warning! Cannot sync the contents of %@ : error %d", path, errno);
}

void Transmissions::deleteFailedRequest(const LocalJournalPtr& entry, const TWVirtualFilePtr& theirs) {
    auto& store = environment_.store;
    if (store.terminating()) return;
    const ShutdownBlock block(store);
    TWVirtualFile file;
    {
        const auto lock = store.beginReadStorage();
        if (bringsContents(*entry) && journal_.isQueued(*entry)) file = *entry->File;
    }
    // Before the entry goes, and without the lock: it waits for the disk.
    if (!keepContents(file, "the service refused this version")) return retransmitRequest(entry);
    {
        const auto change = store.beginLocalChange();
        if (!leave(entry)) return;
        if (wanted(*entry)) {
            resetRecord(*entry);
            takeTheirs(*entry, theirs);
        }
        journal_.deleteJournalEntry(entry);
    }
    journal_.removeUploadFileData(file);
    store.saveDelayed();
    // The turn of the next one; it does not depend on the service being well.
    passWanted_();
}

/// False when the upload copy of `file` is the only one and cannot be put aside.
bool Transmissions::keepContents(const TWVirtualFile& file, std::string_view reason) {
    if (file.UploadName.empty()) return true;
    const int error = environment_.store.keptFiles().keepBeforeRemoval(
        file, environment_.store.layout().cachePathForUpload(file), reason);
    if (error == 0 || error == ENOENT) return true;
    TWLog(kLogMain, "Warning! Unsent contents of %@ cannot be kept. Error %d", file.FullPath, error);
    return false;
}

/// The record stands for contents that nobody has, or that are kept elsewhere now. REQUIRES LOCK.
void Transmissions::resetRecord(const LocalJournal& entry) {
    auto& store = environment_.store;
    const auto live = store.fileWithId(entry.File->InternalName.view());
    const bool claims = live && live->IsFile && bringsContents(entry) &&
                        !live->LocallyUpdated.value_or(false) && live->UploadName == entry.File->UploadName &&
                        !entry.File->UploadName.empty();
    if (!claims) return;
    if (live->Tick < 0) {
        // The service never had it.
        store.deleteFileMetadata(live);
        return;
    }
    live->UploadUrl.reset();
    live->LastUploadName.reset();
    live->DownloadDate.reset();
    store.noteContentsChanged(*live);
}

void Transmissions::takeTheirs(const LocalJournal& entry, const TWVirtualFilePtr& theirs) {
    auto& store = environment_.store;
    const auto change = store.beginLocalChange();
    const auto& file = *entry.File;
    const bool known = theirs && theirs->InternalName == file.InternalName;
    const std::int32_t tick = known ? theirs->Tick : file.Tick >= 0 ? file.Tick : file.CreateTick;
    store.remoteChanges().askAgain(file.ShareId.view(), tick - 1);
    journal_.addCatchupForFileUpdate(entry.File);
}

void Transmissions::retransmitRequest(const LocalJournalPtr& entry) {
    auto& store = environment_.store;
    if (store.terminating()) return;
    const ShutdownBlock block(store);
    TWVirtualFile unwanted;
    {
        const auto lock = store.beginReadStorage();
        const auto id = entry->File->InternalName.view();
        // What the user deleted himself goes; an entry that left the queue was replaced or deleted by him.
        const bool doomed =
            journal_.isQueued(*entry) && !wanted(*entry) && !journal_.hasPending(id, kJournalDelete);
        if (doomed && bringsContents(*entry)) unwanted = *entry->File;
    }
    // Before the entry goes, and without the lock: it waits for the disk.
    const bool kept = keepContents(unwanted, kShareGone);
    TWVirtualFile dropped;
    {
        const auto change = store.beginLocalChange();
        if (!leave(entry)) return;
        const bool again = wanted(*entry);
        journal_.setTransmitting(entry, false);
        entry->JournalCreate = environment_.clock.now() + kRetransmitDelay;
        if (!again) {
            journal_.deleteJournalEntry(entry);
            // A copy that cannot be put aside stays where it is.
            if (kept && bringsContents(*entry)) dropped = *entry->File;
        } else if (bringsContents(*entry)) {
            TWLog(kLogMain, "Putting journal entry for file create/update %@ to the end of the queue.",
                  entry->File->InternalName);
            journal_.deleteJournalEntry(entry);
            journal_.addChangeToJournal(entry);
        } else {
            journal_.entryChanged(entry);
        }
    }
    journal_.removeUploadFileData(dropped);
    store.saveDelayed();
}

void Transmissions::takeServerName(const LocalJournalPtr& entry, std::string_view name) {
    auto& store = environment_.store;
    const auto change = store.beginLocalChange();
    auto& file = *entry->File;
    if (!isItemName(name, !file.IsFile) || file.PublicName == name) return;
    const auto live = store.fileWithId(file.InternalName.view());
    // Another record that has this name here waits behind it, and steps forward when its own turn to be sent,
    // and to be named by the service, comes.
    const bool inPlace = live && live->PublicName == file.PublicName && live->ParrentId == file.ParrentId;
    if (inPlace) {
        live->PublicName = name;
        store.updateFilePathes(live);
    }
    file.PublicName = name;
    if (inPlace) {
        file.FullPath = live->FullPath;
        entry->CurrentPath = live->FullPath;
    }
    journal_.entryChanged(entry);
}

void Transmissions::faulted(const LocalJournalPtr& entry, std::string_view reason) {
    TWLog(kLogMain, "Error: an operation of the journal failed: %@", reason);
    try {
        retransmitRequest(entry);
    } catch (const std::exception& error) {
        TWLog(kLogMain, "Error: an entry of the journal cannot be put back: %@", error.what());
    }
}

}  // namespace tarnwell
