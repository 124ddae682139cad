#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "service/MetadataStore.h"

/// What may happen to the items of a share, in terms of ShareChange: the rules that no storage engine needs
/// to know. Each is part of the transaction of its caller; refusals are ServiceErrors.
namespace tarnwell::service {

/// The live item at "a/b/c" (slashes at the ends do not count), null when there is none.
TWVirtualFilePtr itemAtPath(ShareView& view, std::string_view path);
/// The reverse: "a/b/c", "" for the share's id; none for an item that is not there.
std::optional<std::string> pathOf(ShareView& view, std::string_view item);
/// A folder's internal name, or the share's id for the root "". Throws when the path leads to no folder.
std::string folderAtPath(ShareView& view, std::string_view path);

/// `name` when no live sibling has it, else the first free "name (2).ext". `self`, if given, does not count
/// as one.
std::string availableName(ShareView& view, std::string_view parent, std::string_view name, bool isFile,
                          std::string_view self = {});

struct SplitPath {
    std::string folder;  ///< empty: the root
    std::string name;    ///< the last component
};
SplitPath splitPath(std::string_view path);

/// Whether the item may lie in the folder (an internal name, or the share's id): the folder is there and not
/// inside the item. Folders that are deleted count when `deletedToo`.
bool canContain(ShareView& view, std::string_view parent, std::string_view item, bool deletedToo = false);

// `device` is the one that makes the change; empty: the service itself.

/// Gives the record its ticks as a new item and stores it.
void insertItem(ShareChange& change, TWVirtualFile& record, const std::string& device = {});
/// Gives a file the contents and the time of `version`. The former contents are retired.
void updateItem(ShareChange& change, TWVirtualFile& item, const TWVirtualFile& version,
                const std::string& device = {});
/// Moves and renames. The name must be free in the new parent; a folder may not enter itself.
void moveItem(ShareChange& change, TWVirtualFile& item, const std::string& parent, const std::string& name,
              const std::string& device = {});
/// The item takes a new tick and nothing else, so that every device hears of it again.
void touchItem(ShareChange& change, TWVirtualFile& item);
/// Brings a deleted folder back, empty, and the deleted folders around it; a name that is taken by now
/// becomes a free one. Nothing happens to a live folder and to the share's id.
void reviveFolder(ShareChange& change, const std::string& folder, const std::string& device);
/// Marks the item deleted; of a folder, everything in it first, deepest first, so that whoever applies the
/// changes one by one never has an item without its folder. What `spares` stays, a folder with everything in
/// it, and so do the folders around it. What stays takes a new tick, the folders after what is in them: a
/// device that claims a folder's tick has heard of all of it. The number of items marked; the item itself is
/// one of them if it is Deleted now.
int removeItem(ShareChange& change, TWVirtualFile& item,
               const std::function<bool(const TWVirtualFile&)>& spares = {});

}  // namespace tarnwell::service
