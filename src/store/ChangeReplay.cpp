#include "store/ChangeReplay.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "store/ChangeLog.h"
#include "store/ChangeRecorder.h"
#include "store/Enums.h"
#include "store/JournalExchange.h"
#include "store/JournalQueue.h"
#include "store/StoreIndex.h"
#include "store/TWMetadataStorage.h"
#include "util/RecordMapping.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

std::uint64_t inodeOf(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

/// What tells an entry from others where numbers do not; empty when it is none.
std::string nameOfEntry(const std::string& text) {
    std::string error;
    const auto entry = parseRecord<LocalJournal>(text, error);
    if (!entry || !entry->File) return {};
    return std::to_string(entry->LocalJournalType) + " " + entry->File->InternalName.str() + " " +
           (bringsContents(*entry) ? entry->File->UploadName.str() : entry->CurrentPath.str());
}

}  // namespace

ChangeReplay::ChangeReplay(TWMetadataStorage& store, StoreIndex& index, ChangeRecorder& changes)
    : store_(store), index_(index), changes_(changes) {}

void ChangeReplay::run() {
    PieceReader reader;
    const auto each = [&](std::string_view piece) {
        inPiece_ = false;
        try {
            reader.read(piece, *this);
        } catch (const MalformedPiece& malformed) {
            damaged_ = true;
            TWLog(kLogMain, "Warning! A change in the change log is not understood: %@", malformed.what());
        }
    };
    const auto damaged = [this](const std::string& name, std::string_view why) {
        damaged_ = true;
        TWLog(kLogMain, "Warning! The change log %@ is cut off: %@. What stands before is taken.", name, why);
    };
    ChangeLog::read(store_.layout().rootCachePath(), each, damaged);
    undoExchanges();
    if (pieces_ > 0) TWLog(kLogMain, "Replayed %d changes since the last save.", pieces_);
}

/// What follows an exchange in the log was appended when that was complete.
void ChangeReplay::beginChange() {
    if (std::exchange(inPiece_, true)) return;
    ++pieces_;
    exchanges_.clear();
}

void ChangeReplay::undoExchanges() {
    const std::string& root = store_.layout().rootCachePath();
    for (const auto& exchange : exchanges_) {
        const std::string a = root + "/" + exchange.a;
        const std::string b = root + "/" + exchange.b;
        if (inodeOf(a) != exchange.inodeB || inodeOf(b) != exchange.inodeA) continue;
        TWLog(kLogMain, "Taking back an exchange of cache files that was cut off: %@, %@", a, b);
        JournalExchange::exchangeFileContents(a, b);
    }
}

void ChangeReplay::journalBase(JournalBase base) {
    bases_.push_back(std::move(base));
}

void ChangeReplay::share(const std::string& json) {
    beginChange();
    std::string error;
    const auto share = parseRecord<ManagedShare>(json, error);
    if (!share || share->ShareId.value_or("").empty()) {
        TWLog(kLogMain, "Warning! Cannot deserialize share from metadata storage. Error %@", error);
        return;
    }
    changes_.noteLogged(*share->ShareId);
    if (const auto stored = index_.shareWithId(*share->ShareId)) {
        // The tick belongs to the records that were saved with it; a lower one asks for changes once more.
        stored->LastApplyedJournalTick =
            std::min(stored->LastApplyedJournalTick, share->LastApplyedJournalTick);
        stored->Synchronize = share->Synchronize;
        stored->DisplayName = share->DisplayName;
        store_.insertShare(stored);
        return;
    }
    share->LastApplyedJournalTick = -1;
    share->TransmitCounter = 0;
    store_.insertShare(share);
    store_.createFolderForShare(*share);
}

void ChangeReplay::shareGone(const std::string& id) {
    beginChange();
    changes_.noteLogged(id);
    index_.removeFilesOfShare(id);
    index_.removeShare(id);
}

void ChangeReplay::file(TWVirtualFilePtr file) {
    beginChange();
    if (file->InternalName.empty() || file->ParrentId.empty()) return;
    changes_.noteLogged(file->InternalName);
    if (!index_.shareWithId(file->ShareId.view()) || index_.shareWithId(file->InternalName.view())) return;
    index_.insertWithoutPath(file);
}

void ChangeReplay::fileGone(const std::string& id) {
    beginChange();
    changes_.noteLogged(SharedString(id));
    index_.remove(id);
}

void ChangeReplay::entry(std::uint64_t order, std::string json) {
    beginChange();
    if (auto name = nameOfEntry(json); !name.empty()) known_.insert(std::move(name));
    entries_[order] = std::move(json);
}

void ChangeReplay::entryGone(std::uint64_t order) {
    beginChange();
    entries_[order].reset();
}

void ChangeReplay::exchange(CacheExchange exchange) {
    beginChange();
    exchanges_.push_back(std::move(exchange));
}

ChangeReplay::Journal ChangeReplay::journal(const std::vector<std::string>& texts) const {
    Journal journal;
    journal.base.hash = hashOfJournal(texts);
    const auto base = std::find_if(bases_.rbegin(), bases_.rend(), [&](const JournalBase& candidate) {
        return candidate.hash == journal.base.hash && candidate.orders.size() == texts.size();
    });
    const bool isKnown = base != bases_.rend();
    const bool isForeign = !isKnown && !entries_.empty();
    std::map<std::uint64_t, std::string> entries;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        const auto order = isKnown     ? base->orders[i]
                           : isForeign ? JournalQueue::kBeforeFirst + i
                                       : JournalQueue::kFirst + i;
        journal.base.orders.push_back(order);
        if (isForeign && known_.contains(nameOfEntry(texts[i]))) {
            journal.dropped.push_back(order);
        } else {
            entries[order] = texts[i];
        }
    }
    if (isForeign) TWLog(kLogMain, "Warning! The journal is not the one that the change log goes on from.");
    for (const auto& [order, text] : entries_) {
        if (text) {
            entries[order] = *text;
        } else {
            entries.erase(order);
        }
    }
    journal.entries.reserve(entries.size());
    for (auto& [order, text] : entries)
        journal.entries.push_back({order, std::move(text)});
    return journal;
}

}  // namespace tarnwell
