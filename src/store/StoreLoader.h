#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "store/ChangeReplay.h"
#include "store/ManagedShare.h"
#include "store/StorePersistence.h"
#include "store/TWVirtualFile.h"
#include "util/PropertyList.h"

namespace tarnwell {

class StoreIndex;

/// Fills an empty store from its files. What it reads is not trusted: it may be cut short, from an older
/// program, or made up.
///
/// A share that lost records begins from the first tick again, so that a catch-up brings them back. Damaged
/// files are set aside; files that merely cannot be read now stay where they are until a save needs their
/// place. Used under the saver's lock and the store's.
class StoreLoader {
  public:
    /// Both take note in `saved` of what stands on disk as it is in memory.
    StoreLoader(TWMetadataStorage& store, StoreIndex& index, JournalTexts* journal, SavedStore& saved,
                ChangeRecorder& changes);

    void loadNewDatabase();
    /// The single file of older programs. False when it cannot be read: nothing is loaded then.
    bool loadOldDatabase(const std::string& path);

    /// The change log had something to add to the files.
    [[nodiscard]] bool replayed() const { return !replay_.empty(); }
    /// Records or entries may be missing that were saved or logged before.
    [[nodiscard]] bool damaged() const { return damaged_ || replay_.damaged(); }
    [[nodiscard]] const ChangeReplay::Journal& journal() const { return replayedJournal_; }
    /// Files that are marked as changed by the user.
    [[nodiscard]] std::vector<TWVirtualFilePtr> changedFiles() const;

  private:
    enum class FileState { kAbsent, kUnread, kDamaged, kRead };
    /// A file whose top level is a dictionary with that list. Sets it aside when it is damaged.
    FileState readDictionary(const std::string& path, std::string_view listKey,
                             PropertyList::Dictionary& dictionary);

    void loadShares(const PropertyList* list);
    void loadFilesOfShares();
    struct ShareFile;
    static ShareFile readShareFile(const std::string& path);
    void takeShareFile(const ManagedSharePtr& share, const ShareFile& read);
    void loadFiles(const PropertyList* list);
    void readJournalFile();
    void loadJournal();
    void loadGlobalLoginResponce(const PropertyList* text);
    void loadFinished();

    /// Enters a record. `ofShare` null: its share is the one that it names.
    void loadFile(TWVirtualFilePtr file, const ManagedShare* ofShare);
    /// Older programs kept extended attributes in the record.
    void moveExtendedAttributes(const TWVirtualFile& file, const PropertyList* attributes) const;
    void setAside(const std::string& path, std::string_view why);
    void warnOfFile(std::string_view text, const TWVirtualFile& file);

    TWMetadataStorage& store_;
    StoreIndex& index_;
    JournalTexts* const journal_;
    SavedStore& saved_;
    ChangeReplay replay_;
    std::vector<std::string> journalTexts_;  ///< of the file
    ChangeReplay::Journal replayedJournal_;
    std::size_t warnings_ = 0;
    bool damaged_ = false;
};

}  // namespace tarnwell
