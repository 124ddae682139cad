#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "store/ManagedShare.h"
#include "store/StoreFiles.h"
#include "store/StorePersistence.h"

namespace tarnwell {

class ChangeRecorder;
class StoreIndex;

/// One save, in the order that StorePersistence describes. Used under the saver's lock; takes the store's
/// lock for moments.
class StoreSaver {
  public:
    /// `index` and `changes` are guarded by the store's lock, `saved` by the saver's. `givenUp` is asked
    /// often, with no lock; true ends the save.
    StoreSaver(TWMetadataStorage& store, const StoreIndex& index, const JournalTexts* journal,
               SavedStore& saved, ChangeRecorder& changes, std::function<bool()> givenUp);

    /// False when not all that changed is on disk now.
    bool save();

  private:
    struct Share {
        ManagedShare share;  ///< a copy
        std::uint64_t generation = 0;
        std::size_t files = 0;  ///< records at the beginning
    };

    bool saveAll();
    void takeShares();
    /// The three steps. False: the later ones must not be done.
    bool writeShareFiles();
    bool replaceJournal();
    bool replaceShareFiles();
    bool replaceShares();
    int writeRecords(const Share& share, ReplacementFile& file) const;
    [[nodiscard]] std::string sharesList() const;
    bool replaceList(const std::string& path, const std::string& bytes, std::string& savedHash);
    void forgetShares();
    bool failed(const std::string& path, int error);

    TWMetadataStorage& store_;
    const StoreIndex& index_;
    const JournalTexts* const journal_;
    SavedStore& saved_;
    ChangeRecorder& changes_;
    const std::function<bool()> givenUp_;
    const std::string folder_;

    std::uint64_t changesBefore_ = 0;  ///< of the change log: made needless by this save
    std::vector<Share> shares_;
    std::string loginResponce_;
    struct Written {
        const Share* share;
        ReplacementFile file;
    };
    std::vector<Written> written_;
    std::size_t files_ = 0;
    std::size_t entries_ = 0;
    bool whole_ = true;
};

}  // namespace tarnwell
