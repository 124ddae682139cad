#include "connector/JournalReplayEngine.h"

#include <algorithm>
#include <chrono>
#include <vector>

#include "connector/CatchUpEngine.h"
#include "connector/ConnectorReachability.h"
#include "connector/ConnectorSession.h"
#include "connector/ItemOperations.h"
#include "connector/TaskGate.h"
#include "connector/Transmissions.h"
#include "connector/UploadEngine.h"
#include "platform/Clock.h"
#include "store/LocalChangeJournal.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

constexpr std::chrono::milliseconds kLongestPause{5000};
constexpr std::chrono::milliseconds kCopyPause{500};
/// Of a new empty file, and of another try. What lies further ahead was set before the clock was set back.
constexpr std::chrono::seconds kLongestDelay{150 + 30};
/// Folders in folders, each waiting for the Create of the one above.
constexpr int kMostLevels = 1000;

}  // namespace

struct JournalReplayEngine::Pass {
    Date now;
    std::optional<Date> nextDue;

    /// Whether a date has come, or cannot be meant; else the next pass follows at that.
    bool due(const std::optional<Date>& date) {
        if (!date || *date <= now || *date > now + kLongestDelay) return true;
        nextDue = nextDue ? std::min(*nextDue, *date) : *date;
        return false;
    }
};

void JournalReplayEngine::checkJournal() {
    if (!context_.reachability.internetReachable()) return;
    auto& store = context_.environment.store;
    if (store.terminating()) {
        TWLog(kLogMain, "checkJournal: app is terminating, exiting.");
        return;
    }
    Pass pass{.now = context_.environment.clock.now(), .nextDue = {}};
    {
        const auto lock = store.beginWriteStorage();
        const auto shares = store.shares();
        // Another one first each time: the turn decides who gets the last free place at a gateway.
        ++passes_;
        for (std::size_t i = 0; i < shares.size(); ++i)
            walk(*shares[(passes_ + i) % shares.size()], pass);
    }
    auto pause = kLongestPause;
    if (pass.nextDue)
        pause = std::min(pause, std::chrono::ceil<std::chrono::milliseconds>(*pass.nextDue - pass.now));
    next_ = context_.environment.mainLoop.postAfter(pause, context_.gate.guard([this] { checkJournal(); }));
}

/// Starts the share's next entry. REQUIRES LOCK.
void JournalReplayEngine::walk(const ManagedShare& share, Pass& pass) {
    auto& journal = context_.environment.store.journal();
    const std::string id = share.ShareId.value_or("");
    auto entry = journal.nextOfShare(id, 0);
    if (!entry || !context_.transmissions.mayBegin(id, share.GateWayUrl.value_or(""))) return;
    const auto domain = context_.session.domainWithId(share.DomainId.value_or(""));
    if (!context_.reachability.domainReachable(domain)) return;
    for (; entry; entry = journal.nextOfShare(id, entry->queue.order)) {
        const auto first = neededFirst(entry);
        if (!pass.due(first->JournalCreate) || first->Transmitting) return;
        if (first->CopyingFile.value_or(false)) {
            // Not worth keeping over a restart, which ends the copy.
            first->JournalCreate = pass.now + kCopyPause;
            (void)pass.due(first->JournalCreate);
            return;
        }
        TWLog(kLogMain, "Journal entry %@, file %@ (%@)", journalEventName(first->LocalJournalType),
              first->File->InternalName, first->CurrentPath);
        if (start(first)) return;
    }
}

/// True when the share is busy with it now. REQUIRES LOCK.
bool JournalReplayEngine::start(const LocalJournalPtr& entry) {
    auto& store = context_.environment.store;
    switch (entry->LocalJournalType) {
        case kJournalCreate:
        case kJournalUpdate:
            entry->File->IsFile ? context_.uploads.uploadFileChangeNew(entry)
                                : context_.items.createFolderNew(entry);
            return true;
        case kJournalRename:
            context_.items.renameItemNew(entry);
            return true;
        case kJournalDelete:
            context_.items.deleteItemNew(entry);
            return true;
        case kJournalCatchUp:
            store.journal().setTransmitting(entry, true);
            if (const auto share = store.shareWithId(entry->File->ShareId.view()))
                context_.catchUps.catchUpOnceMore(share);
            store.journal().deleteJournalEntry(entry);
            return false;
        default:
            return false;
    }
}

/// The Create that has to come before an entry, or the entry itself. REQUIRES LOCK.
LocalJournalPtr JournalReplayEngine::neededFirst(const LocalJournalPtr& entry) const {
    const auto& journal = context_.environment.store.journal();
    LocalJournalPtr first = entry;
    for (int level = 0; level < kMostLevels && first->LocalJournalType != kJournalCatchUp; ++level) {
        auto needed = journal.pendingCreate(first->File->InternalName.view());
        if (!needed || needed == first) {
            // A deletion needs no folder to go to.
            if (first->LocalJournalType == kJournalDelete) break;
            needed = journal.pendingCreate(first->File->ParrentId.view());
        }
        if (!needed || needed == first) break;
        first = std::move(needed);
    }
    return first;
}

bool JournalReplayEngine::refersTo(std::string_view internalName) {
    const auto& store = context_.environment.store;
    const auto lock = store.beginReadStorage();
    const auto file = store.fileWithId(internalName);
    return store.journal().refersTo(internalName) || (file && file->LocallyUpdated.value_or(false));
}

}  // namespace tarnwell
