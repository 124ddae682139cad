#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tarnwell {

class CacheLayout;
class JournalTexts;
class StoreLoader;
class TWMetadataStorage;

/// What of the store stands on disk. Guarded by the lock of the saver.
struct SavedStore {
    struct Share {
        std::optional<std::uint64_t> generation;  ///< of the records in its file; none: it must be written
        std::int32_t tick = -1;                   ///< up to which that file has the share's changes
        bool unread = false;                      ///< a file that could not be read stands in its place
    };
    std::map<std::string, Share, std::less<>> shares;  ///< by ShareId
    std::string sharesHash, journalHash;               ///< of the bytes that were written last; empty: none
    bool journalUnread = true;  ///< a journal file may stand there that was not taken over
};

/// Brings the store over a restart: one file for the shares and the login reply, one for the journal, one per
/// share for its records, all in the cache root (docs/formats/store.md).
///
/// A save holds the store's lock for a few records at a time and never while it writes: the drive does not
/// wait for it. What it writes is therefore no picture of one moment; this order keeps it safe:
/// 1. A share is saved with the tick that it had before the walk over its records began. Records may be newer
///    than that: the next catch-up brings such changes again, which changes nothing.
/// 2. The new share files are written and synced beside the old ones, then the journal is taken and replaced,
///    and only then the share files: a record never shows a local change that the journal does not know.
/// 3. "shares.db" with the ticks comes last.
/// A save that ends half-way, by a crash or a full disk, leaves every file whole, old or new.
///
/// What the user changes between two saves stands in the change log (ChangeRecorder), which a load replays on
/// top of the files, whichever of them a save that was cut off left. A save that succeeds drops it.
///
/// Threads: any; save() and clear() block on the disk. One lock of its own (the saver's) makes them one at a
/// time; it comes before the store's lock, so nobody calls save(), load() or clear() with that one held.
class StorePersistence {
  public:
    /// `store` outlives this.
    explicit StorePersistence(TWMetadataStorage& store);
    ~StorePersistence();
    StorePersistence(const StorePersistence&) = delete;
    StorePersistence& operator=(const StorePersistence&) = delete;

    /// Wiring, before the first load or save. Null: the store has no journal.
    void setJournal(JournalTexts* journal);

    /// Fills the store from disk. Files that are damaged are set aside, what can be read of them is taken,
    /// and the shares that lost records begin from the first tick again.
    void load();
    /// Writes what changed since the last save. Durable on return; false when something could not be written:
    /// the former file is whole then, and the next save tries again.
    bool save();
    /// As save(), but where one is running it leaves the work to that one. May be called with the store's
    /// lock held.
    void saveOrJoin();
    /// Makes what was appended to the change log durable: every change whose hold of the store's lock ended
    /// before the call. Blocks on the disk, so nobody calls it with the store's lock; callers share one sync.
    /// False when the disk refused, or refused the log before and no save has made up for it.
    bool syncChanges() { return flushChanges() == 0; }
    /// As syncChanges(); 0 or errno.
    int flushChanges();
    /// The change log cannot be written: the next request for a delayed save is not to wait. With the store's
    /// lock.
    void saveAtOnce();
    /// Whether saveAtOnce() was called since the last time.
    bool takeHaste() { return haste_.exchange(false); }
    /// Empties the store and deletes its files. A save that is running gives up.
    void clear();

    /// The file of a share's records.
    [[nodiscard]] static std::string pathForShare(const CacheLayout& layout, std::string_view shareId);

  private:
    void loadDatabase(StoreLoader& loader);
    bool saveLocked();

    TWMetadataStorage& store_;
    JournalTexts* journal_ = nullptr;

    std::mutex saver_;
    SavedStore saved_;                    // guarded by saver_
    std::atomic<bool> saveAgain_{false};  ///< somebody relies on the running save to run once more
    std::atomic<int> clearing_{0};        ///< above 0: saves give up
    std::atomic<bool> haste_{false};      ///< the next delayed save is due at once
};

}  // namespace tarnwell
