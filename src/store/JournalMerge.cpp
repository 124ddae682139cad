#include "store/JournalMerge.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "util/TWLogger.h"

namespace tarnwell {

namespace {

/// A deeper place is not looked at further.
constexpr int kMaxLevels = 1000;

/// It was sent, or begun to be sent, and what came of it is not known.
bool mayHaveBeenSeen(const LocalJournal& entry) {
    return entry.queue.attempted || !entry.TransmitToken.empty();
}

/// The service cannot have seen anything of it.
bool isUnsentCreate(const LocalJournal& entry) {
    return entry.LocalJournalType == kJournalCreate && !entry.Transmitting && !mayHaveBeenSeen(entry);
}

void resetUpload(LocalJournal& entry) {
    entry.TransmitToken.reset();
    entry.UploadedSize.reset();
    entry.FileHash.reset();
}

/// `entry` takes the name and parent that `moved` gives the item.
void takePlace(LocalJournal& entry, const LocalJournal& moved) {
    entry.File->PublicName = moved.File->PublicName;
    entry.File->ParrentId = moved.File->ParrentId;
    entry.File->FullPath = moved.File->FullPath;
    entry.CurrentPath = moved.CurrentPath;
    if (!entry.OriginalParent) entry.OriginalParent = moved.OriginalParent;
    if (!entry.OriginalPath) entry.OriginalPath = moved.OriginalPath;
}

/// Its contents go, the move remains.
void becomeRename(LocalJournal& entry) {
    entry.LocalJournalType = kJournalRename;
    entry.CopyingFile.reset();
    resetUpload(entry);
}

/// `file` stands for what was made of `base`'s contents.
void keepBase(TWVirtualFile& file, const TWVirtualFile& base) {
    file.LastUploadName = base.LastUploadName;
    file.Tick = base.Tick;
    file.ShareTick = base.ShareTick;
    file.UpdateTick = base.UpdateTick;
    file.CreateTick = base.CreateTick;
}

/// Whether the contents of `newer` were made of those of `older`, which nobody needs then.
bool continues(const LocalJournal& newer, const LocalJournal& older) {
    return newer.File->LastUploadName == older.File->UploadName;
}

void takePutOff(LocalJournal& entry, const LocalJournal& gone) {
    if (gone.ForeignTick) entry.ForeignTick = std::max(*gone.ForeignTick, entry.ForeignTick.value_or(-1));
}

bool isSameItem(const LocalJournal& a, const LocalJournal& b) {
    return a.File->InternalName == b.File->InternalName;
}

}  // namespace

bool JournalMerge::add(const LocalJournalPtr& entry) {
    TWLog(kLogMain, "AddChangeToJournal: %@ (%@), operation %@", entry->File->InternalName,
          entry->CurrentPath, journalEventName(entry->LocalJournalType));
    if (entry->queue.queued) {
        addAgain(entry);
        return true;
    }
    return addToItem(entry);
}

bool JournalMerge::addToItem(const LocalJournalPtr& entry) {
    const auto type = entry->LocalJournalType;
    if (!entry->File->IsFile && type != kJournalCatchUp && type != kJournalDelete && type != kJournalRename) {
        TWLog(kLogMain, "AddChangeToJournal: disabling duplicate search");
        append(entry);
        return true;
    }
    const auto earlier = latestOf(*entry);
    if (!earlier) {
        append(entry);
        return true;
    }
    TWLog(kLogMain, "AddChangeToJournal: found duplicate, operation %@",
          journalEventName(earlier->LocalJournalType));
    switch (type) {
        case kJournalDelete:
            mergeDelete(entry);
            return false;
        case kJournalCreate:
        case kJournalUpdate:
            // Other contents came between: both are sent, and the service tells the conflict.
            bringsContents(*earlier) && !continues(*entry, *earlier) ? append(entry)
                                                                     : mergeContents(earlier, *entry);
            break;
        case kJournalRename:
            mergeRename(earlier, entry);
            break;
        default:
            break;
    }
    return true;
}

/// The latest entry of the same item that may still be changed.
LocalJournalPtr JournalMerge::latestOf(const LocalJournal& entry) const {
    const auto& entries = queue_.ofItem(entry.File->InternalName.view());
    const auto it =
        std::find_if(entries.rbegin(), entries.rend(), [](const auto& e) { return !e->Transmitting; });
    return it == entries.rend() ? nullptr : *it;
}

void JournalMerge::append(const LocalJournalPtr& entry) {
    queue_.append(entry);
    const auto type = entry->LocalJournalType;
    if (type == kJournalCreate || type == kJournalRename) arrive(entry);
}

/// An entry that was sent without success comes back. What stands behind its former turn is newer.
void JournalMerge::addAgain(const LocalJournalPtr& older) {
    older->queue.attempted = true;
    const auto& entries = queue_.ofItem(older->File->InternalName.view());
    std::vector<LocalJournalPtr> newer;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(newer), [&](const auto& entry) {
        return !entry->Transmitting && entry->queue.order > older->queue.order;
    });
    const bool needed = queue_.countBelow(older->File->InternalName.view()) > 0;
    if (!newer.empty()) {
        TWLog(kLogMain, "AddChangeToJournal: found duplicate, operation %@",
              journalEventName(newer.back()->LocalJournalType));
        if (newer.back()->LocalJournalType == kJournalDelete && !needed) {
            if (bringsContents(*older)) host_.releaseUpload(*older);
            replaceByDelete(*older, newer.back());
            return;
        }
        const auto contents = std::find_if(newer.begin(), newer.end(),
                                           [](const auto& entry) { return bringsContents(*entry); });
        const bool follows = contents != newer.end() && continues(**contents, *older);
        if (follows && older->File->IsFile) takeNewerContents(*older, *contents);
    }
    // At the end nothing waits for it. What later entries build on keeps its turn: a Create before all that
    // names the item, a move before the deletion of the folder that was left.
    needed || !newer.empty() || !older->OriginalPath.empty() ? queue_.putBack(older) : queue_.append(older);
}

