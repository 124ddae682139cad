#pragma once

#include <optional>
#include <string>

namespace tarnwell {

/// What ContentVersion stores with a cache file, for file systems that keep no extended attributes: one small
/// file per inode in a folder of the cache root (docs/formats/store.md). Like an attribute it follows renames
/// and exchanges; a new file that gets the inode of an old one is told from it by its time of birth and, but
/// for an edited one, by its size and time of modification. It is not synced: what a loss of power takes
/// proves nothing, and is fetched again.
///
/// Threads: any. use() once, before the first cache file is looked at.
class VersionFiles {
  public:
    /// Nothing is made there before it is needed.
    static void use(std::string folder);

    /// `bindsContents`: the text is true of these very bytes only. 0 or errno; ENOTSUP without a folder.
    [[nodiscard]] static int set(int descriptor, const std::string& text, bool bindsContents);
    [[nodiscard]] static std::optional<std::string> of(int descriptor);
};

}  // namespace tarnwell
