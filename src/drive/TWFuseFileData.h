#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "drive/Errno.h"
#include "store/TWVirtualFile.h"
#include "util/Date.h"
#include "util/SharedString.h"

namespace tarnwell {

/// An open descriptor of a cache file, closed with its last user: whoever reads holds a reference, so a close
/// of the handle never takes the descriptor away under a read, nor gives its number to somebody else.
class CacheFile {
  public:
    /// Takes over `descriptor`.
    CacheFile(int descriptor, dev_t device, ino_t inode)
        : descriptor_(descriptor), device_(device), inode_(inode) {}
    ~CacheFile();
    CacheFile(const CacheFile&) = delete;
    CacheFile& operator=(const CacheFile&) = delete;

    [[nodiscard]] int descriptor() const { return descriptor_; }
    [[nodiscard]] bool isSameFile(dev_t device, ino_t inode) const {
        return device == device_ && inode == inode_;
    }
    /// Whether it has that name: bytes that are written to a file without one are lost with its last user.
    [[nodiscard]] bool isAt(const std::string& path) const;

  private:
    const int descriptor_;
    const dev_t device_;
    const ino_t inode_;
};

using CacheFilePtr = std::shared_ptr<const CacheFile>;

/// One open of one drive file: what the file-system layer hands back on every read, write and release of that
/// open.
///
/// Every live handle stands in the class-level registry `openedFiles` until it is closed; the quiet-period
/// check, release and the exit question walk over snapshots of it.
///
/// A handle belongs to bytes, not to a name: when its file gets another identity, or trades places with
/// another, `fileId` follows. When the file is removed or replaced under an open, the handle is *detached*:
/// it goes on with the old bytes, which nobody else sees, and nothing that is done through it is journalled.
///
/// A handle that has begun to read or write is *pinned* to the version of the contents that it found: reads
/// never mix two versions. Edits of the same item by other handles are seen: they are made in the same cache
/// file, or in one of the same version. Contents that come from the service do not replace what a pinned
/// handle holds.
///
/// A *burst* is what was written through one open since it was last handed to the journal. It is begun before
/// the first byte is written and ends, under the store's lock, in the step that makes the journal entry.
///
/// Threads: any; the handle's own lock guards its fields, the registry has another. Both are innermost:
/// nothing is called under them but the system.
class TWFuseFileData : public std::enable_shared_from_this<TWFuseFileData> {
  public:
    /// `openProcess` -1: not known. Enters the handle into the registry. To find every change of identity,
    /// the caller holds the store's lock from the look-up of the file to here.
    static std::shared_ptr<TWFuseFileData> create(int openFlags, pid_t openProcess, SharedString fileId);
    /// As close().
    ~TWFuseFileData();
    TWFuseFileData(const TWFuseFileData&) = delete;
    TWFuseFileData& operator=(const TWFuseFileData&) = delete;

    /// Every handle that is not closed, at this moment.
    [[nodiscard]] static std::vector<std::shared_ptr<TWFuseFileData>> openedFiles();
    /// Those of one file.
    [[nodiscard]] static std::vector<std::shared_ptr<TWFuseFileData>> openedFiles(std::string_view fileId);
    /// Whether an open of the file, `except` aside, has a burst.
    [[nodiscard]] static bool isWritten(std::string_view fileId, const TWFuseFileData* except);

    /// As DriveObserver says, for every handle. What was open as `to` before is detached: that item is gone.
    static void identityChanged(std::string_view from, std::string_view to);
    static void identitiesExchanged(std::string_view a, std::string_view b);
    /// As DriveObserver says: handles that are pinned to `from` are pinned to `to`. Idempotent.
    static void contentsRenamed(std::string_view id, std::string_view from, std::string_view to);
    [[nodiscard]] static bool isOpen(std::string_view fileId);

    /// Leaves the registry, lets the cache file go, forgets the file and the unsent burst. Idempotent.
    void close();

    [[nodiscard]] int openFlags() const { return openFlags_; }
    [[nodiscard]] pid_t openProcess() const { return openProcess_; }
    /// `InternalName` of the record; absent once closed or detached.
    [[nodiscard]] SharedString fileId() const;
    /// -1 while the cache file is not open.
    [[nodiscard]] int fileDescriptor() const;
    [[nodiscard]] bool modified() const;
    [[nodiscard]] std::optional<Date> lastWrite() const;

