#include "service/ShareEvents.h"

#include <algorithm>

#include "service/Names.h"
#include "service/Secrets.h"
#include "service/ServiceError.h"
#include "service/ShareTree.h"
#include "util/TWUtils.h"

namespace tarnwell::service {

namespace {

std::int64_t sizeOf(const TWVirtualFile& record) {
    return record.AllocationSize.value_or(record.EndOfFile.value_or(0));
}

bool hasSameContents(const TWVirtualFile& item, const TWVirtualFile& record) {
    if (item.size() != sizeOf(record)) return false;
    return sizeOf(record) == 0 || (!record.FilehHash.empty() && item.FilehHash == record.FilehHash);
}

/// `record` is a repetition of what the item is made of. Empty files have no upload name to tell.
bool isSameVersion(const TWVirtualFile& item, const TWVirtualFile& record) {
    if (!hasSameContents(item, record)) return false;
    if (sizeOf(record) != 0) return item.UploadName == record.UploadName;
    return item.LastWriteTime == record.LastWriteTime &&
           (!record.Attributes || record.Attributes == item.Attributes) &&
           (!record.POSIXPermissions || record.POSIXPermissions == item.POSIXPermissions);
}

/// Whether these very contents were in the tree before, as the record's item or as its conflict copy.
bool wereStored(ShareView& view, const TWVirtualFile& record, std::string_view conflictCopy) {
    if (record.UploadName.empty() || record.FilehHash.empty()) return false;
    const auto known = view.contents(record.UploadName.view());
    return known && known->shareId == view.share().id && known->size == sizeOf(record) &&
           record.FilehHash.view() == known->hash &&
           (record.InternalName.view() == known->item || conflictCopy == known->item);
}

/// Others wrote contents that the device of the record did not know.
bool isOutdated(ShareView& view, const Author& author, const TWVirtualFile& item,
                const TWVirtualFile& record) {
    if (!record.LastUploadName.empty() && record.LastUploadName == item.UploadName) return false;
    const auto authorship = view.authorship(item.InternalName.view());
    return std::min(record.Tick, record.UpdateTick) <
           authorship.foreignContents(author.device, item.UpdateTick);
}

/// The same for every repetition of the same upload, so that it finds what it made.
std::string conflictIdentity(const TWVirtualFile& item, std::string_view uploadName, std::string_view hash) {
    const std::string digest =
        digestOf(item.InternalName.str() + "\n" + std::string(uploadName) + "\n" + std::string(hash));
    std::string name = "F";
    for (std::size_t i = 0; i < 64; ++i) {
        if (const auto place = i % 32; place == 8 || place == 12 || place == 16 || place == 20) name += '-';
        name += digest[i];
    }
    return name;
}

/// The conflict copy of `item` that the record's contents were made from. A device may go on editing it under
/// the identity of the original until it hears of the copy.
TWVirtualFilePtr conflictCopyBehind(ShareView& view, const TWVirtualFile& item, const TWVirtualFile& record) {
    if (record.LastUploadName.empty()) return nullptr;
    const auto base = view.contents(record.LastUploadName.view());
    if (!base || base->item != conflictIdentity(item, base->uploadName, base->hash)) return nullptr;
    auto copy = view.find(base->item);
    return copy && !copy->Deleted && copy->UploadName == record.LastUploadName ? copy : nullptr;
}

bool isWhereAsked(const TWVirtualFile& item, const TWVirtualFile& record) {
    return !item.Deleted && (!record.ParrentId || item.ParrentId == record.ParrentId) &&
           (!record.PublicName || item.PublicName == record.PublicName);
}

/// See the header: a new tick where the answer is not what was asked for. `former` is the item's tick before.
void tellIfDifferent(ShareChange& change, TWVirtualFile& item, const TWVirtualFile& record,
                     std::int32_t former) {
    if (item.Tick == former && !isWhereAsked(item, record)) touchItem(change, item);
}

std::string conflictName(std::string_view name) {
    const std::string suffix =
        "conflict " + JSONObjectFromNSDate(std::chrono::floor<TickDuration>(std::chrono::system_clock::now()))
                          .substr(0, 10);
    // A device that knows its copy by this name already sends it again with newer bytes.
    if (name.find("(" + suffix + ")") != std::string_view::npos) return std::string(name);
    return suffixedName(name, true, suffix);
}

/// The folder and the name that an item takes. Those that the record asks for, except where others moved the
/// item without the device knowing, or the folder cannot be.
struct Place {
    std::string parent;  ///< empty: there is no such folder
    std::string name;
};
Place placeOf(ShareView& view, const Author& author, const TWVirtualFile* item, const TWVirtualFile& record) {
    const std::string_view self = item ? item->InternalName.view() : std::string_view();
    Place place{record.ParrentId.str(), usableName(record.PublicName.view())};
    if (item) {
        const auto authorship = view.authorship(self);
        const bool movedByOthers = !item->Deleted && record.Tick < authorship.foreignPlace(author.device);
        if (movedByOthers || record.PublicName.empty()) place.name = item->PublicName.str();
        if (movedByOthers || !canContain(view, place.parent, self, true))
            place.parent = item->ParrentId.str();
    }
    if (!canContain(view, place.parent, self, true)) return {};
    place.name = availableName(view, place.parent, place.name, record.IsFile, self);
    return place;
}

ResponseCode codeFor(const TWVirtualFile& record, std::string_view name) {
    return record.PublicName.view() == name ? kAccepted : kDuplicate;
}

/// A record as the service keeps it, of what a device sent.
TWVirtualFile recordFor(const Author& author, const std::string& identity, const TWVirtualFile& sent) {
    TWVirtualFile record;
    record.InternalName = identity;
    record.User = author.email;
    record.IsFile = sent.IsFile;
    record.CreationTime = sent.CreationTime;
    record.LastAccessTime = sent.LastAccessTime;
    record.LastWriteTime = sent.LastWriteTime;
    record.Attributes = sent.Attributes;
    record.POSIXPermissions = sent.POSIXPermissions;
    record.EndOfFile = record.AllocationSize = 0;
    return record;
}

/// The item where the plan wants it, live, with the attributes that the device gave it. Takes a tick only for
/// a change.
void settle(ShareChange& change, const Author& author, TWVirtualFile& item, const std::string& parent,
            const std::string& name) {
    reviveFolder(change, parent, author.device);
    if (!item.Deleted && item.ParrentId == parent && item.PublicName == name) return;
    item.Deleted = false;
    moveItem(change, item, parent, availableName(change, parent, name, item.IsFile, item.InternalName.view()),
             author.device);
}

}  // namespace

FilePlan planFile(ShareView& view, const Author& author, bool create, const TWVirtualFile& record) {
    FilePlan plan;
    plan.item = view.find(record.InternalName.view());
    plan.identity = record.InternalName.str();
    if (plan.item ? !plan.item->IsFile : !create) return plan;
    const auto at = [&plan](FilePlan::Kind kind, TWVirtualFilePtr item) {
        plan.kind = kind;
        plan.item = std::move(item);
        plan.identity = plan.item->InternalName.str();
        plan.parent = plan.item->ParrentId.str();
        plan.name = plan.item->PublicName.str();
    };
    const bool alive = plan.item && !plan.item->Deleted;
    const bool same = plan.item && hasSameContents(*plan.item, record);
    const bool outdated = alive && !same && isOutdated(view, author, *plan.item, record);
    if (outdated) {
        plan.winner = plan.item;
        plan.code = kDuplicate;
        plan.identity = conflictIdentity(*plan.item, record.UploadName.view(), record.FilehHash.view());
        if (const auto sibling = view.find(plan.identity); sibling && !sibling->Deleted) {
            at(FilePlan::Kind::place, sibling);
            return plan;
        }
    }
    if (plan.item && (outdated || !alive) && wereStored(view, record, plan.identity)) {
        plan.winner = nullptr;
        plan.code = kAccepted;
        at(FilePlan::Kind::past, plan.item);
        return plan;
    }
    if (outdated) {
        if (const auto copy = conflictCopyBehind(view, *plan.item, record)) {
            at(FilePlan::Kind::update, copy);
            return plan;
        }
        plan.kind = FilePlan::Kind::conflict;
        plan.parent = plan.item->ParrentId.str();
        plan.name =
            availableName(view, plan.parent, conflictName(usableName(record.PublicName.view())), true);
        return plan;
    }
    auto place = placeOf(view, author, plan.item.get(), record);
    if (place.parent.empty()) return plan;
    plan.parent = std::move(place.parent);
    plan.name = std::move(place.name);
    plan.code = codeFor(record, plan.name);
    plan.kind = !plan.item                                   ? FilePlan::Kind::insert
                : alive && isSameVersion(*plan.item, record) ? FilePlan::Kind::place
                                                             : FilePlan::Kind::update;
    return plan;
}

EventResult applyFile(ShareChange& change, const Author& author, const FilePlan& plan,
                      const TWVirtualFile& sent, const ContentsInfo* contents) {
    if (plan.kind == FilePlan::Kind::refused) return {plan.code, plan.item};
    auto item = plan.item;
    if (plan.kind == FilePlan::Kind::past) {
        touchItem(change, *item);
        return {plan.code, item};
    }
    // The device that lost has the winner's contents still to come, whatever it was told before.
    if (plan.winner) touchItem(change, *plan.winner);
    if (plan.kind == FilePlan::Kind::place) {
        const auto former = item->Tick;
        settle(change, author, *item, plan.parent, plan.name);
        tellIfDifferent(change, *item, sent, former);
        return {plan.code, item};
    }
    if (contents) {
        ContentsInfo stored = *contents;
        stored.item = plan.identity;
        change.addContents(stored);
    }
    TWVirtualFile version = recordFor(author, plan.identity, sent);
    if (contents) {
        version.UploadName = contents->uploadName;
        version.FilehHash = contents->hash;
        version.EndOfFile = version.AllocationSize = contents->size;
    }
    if (plan.kind == FilePlan::Kind::update) {
        settle(change, author, *item, plan.parent, plan.name);
        item->User = author.email;
        if (sent.Attributes) item->Attributes = sent.Attributes;
        if (sent.POSIXPermissions) item->POSIXPermissions = sent.POSIXPermissions;
        // Sent under the original's identity: the device may know the copy as well, by its former version.
        updateItem(change, *item, version, plan.winner ? std::string() : author.device);
        return {plan.code, item};
    }
    reviveFolder(change, plan.parent, author.device);
    version.ParrentId = plan.parent;
    version.PublicName = availableName(change, plan.parent, plan.name, true);
    item = std::make_shared<TWVirtualFile>(version);
    insertItem(change, *item, author.device);
    return {plan.code, item};
}

void tellAgain(ShareChange& change, const TWVirtualFile& record) {
    const auto item = change.find(record.InternalName.view());
    if (item && !(isWhereAsked(*item, record) && hasSameContents(*item, record))) touchItem(change, *item);
}

EventResult placeFolder(ShareChange& change, const Author& author, const TWVirtualFile& record) {
    auto item = change.find(record.InternalName.view());
    if (item && item->IsFile) return {kUnknownItem, item};
    const auto place = placeOf(change, author, item.get(), record);
    if (place.parent.empty()) return {kUnknownItem, item};
    if (item) {
        const auto former = item->Tick;
        settle(change, author, *item, place.parent, place.name);
        tellIfDifferent(change, *item, record, former);
    } else {
        reviveFolder(change, place.parent, author.device);
        item = std::make_shared<TWVirtualFile>(recordFor(author, record.InternalName.str(), record));
        item->ParrentId = place.parent;
        item->PublicName = availableName(change, place.parent, place.name, false);
        insertItem(change, *item, author.device);
    }
    return {codeFor(record, item->PublicName.view()), item};
}

EventResult moveAsAsked(ShareChange& change, const Author& author, const TWVirtualFile& record) {
    auto item = change.find(record.InternalName.view());
    if (!item) return {kUnknownItem, nullptr};
    if (item->Deleted) {
        // A device keeps an item with a pending move when it hears of the deletion.
        touchItem(change, *item);
        return {kUnknownItem, item};
    }
    const auto former = item->Tick;
    const std::string parent = record.ParrentId ? record.ParrentId.str() : item->ParrentId.str();
    if (!canContain(change, parent, item->InternalName.view(), true)) {
        // Nothing moved here, so nothing but a new tick would tell the device.
        touchItem(change, *item);
        const auto folder = change.find(parent);
        return {folder && !folder->IsFile ? kConflict : kUnknownItem, item};
    }
    const std::string wanted =
        record.PublicName.empty() ? item->PublicName.str() : usableName(record.PublicName.view());
    const std::string name = availableName(change, parent, wanted, item->IsFile, item->InternalName.view());
    settle(change, author, *item, parent, name);
    tellIfDifferent(change, *item, record, former);
    return {record.PublicName.empty() || item->PublicName == record.PublicName ? kAccepted : kDuplicate,
            item};
}

EventResult removeAsAsked(ShareChange& change, const Author& author, const TWVirtualFile& record) {
    auto item = change.find(record.InternalName.view());
    if (!item) return {kUnknownItem, nullptr};
    if (item->Deleted) return {kDeleteIgnored, item};
    const auto spares = [&](const TWVirtualFile& one) {
        const auto authorship = change.authorship(one.InternalName.view());
        const bool ownPlace = authorship.mover == author.device;
        if (&one == item.get()) {
            if (!ownPlace && authorship.placeTick > record.Tick) return true;
            const bool named = !record.UploadName.empty() && record.UploadName == one.UploadName;
            return one.IsFile && !named && isOutdated(change, author, one, record);
        }
        // A device deletes what it sees in a folder before the folder. Of what changed since the tick that it
        // claims for the folder it need not have heard, also where it sent that itself: it may have shown the
        // item elsewhere meanwhile.
        if (one.Tick > record.Tick) return true;
        return one.IsFile && record.Tick < authorship.foreignContents(author.device, one.UpdateTick);
    };
    removeItem(change, *item, spares);
    return {item->Deleted ? kAccepted : kDeleteIgnored, item};
}

}  // namespace tarnwell::service
