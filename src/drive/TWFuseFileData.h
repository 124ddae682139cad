#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "drive/Errno.h"
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
/// Threads: any; the handle's own lock guards its fields, the registry has another. Both are innermost:
/// nothing is called under them but the system.
class TWFuseFileData {
  public:
    /// `openProcess` -1: not known. Enters the handle into the registry.
    static std::shared_ptr<TWFuseFileData> create(int openFlags, pid_t openProcess, SharedString fileId);
    /// As close().
    ~TWFuseFileData();
    TWFuseFileData(const TWFuseFileData&) = delete;
    TWFuseFileData& operator=(const TWFuseFileData&) = delete;

    /// Every handle that is not closed, at this moment.
    [[nodiscard]] static std::vector<std::shared_ptr<TWFuseFileData>> openedFiles();

    /// Leaves the registry, lets the cache file go, forgets the file and the unsent burst. Idempotent.
    void close();

    [[nodiscard]] int openFlags() const { return openFlags_; }
    [[nodiscard]] pid_t openProcess() const { return openProcess_; }
    /// `InternalName` of the record; absent once closed.
    [[nodiscard]] SharedString fileId() const;
    /// -1 while the cache file is not open.
    [[nodiscard]] int fileDescriptor() const;
    [[nodiscard]] bool modified() const;
    [[nodiscard]] std::optional<Date> lastWrite() const;

    /// The cache file of the contents `version` (the record's `UploadName`) when this open holds it and that
    /// was made sure of a moment ago; null otherwise. Spares the hot path of reading every look at the disk.
    [[nodiscard]] CacheFilePtr freshCacheFile(const SharedString& version) const;
    /// The cache file at `path`, opened on first use with the access mode of this open and `extraFlags` (mode
    /// 0600). A descriptor whose file no longer stands at `path` (the contents were replaced as a whole) is
    /// exchanged. EBADF once closed; otherwise the error of open(2).
    ErrnoOr<CacheFilePtr> openCacheFile(const std::string& path, const SharedString& version,
                                        int extraFlags = 0);
    /// Adopts a cache file that the caller opened, for an open that creates.
    void setCacheFile(CacheFilePtr file);

    /// A write went through this open.
    void noteWrite(Date now);
    /// When the last write is more than `quiet` ago: clears the burst and returns the file's id, so that each
    /// burst is taken once. Otherwise absent.
    [[nodiscard]] SharedString takeQuietBurst(Date now, std::chrono::milliseconds quiet);

    /// Serialises the writes of this open. Taken before the store's lock, never while holding it.
    [[nodiscard]] std::mutex& writeMutex() { return writeMutex_; }

  private:
    TWFuseFileData(int openFlags, pid_t openProcess, SharedString fileId);

    // Constant after construction.
    const int openFlags_;
    const pid_t openProcess_;

    std::mutex writeMutex_;

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    bool closed_ = false;
    CacheFilePtr file_;
    SharedString version_;  // of file_
    std::chrono::steady_clock::time_point verified_{};
    SharedString fileId_;
    bool modified_ = false;
    std::optional<Date> lastWrite_;
};

using TWFuseFileDataPtr = std::shared_ptr<TWFuseFileData>;

}  // namespace tarnwell