    /// The cache file of the contents `version` (the record's `UploadName`) when this open holds it and that
    /// was made sure of a moment ago; null otherwise. Spares the hot path of reading every look at the disk.
    [[nodiscard]] CacheFilePtr freshCacheFile(const SharedString& version) const;
    /// The cache file at `path`, opened on first use with the access mode of this open and `extraFlags` (mode
    /// 0600). A descriptor whose file no longer has that name is exchanged: the caller has made sure that the
    /// contents at `path` are of the version that this open uses (usesVersion()). EBADF once closed;
    /// otherwise the error of open(2). The caller holds the store's lock, so that `path` is the one of
    /// `fileId`.
    ErrnoOr<CacheFilePtr> openCacheFile(const std::string& path, const SharedString& version,
                                        int extraFlags = 0);
    /// Pins the handle to the contents of `record`, unless it is pinned. False: it is, to other contents. The
    /// record is copied: it says by which name and size the contents can be fetched, and on which version an
    /// edit is based.
    bool pin(const TWVirtualFile& record);
    /// As pin(), for a handle whose cache file is that of the record: its contents are the record's, whatever
    /// they were named before.
    void repin(const TWVirtualFile& record);
    /// Another cache file holds the contents of the item now: handles look again before they read.
    static void cacheFileChanged(std::string_view fileId);
    /// The record as of pin(); null before.
    [[nodiscard]] TWVirtualFilePtr pinned() const;
    /// Whether the contents of that name are those that this open may use.
    [[nodiscard]] bool usesVersion(const SharedString& version) const;
    /// Adopts a cache file that the caller opened, for an open that creates.
    void setCacheFile(CacheFilePtr file);
    /// What it holds, current or not; null when nothing.
    [[nodiscard]] CacheFilePtr cacheFile() const;

    /// Detaches the handle from `record`, which is about to leave the store or to get other bytes. Its cache
    /// file is at `path` (empty: it is not here); a handle that has not opened that yet does so now. The
    /// caller holds the store's lock.
    void detach(TWVirtualFilePtr record, const std::string& path);
    [[nodiscard]] bool isDetached() const;
    /// Another open of the file that this handle was detached with.
    [[nodiscard]] ErrnoOr<std::shared_ptr<TWFuseFileData>> reopen(int openFlags, pid_t openProcess) const;
    /// The record that the handle was detached from; its bytes may be at the service still.
    [[nodiscard]] TWVirtualFilePtr formerRecord() const;

    /// This open made the file: its mark `LocallyUpdated` goes with this open's end, also without a write.
    void noteCreation();
    [[nodiscard]] bool created() const;
    /// Bytes are about to be written, and then were, or not: both calls pair up. Between them the burst
    /// cannot end.
    void beginWrite(Date now);
    void endWrite(Date now);
    /// Whether the last write is more than `quiet` ago. True once per quiet time; takeQuietBurst() follows.
    [[nodiscard]] bool claimQuietBurst(Date now, std::chrono::milliseconds quiet);
    /// Ends the burst, unless it went on meanwhile. The caller holds the store's lock.
    [[nodiscard]] bool takeQuietBurst(Date now, std::chrono::milliseconds quiet);
    /// The attributes of a file moved on. True when an open has a burst: its end, or the close, brings them
    /// into the change log and the journal. The caller holds the store's lock.
    [[nodiscard]] static bool joinBurst(std::string_view fileId);
    /// Writes moved the record on, and that is not in the change log yet: true once.
    [[nodiscard]] bool takeProgress();
    void noteProgress();
    /// Nothing of the burst is left. The caller holds the store's lock.
    void dropBurst();

    /// The cache file was stamped as edited and that may not last yet: existing blocks are not overwritten
    /// before stampSynced(). What another open of the file has not synced counts.
    void noteStamp(bool isNew);
    [[nodiscard]] bool stampUnsynced() const;
    void stampSynced();

    /// Serialises the writes of this open. Taken before the store's lock, never while holding it.
    [[nodiscard]] std::mutex& writeMutex() { return writeMutex_; }

  private:
    TWFuseFileData(int openFlags, pid_t openProcess, SharedString fileId);
    void changeFileId(std::string_view from, const SharedString& to);

    // Constant after construction.
    const int openFlags_;
    const pid_t openProcess_;

    std::mutex writeMutex_;

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    bool closed_ = false;
    CacheFilePtr file_;
    TWVirtualFilePtr pinned_;  // never changed, only exchanged
    SharedString version_;     // of file_
    std::chrono::steady_clock::time_point verified_{};
    SharedString fileId_;
    bool detached_ = false;
    TWVirtualFilePtr formerRecord_;
    bool created_ = false;
    bool modified_ = false;
    bool claimed_ = false;   ///< somebody is about to take the quiet burst
    bool progress_ = false;  ///< not in the change log yet
    bool stampUnsynced_ = false;
    int writing_ = 0;
    std::optional<Date> lastWrite_;
};

using TWFuseFileDataPtr = std::shared_ptr<TWFuseFileData>;

}  // namespace tarnwell
