#pragma once

#include <string>

#include "service/MetadataStore.h"

/// What a device's changes become in the tree: who wins, which name is free, what is kept. Everything that a
/// user wrote stays reachable under some name: contents that were made without knowledge of newer ones become
/// a sibling, and a deletion never takes what its device has not seen.
///
/// A device's knowledge of a file's contents is the older of `Tick` and `UpdateTick` of the record it sends,
/// or the version that `LastUploadName` names; of everything else it is `Tick`. A device has heard of every
/// change up to a tick that it claims. What the device itself sent since counts as known.
///
/// When the outcome differs from what the record asks for, the item takes a new tick, also if nothing
/// changed: the device may have passed over its present state while its own change was pending.
///
/// Each function is part of the transaction of its caller.
namespace tarnwell::service {

/// The codes of answers to events.
enum ResponseCode : std::int32_t {
    kAccepted = 1,
    kConflict = 2,
    kDuplicate = 3,  ///< done, under the name in the answer's record
    kDeleteIgnored = 9,
    kUnknownItem = 10,
};

/// Who asks.
struct Author {
    std::string device;
    std::string email;
};

struct EventResult {
    ResponseCode code = kUnknownItem;
    TWVirtualFilePtr item;  ///< as it is now; absent when there is none
};

/// A file's Create or Update, before or after its contents came.
struct FilePlan {
    enum class Kind {
        refused,
        insert,    ///< a new item
        update,    ///< new contents for the item
        conflict,  ///< a new sibling, because others changed the item meanwhile
        place,     ///< the item has these contents already: only name and folder count
        past,      ///< the item had these contents; they were replaced or deleted with knowledge of them
    };
    Kind kind = Kind::refused;
    ResponseCode code = kUnknownItem;
    TWVirtualFilePtr item;  ///< the present record, deleted ones too; null: none
    std::string identity;   ///< internal name that takes the contents
    std::string parent;
    std::string name;
    TWVirtualFilePtr winner;  ///< the item that the record names, when the contents go to a sibling of it
};

/// What the event of that record means now. It changes nothing. `record` is the device's.
FilePlan planFile(ShareView& view, const Author& author, bool create, const TWVirtualFile& record);
/// Does it. `contents` are stored already, or null for no bytes; for Kind::place they are not looked at.
EventResult applyFile(ShareChange& change, const Author& author, const FilePlan& plan,
                      const TWVirtualFile& record, const ContentsInfo* contents);

/// For the repetition of a file's change that was done before: a new tick, unless the item is what the record
/// asks for.
void tellAgain(ShareChange& change, const TWVirtualFile& record);

/// Creates the folder, or gives the one of that identity its name and place.
EventResult placeFolder(ShareChange& change, const Author& author, const TWVirtualFile& record);
/// Renames and moves to the record's name and folder.
EventResult moveAsAsked(ShareChange& change, const Author& author, const TWVirtualFile& record);
EventResult removeAsAsked(ShareChange& change, const Author& author, const TWVirtualFile& record);

}  // namespace tarnwell::service