/// Sends the newer contents in the turn of the older ones; of the newer change only a move remains.
void JournalMerge::takeNewerContents(LocalJournal& older, const LocalJournalPtr& newer) {
    host_.releaseUpload(older);
    auto file = std::make_shared<TWVirtualFile>(*newer->File);
    if (JournalQueue::placeAfter(*newer) == JournalQueue::placeAfter(older)) {
        older.CurrentPath = newer->CurrentPath;
    } else {
        file->PublicName = older.File->PublicName;
        file->ParrentId = older.File->ParrentId;
        file->FullPath = older.File->FullPath;
    }
    keepBase(*file, *older.File);
    takePutOff(older, *newer);
    older.File = std::move(file);
    older.CopyingFile = newer->CopyingFile;
    older.JournalCreate = std::max(older.JournalCreate, newer->JournalCreate);
    resetUpload(older);
    if (newer->OriginalPath.empty()) {
        queue_.remove(*newer);
        return;
    }
    const JournalQueue::Edit edit(queue_, newer);
    becomeRename(*newer);
}

void JournalMerge::mergeDelete(const LocalJournalPtr& entry) {
    const std::vector<LocalJournalPtr> all = queue_.ofItem(entry->File->InternalName.view());
    const bool inFlight = std::any_of(all.begin(), all.end(), [](const auto& e) { return e->Transmitting; });
    const bool unseen =
        !inFlight && std::any_of(all.begin(), all.end(), [](const auto& e) { return isUnsentCreate(*e); });
    if (!entry->File->IsFile && queue_.countBelow(entry->File->InternalName.view()) > 0) {
        // Others pass through the folder: all that happens to it happens before it goes.
        queue_.append(entry);
        return;
    }
    bool deleted = false, based = false;
    for (const auto& earlier : all) {
        if (earlier->Transmitting) continue;
        if (bringsContents(*earlier)) {
            host_.releaseUpload(*earlier);
            // What is deleted was made of that.
            if (!std::exchange(based, true)) keepBase(*entry->File, *earlier->File);
        }
        if (unseen || entry->File->IsFile || staysWithout(*earlier)) {
            if (!unseen) inherit(*entry, *earlier);
            queue_.remove(*earlier);
        } else {
            deleted = deleted || earlier->LocalJournalType == kJournalDelete;
        }
    }
    if (unseen || deleted) return;
    entry->queue.order > 0 ? queue_.putBack(entry) : queue_.append(entry);
}

