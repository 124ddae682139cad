#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "store/ChangePieces.h"
#include "store/JournalTexts.h"

namespace tarnwell {

class ChangeRecorder;
class StoreIndex;
class TWMetadataStorage;

/// Puts the change log on top of what was loaded from the saved files. The files may be from before or after
/// any of the changes: of whatever the log names its last word counts. Used under the store's lock, before
/// paths are formed.
class ChangeReplay final : private PieceVisitor {
  public:
    ChangeReplay(TWMetadataStorage& store, StoreIndex& index, ChangeRecorder& changes);

    /// Applies records and shares, and undoes an exchange of cache files that was cut off.
    void run();
    /// Nothing was logged.
    [[nodiscard]] bool empty() const { return pieces_ == 0; }
    /// Not all of the log could be read.
    [[nodiscard]] bool damaged() const { return damaged_; }

    struct Journal {
        std::vector<JournalText> entries;
        JournalBase base{hashOfJournal({}), {}};  ///< of the file, which may not be there
        std::vector<std::uint64_t> dropped;       ///< entries of the file that the log knows better
    };
    /// The journal, from the texts of its file.
    [[nodiscard]] Journal journal(const std::vector<std::string>& texts) const;

  private:
    void journalBase(JournalBase base) override;
    void share(const std::string& json) override;
    void shareGone(const std::string& id) override;
    void file(TWVirtualFilePtr file) override;
    void fileGone(const std::string& id) override;
    void entry(std::uint64_t order, std::string json) override;
    void entryGone(std::uint64_t order) override;
    void exchange(CacheExchange exchange) override;

    void beginChange();
    void undoExchanges();

    TWMetadataStorage& store_;
    StoreIndex& index_;
    ChangeRecorder& changes_;
    std::size_t pieces_ = 0;
    std::vector<JournalBase> bases_;
    std::map<std::uint64_t, std::optional<std::string>> entries_;  ///< none: it went
    std::set<std::string> known_;                                  ///< every entry that was logged
    std::vector<CacheExchange> exchanges_;                         ///< of the piece that was read last
    bool inPiece_ = false;
    bool damaged_ = false;
};

}  // namespace tarnwell
