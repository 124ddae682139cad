#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "store/TWVirtualFile.h"

namespace tarnwell {

class StoreIndex;
class TWMetadataStorage;

/// What only this machine has: found before something is removed as a whole (a share, the cache), so that it
/// is put aside or the removal is refused.
///
/// Contents are unsent when the record is marked, an entry brings them, the cache file says so
/// (ContentVersion), or the file's name takes no part in synchronisation.
///
/// Threads: any; takes the store's lock itself.
class UnsentContents {
  public:
    /// Both outlive this.
    UnsentContents(TWMetadataStorage& store, const StoreIndex& index) : store_(store), index_(index) {}

    struct Count {
        std::int64_t changes = 0;     ///< entries, and files that are marked and have none yet
        std::int64_t localFiles = 0;  ///< files with contents that are never sent
        [[nodiscard]] bool empty() const { return changes == 0 && localFiles == 0; }
    };
    /// Looks at every record.
    [[nodiscard]] Count count() const;

    /// Gives the unsent contents of a share a second name in the folder of kept files. Blocks on the disk for
    /// each that is not there yet: call it without the lock first, then with it for what came meanwhile.
    /// 0 or errno: not all are kept.
    [[nodiscard]] int keepOfShare(std::string_view shareId, std::string_view reason) const;

  private:
    struct Item {
        TWVirtualFile file;  ///< a copy
        std::string bytesPath;
    };
    [[nodiscard]] std::vector<Item> ofShare(std::string_view shareId) const;
    [[nodiscard]] bool isUnsent(const TWVirtualFile& file) const;
    void addRecords(std::string_view shareId, std::vector<Item>& items) const;
    void addEntries(std::string_view shareId, std::vector<Item>& items) const;
    void addUnknown(std::string_view shareId, std::vector<Item>& items) const;

    TWMetadataStorage& store_;
    const StoreIndex& index_;
};

}  // namespace tarnwell