/// A deletion that is queued already stands for a change that came back.
void JournalMerge::replaceByDelete(const LocalJournal& older, const LocalJournalPtr& deletion) {
    const std::uint64_t order = deletion->queue.order;
    queue_.remove(*deletion);
    deletion->queue.order = 0;
    inherit(*deletion, older);
    if (deletion->queue.order == 0) deletion->queue.order = order;
    queue_.putBack(deletion);
}

/// Whether the entry of a folder that is deleted can go. What happened since may build on a move: the folder
/// that was left may be gone, others may have come out of this one.
bool JournalMerge::staysWithout(const LocalJournal& earlier) const {
    const bool moves =
        earlier.LocalJournalType == kJournalRename || earlier.LocalJournalType == kJournalDelete;
    return !moves || queue_.isLast(earlier);
}

/// A deletion knows of the entries that it replaces where the service may have the item. It goes in the turn
/// of a move: what comes to that place needs it to be gone, and the folder that was left may be deleted later
/// on.
void JournalMerge::inherit(LocalJournal& entry, const LocalJournal& earlier) {
    auto& state = entry.queue;
    const auto left = JournalQueue::placesLeft(earlier);
    if (!left.empty()) {
        if (state.order == 0) state.order = earlier.queue.order;
        if (entry.OriginalPath.empty()) {
            entry.OriginalPath = earlier.OriginalPath;
            entry.OriginalParent = earlier.OriginalParent ? earlier.OriginalParent : earlier.File->ParrentId;
        }
    }
    state.formerPlaces.insert(state.formerPlaces.end(), left.begin(), left.end());
    state.formerPlaces.push_back(JournalQueue::placeAfter(earlier));
    const bool moves = earlier.LocalJournalType == kJournalCreate || !earlier.OriginalPath.empty();
    state.attempted = state.attempted || (moves && mayHaveBeenSeen(earlier));
}

void JournalMerge::mergeContents(const LocalJournalPtr& earlier, const LocalJournal& entry) {
    const bool ownsUpload = bringsContents(*earlier);
    if (ownsUpload && earlier->File->UploadName != entry.File->UploadName) host_.releaseUpload(*earlier);
    const JournalQueue::Edit edit(queue_, earlier);
    if (ownsUpload) keepBase(*entry.File, *earlier->File);
    if (earlier->LocalJournalType != kJournalCreate) earlier->LocalJournalType = kJournalUpdate;
    earlier->File = entry.File;
    earlier->CurrentPath = entry.CurrentPath;
    earlier->JournalCreate = entry.JournalCreate;
    earlier->CopyingFile = entry.CopyingFile;
    resetUpload(*earlier);
}

void JournalMerge::mergeRename(const LocalJournalPtr& earlier, const LocalJournalPtr& entry) {
    const bool follows = mustFollow(*earlier, *entry);
    const bool mayMoveToEnd = isUnsentCreate(*earlier) && earlier->File->IsFile;
    // What the service has heard of under the old name is named again so.
    if (mayHaveBeenSeen(*earlier) || (follows && !mayMoveToEnd)) {
        append(entry);
        return;
    }
    {
        const JournalQueue::Edit edit(queue_, earlier);
        takePlace(*earlier, *entry);
        earlier->JournalCreate = entry->JournalCreate;
    }
    if (follows) queue_.moveToEnd(earlier);
    arrive(earlier);
}

