#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell {

/// A log of pieces in the cache root, "changes-N.log": what is appended survives the end of the process at
/// once and a loss of power after sync(). Knows nothing of what the pieces mean.
///
/// It is written in segments, so that a save can let go of what it made needless while new pieces come in.
/// Segment files are created on first append. The first piece is the owner's header. A piece is written by
/// one write and carries its checksum (docs/formats/store.md); a segment is read up to the first one that is
/// damaged.
///
/// Disk blocks are reserved ahead of what is written, in the open segment and in an empty file "log.reserve"
/// that becomes the next one: a disk that runs full is noticed by reserve(), before a change is begun, and
/// what was begun can still be appended. A file system that cannot reserve is asked for its free space
/// instead.
///
/// Threads: all but sync() under the store's lock. sync() runs on any thread without it; several callers
/// share one.
class ChangeLog {
  public:
    /// Makes the piece that a new segment opens with.
    using Opening = std::function<std::string()>;

    ChangeLog(std::string folder, Opening opening);
    ~ChangeLog();
    ChangeLog(const ChangeLog&) = delete;
    ChangeLog& operator=(const ChangeLog&) = delete;

    /// 0, or errno: nothing is kept of the piece then.
    int append(std::string_view piece);
    /// Makes sure of room for pieces of `bytes` in all. 0, or errno (ENOSPC on a full disk).
    int reserve(std::size_t bytes);
    /// The next piece begins a new segment; false when the disk has no room for one. `number` is the smallest
    /// one that the next piece can be in: removeBefore() with it removes nothing that is appended from now
    /// on.
    bool rotate(std::uint64_t& number);
    /// Removes the segments with smaller numbers.
    void removeBefore(std::uint64_t number);
    /// Removes all segments, of earlier runs too.
    void clear();
    /// As clear(), the reserve too: from the folder of a store that is not in use.
    static void removeFrom(const std::string& folder);
    /// No segment is on the disk.
    [[nodiscard]] bool empty();
    /// Blocks on the disk. 0, or errno: what was appended may not last.
    int sync();

    /// Hands out the pieces of all segments, oldest first. `damaged` gets the name of a segment that ends in
    /// something else than whole pieces, and what is wrong.
    static void read(const std::string& folder, const std::function<void(std::string_view)>& each,
                     const std::function<void(const std::string&, std::string_view)>& damaged);

  private:
    struct Segment;

    void findSegments();
    int beginSegment();
    int write(std::string_view bytes);
    int makeSpare();
    int reserveUpTo(Segment& segment, std::int64_t end, std::int64_t atLeast);
    [[nodiscard]] int freeSpaceFor(std::size_t bytes) const;
    [[nodiscard]] std::string path(std::uint64_t number) const;

    const std::string folder_;
    const Opening opening_;

    // Guarded by the store's lock.
    std::optional<std::set<std::uint64_t>> numbers_;  ///< segments on the disk; none: not looked yet
    std::uint64_t next_ = 1;                          ///< number of the next segment
    std::shared_ptr<Segment> current_;                ///< null: the next piece begins one
    bool hasSpare_ = false;                           ///< the file that becomes the next segment
    bool canReserve_ = true;                          ///< false once the file system said that it cannot

    std::mutex syncing_;  ///< held while the disk works; before it no lock is held, under it only mutex_
    std::mutex mutex_;
    // Guarded by mutex_.
    std::vector<std::shared_ptr<Segment>> unsynced_;
    std::uint64_t appended_ = 0, synced_ = 0;  ///< pieces since the beginning
};

}  // namespace tarnwell
