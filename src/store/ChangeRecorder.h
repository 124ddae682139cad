#pragma once

#include <atomic>
#include <boost/unordered/unordered_flat_set.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "store/ChangeLog.h"
#include "store/ChangePieces.h"
#include "store/StoreIndex.h"

namespace tarnwell {

class JournalTexts;

/// Keeps what the user changes between two saves: notes which records, shares and journal entries changed
/// while the store's lock is held, and appends them to the change log, in their newest form and in one piece,
/// when a LocalChange ends, and before the lock goes.
///
/// What is logged:
/// - every change of the journal;
/// - records and shares that change within a LocalChange;
/// - whatever stands in the log already, whoever changes it, until a save has dropped the log. So the log as
/// a
///   whole, on top of any saved state, older or newer, gives the newest form of what it names.
/// All else is what the service said, and the service says it again.
///
/// A piece that cannot be written is kept for the next try, a second later or with a later change; the owner
/// is told once, and has the store saved. What was to be done after it (deletions, afterAppend()) waits, too,
/// until its piece is appended or a save has all that it says. admitChange() refuses new changes meanwhile.
///
/// Guarded by the store's lock, sync() excepted.
class ChangeRecorder {
  public:
    /// `index` outlives this. `onFailure`: called with the store's lock; must not block.
    ChangeRecorder(std::string cacheRoot, const StoreIndex& index, std::function<void()> onFailure);
    ~ChangeRecorder();
    ChangeRecorder(const ChangeRecorder&) = delete;
    ChangeRecorder& operator=(const ChangeRecorder&) = delete;
    /// Null: the store has no journal.
    void setJournal(const JournalTexts* journal) { journal_ = journal; }

    /// LocalChange: what is noted meanwhile is logged, at the latest when the outermost one ends.
    void beginChange() { ++changes_; }
    void endChange() noexcept {
        if (--changes_ == 0) endOfHold();
    }

    void noteFile(const SharedString& id) {
        if (wants(files_, id.view())) pend(pending_.files, id);
    }
    void noteShare(const std::string& id) {
        if (wants(shares_, id)) pend(pending_.shares, id);
    }
    void noteEntry(std::uint64_t order) {
        if (!suspended_) pend(pending_.entries, order);
    }
    /// Appends what is noted so far: what is done next must not be on the disk before it.
    /// 0 or errno.
    int appendNow();
    /// 0 when the log can take another change; else the error that would be met: ENOSPC where the disk has no
    /// room for it, or the error of the last append until one succeeds.
    [[nodiscard]] int admitChange();
    /// Pairs of files of the cache trade places, or one of a pair gets the name of the other: does it by
    /// `exchange`, all or none. A run that ends before the changes that belong to it are appended is undone
    /// by the next one; so those changes are complete before the next exchange or appendNow(). False, with
    /// nothing done, when the log cannot take the intent.
    bool exchangeFiles(const std::vector<std::pair<std::string, std::string>>& pairs,
                       bool (*exchange)(const std::string&, const std::string&));
    /// Deletes a file of the cache once the changes of this hold of the lock are appended: a record that is
    /// there has its bytes. Follows the file through exchangeFiles().
    void deleteLater(const std::string& path);
    /// Calls `action`, with the store's lock, once the changes of this hold of the lock are appended: what
    /// must not be on the disk before them. It must be short. Dropped by clear().
    void afterAppend(std::function<void()> action);
    /// The lock goes.
    void endOfHold() noexcept {
        if (busy_) finishHold();
    }

    // A save. Each step under one hold of the lock.
    /// What changes from now on is newer than the save. Returns what endSave() wants.
    std::uint64_t beginSave();
    /// The journal is about to be written so; the log, which may need it, must be synced before it is.
    void journalTaken(JournalBase base);
    /// The journal's file is what was told last.
    void journalReplaced();
    /// All that changed before beginSave() is saved, or not all of it.
    void endSave(std::uint64_t number);
    void abandonSave();

    /// While the store is filled from its files nothing is noted.
    void suspend() { suspended_ = true; }
    /// What is in the log stays there until a save. `base`: what stands in the journal's file.
    void resume(JournalBase base);
    void noteLogged(const SharedString& fileId) { files_.recent.insert(fileId); }
    void noteLogged(const std::string& shareId) { shares_.recent.insert(shareId); }

    /// Forgets all and deletes the log.
    void clear();

    /// Any thread, without the store's lock. 0, or errno: something that was noted may not last.
    int sync();

  private:
    using Ids = boost::unordered_flat_set<SharedString, StoreIndex::TextHash, StoreIndex::TextEqual>;
    /// What the log names: in the segments that a running save makes needless, and in those after.
    struct Logged {
        Ids older, recent;
        [[nodiscard]] bool contains(std::string_view id) const {
            return recent.contains(id) || older.contains(id);
        }
        [[nodiscard]] bool empty() const { return recent.empty() && older.empty(); }
    };
    struct Pending {
        Ids files, shares;
        std::set<std::uint64_t> entries;
        [[nodiscard]] bool empty() const { return files.empty() && shares.empty() && entries.empty(); }
    };
    struct Deletion {
        std::string path;
        std::uint64_t inode;
    };
    /// What waits for an append.
    struct Waiting {
        std::vector<Deletion> deletions;
        std::vector<std::function<void()>> actions;
    };

    [[nodiscard]] bool wants(const Logged& logged, std::string_view id) const {
        return !suspended_ && (changes_ > 0 || (!logged.empty() && logged.contains(id)));
    }
    template <class Set, class Id>
    void pend(Set& set, const Id& id) {
        set.insert(typename Set::value_type(id));
        busy_ = true;
    }

    void finishHold() noexcept;
    void doWaiting(Waiting waiting);
    /// 0 or errno.
    int append(const std::vector<CacheExchange>& exchanges);
    void write(PieceWriter& piece, Pending& pending) const;
    [[nodiscard]] std::string opening() const;
    [[nodiscard]] std::string belowRoot(const std::string& path) const;

    const std::string root_;
    const StoreIndex& index_;
    const std::function<void()> onFailure_;
    const JournalTexts* journal_ = nullptr;
    ChangeLog log_;

    int changes_ = 0;
    bool suspended_ = false;
    bool busy_ = false;  ///< something is to be done when the lock goes
    Pending pending_;
    Pending underSave_;  ///< could not be appended before the running save began
    Waiting waiting_, waitingForSave_;
    Logged files_, shares_;
    std::vector<JournalBase> bases_;  ///< what the journal's file may be; one, while no save runs
    bool hasChanges_ = false;         ///< appended since the last save began
    std::optional<std::chrono::steady_clock::time_point> failed_;  ///< the last try
    int failure_ = 0;                                              ///< its errno
    std::atomic<int> incomplete_{0};  ///< errno; something is pending that sync() cannot help
};

}  // namespace tarnwell