/// Whether `entry` needs something that happens in the journal after `earlier`.
bool JournalMerge::mustFollow(const LocalJournal& earlier, const LocalJournal& entry) const {
    const auto isLater = [&](const LocalJournalPtr& other) {
        return other->queue.order > earlier.queue.order && !isSameItem(*other, entry);
    };
    const auto& leavers = queue_.leavers(JournalQueue::placeAfter(entry));
    if (std::any_of(leavers.begin(), leavers.end(), isLater)) return true;
    const auto& parents = queue_.ofItem(entry.File->ParrentId.view());
    if (std::any_of(parents.begin(), parents.end(), [&](const auto& other) {
            return isLater(other) && other->LocalJournalType == kJournalCreate;
        })) {
        return true;
    }
    if (entry.File->IsFile || entry.OriginalParent.empty()) return false;
    // A folder must not come to lie below itself: a move of one above its new place may have to come first.
    std::string above = entry.File->ParrentId.str();
    for (int level = 0; !above.empty(); above = host_.parentOf(above)) {
        const auto& moves = queue_.ofItem(above);
        if (++level > kMaxLevels || std::any_of(moves.begin(), moves.end(), isLater)) return true;
    }
    return false;
}

/// The item of an entry comes to a place.
void JournalMerge::arrive(const LocalJournalPtr& entry) {
    const std::vector<LocalJournalPtr> leavers = queue_.leavers(JournalQueue::placeAfter(*entry));
    for (auto it = leavers.rbegin(); it != leavers.rend(); ++it) {
        if ((*it)->Transmitting || isSameItem(**it, *entry)) continue;
        if (exchange(entry, *it)) return;
        break;
    }
    for (const auto& leaver : leavers) {
        if (!isSameItem(*leaver, *entry) && leaver->queue.order < entry->queue.order)
            leaver->queue.placeTaken = true;
    }
}

bool JournalMerge::exchange(const LocalJournalPtr& created, const LocalJournalPtr& earlier) {
    // Folders are told apart by what is in them, and what the service has seen is better moved than sent
    // again.
    if (!isUnsentCreate(*created) || !created->File->IsFile || !earlier->File->IsFile) return false;
    if (created->File->ShareId != earlier->File->ShareId) return false;
    if (earlier->queue.placeTaken || mayHaveBeenSeen(*earlier)) return false;
    if (queue_.ofItem(earlier->File->InternalName.view()).back() != earlier ||
        queue_.ofItem(created->File->InternalName.view()).size() != 1) {
        return false;
    }
    const bool wasDeleted = earlier->LocalJournalType == kJournalDelete;
    if (wasDeleted) {
        TWLog(kLogMain, "AddChangeToJournal: found previously deleted item, path %@", earlier->CurrentPath);
    } else {
        TWLog(kLogMain, "AddChangeToJournal: found duplicate by path %@, operation %@ (new is %@)",
              earlier->OriginalPath, journalEventName(earlier->LocalJournalType),
              journalEventName(created->LocalJournalType));
    }
    {
        const JournalQueue::Edit first(queue_, earlier);
        const JournalQueue::Edit second(queue_, created);
        if (wasDeleted ? !host_.takeOver(created, earlier) : !host_.tradePlaces(created, earlier))
            return false;
    }
    if (wasDeleted) {
        queue_.remove(*created);
    } else {
        // The other file's place is free at the end of the journal only.
        queue_.moveToEnd(created);
    }
    return true;
}

void JournalMerge::noteTakenPlaces() {
    for (const auto& entry : queue_.items()) {
        const auto type = entry->LocalJournalType;
        if (type == kJournalCatchUp || type == kJournalDelete) continue;
        for (const auto& leaver : queue_.leavers(JournalQueue::placeAfter(*entry))) {
            if (!isSameItem(*leaver, *entry) && leaver->queue.order < entry->queue.order)
                leaver->queue.placeTaken = true;
        }
    }
}

}  // namespace tarnwell
