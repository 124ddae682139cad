#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "service/MetadataStore.h"

/// What may happen to the items of a share, in terms of ShareChange: the rules that no storage engine needs
/// to know. Each is part of the transaction of its caller; refusals are ServiceErrors.
namespace tarnwell::service {

/// The live item at "a/b/c" (slashes at the ends do not count), null when there is none.
TWVirtualFilePtr itemAtPath(ShareChange& change, std::string_view path);
/// A folder's internal name, or the share's id for the root "". Throws when the path leads to no folder.
std::string folderAtPath(ShareChange& change, std::string_view path);

/// `name` when no live sibling has it, else the first free "name (2).ext". `self`, if given, does not count
/// as one.
std::string availableName(ShareChange& change, std::string_view parent, std::string_view name, bool isFile,
                          std::string_view self = {});

struct SplitPath {
    std::string folder;  ///< empty: the root
    std::string name;    ///< the last component
};
SplitPath splitPath(std::string_view path);

/// Gives the record its ticks as a new item and stores it.
void insertItem(ShareChange& change, TWVirtualFile& record);
/// Gives a file the contents and the time of `version`. The former contents are retired.
void updateItem(ShareChange& change, TWVirtualFile& item, const TWVirtualFile& version);
/// Moves and renames. The name must be free in the new parent; a folder may not enter itself.
void moveItem(ShareChange& change, TWVirtualFile& item, const std::string& parent, const std::string& name);
/// Marks the item deleted; of a folder, everything in it first, deepest first, so that whoever applies the
/// changes one by one never has an item without its folder. The number of items marked.
int removeItem(ShareChange& change, TWVirtualFile& item);

}  // namespace tarnwell::service
