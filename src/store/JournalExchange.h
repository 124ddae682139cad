#pragma once

#include <string>

#include "store/LocalJournal.h"

namespace tarnwell {

class TWMetadataStorage;

/// What an exchange of two journal entries does to the entries, to the live records and to their bytes in the
/// cache. An exchange happens as a whole or not at all.
///
/// Open files follow: a descriptor of a cache file keeps its bytes, and the drive's observer is told which
/// identity they have now. REQUIRES LOCK throughout, the store's.
class JournalExchange {
  public:
    explicit JournalExchange(TWMetadataStorage& store) : store_(store) {}

    /// Swaps places and contents of two items that both live; each keeps its identity. `a` is a move or an
    /// update after a move, and ends as an Update at the place that it left; `b` is a Create. False, with
    /// nothing changed, when the contents of `a` are not here or the items are not where the entries say.
    bool exchangeJournalEntry(LocalJournal& a, LocalJournal& b);
    /// `b`, the deletion of a file, becomes an Update of it: the file comes back in the place and with the
    /// contents of `a`, whose own record goes. Nothing happens for folders. False when nothing was changed.
    bool placeJournalItem(LocalJournal& a, LocalJournal& overPrevious);
    /// Swaps two files; one that is alone is renamed to the other's path. False after a failure, with nothing
    /// changed.
    static bool exchangeFileContents(const std::string& a, const std::string& with);

  private:
    bool copyJournalDataFrom(LocalJournal& from, LocalJournal& to);
    static void copySomeFields(const TWVirtualFile& from, TWVirtualFile& toFile);
    static void swapSomeFields(TWVirtualFile& a, TWVirtualFile& b);
    [[nodiscard]] TWVirtualFilePtr liveItem(const LocalJournal& entry) const;

    TWMetadataStorage& store_;
};

}  // namespace tarnwell
