#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "store/ContentVersion.h"
#include "store/ManagedShare.h"
#include "store/TWVirtualFile.h"

namespace tarnwell {

class TWMetadataStorage;

/// Compares the cache with the records after the store was loaded and the change log was replayed, and
/// settles what the end of the last run left between the two: bytes of another version go, edits that the
/// journal does not know are journalled, unsent bytes that no record stands for go to the kept files.
///
/// Walks the cache folders: once per file an attribute and a look at the record. Needed only when the last
/// run ended unexpectedly, when records were lost, and once for a cache from before files carried their
/// version (isDue()).
///
/// Used under the store's lock, before LocalChangeJournal::recover(), which journals what is marked here.
class CacheRecovery {
  public:
    explicit CacheRecovery(TWMetadataStorage& store);

    /// Also after a clean end: a cache whose files carry no versions yet, or a walk that could not settle
    /// all.
    [[nodiscard]] bool isDue() const { return state_ != State::kDone; }
    /// `damaged`: records or entries may be missing that were saved or logged before.
    void run(bool damaged);

    /// What is known of a cache file and its record.
    struct Case {
        std::optional<ContentVersion> version;
        std::int64_t size = 0;
        SharedString uploadName;  ///< of the record, as all below
        std::int64_t recordSize = 0;
        bool marked = false;        ///< `LocallyUpdated`
        bool takesNoPart = false;   ///< by its name
        bool onServer = true;       ///< it has an `UploadUrl`
        bool pending = false;       ///< these contents wait to be sent
        bool pendingOther = false;  ///< contents wait to be sent, these or others
        bool damaged = false;       ///< as run() was told
        bool migrating = false;     ///< the cache is from before files carried their version
    };
    enum class Action {
        kLeave,
        kDrop,         ///< they are nobody's: removed
        kStampClean,   ///< they are the record's version
        kStampUnsent,  ///< the same, and the service may not have it
        kJournal,      ///< they are a newer version: marked, so that the journal takes it
        kUnmark,       ///< the user's change never began: removed, and the record is the service's
        kKeep,         ///< unsent bytes that the record does not stand for
    };
    /// In doubt the user's bytes are sent again or kept; twice is harmless.
    [[nodiscard]] static Action decide(const Case& file);

  private:
    enum class State { kNone, kAgain, kDone };

    void restoreRecords();
    void walk(const std::string& folder, const ManagedShare& share);
    void settle(const std::string& path, const TWVirtualFilePtr& file, std::int64_t size);
    void settleOrphan(const std::string& path, std::string_view id, const ManagedShare& share,
                      std::int64_t size);
    void apply(Action action, const std::string& path, TWVirtualFile& file);
    void writeState(State state);

    TWMetadataStorage& store_;
    const std::string statePath_;
    State state_ = State::kNone;
    bool damaged_ = false;
    bool again_ = false;  ///< unsent bytes wait for records that a catch-up brings
    std::size_t files_ = 0, dropped_ = 0, journalled_ = 0, kept_ = 0;
};

}  // namespace tarnwell
