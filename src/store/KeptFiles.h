#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell {

class CacheLayout;
class Clock;

/// Why contents of a share are kept that the user has no more.
inline constexpr std::string_view kShareGone = "the share was withdrawn";
struct TWVirtualFile;

/// The folder of kept files, "Kept" in the cache root: contents that the service has not got and that this
/// program had to take off the drive. They are the user's only copy, so nothing here deletes them; only a
/// wipe does. `Kept/<share name>/<date>/<path in the share>`; "Kept.txt" beside the dates says of each what
/// it was and why.
///
/// A file that stands there already is never replaced: the name gets a number, " (2)". What was kept is
/// durable on return. The user is told by a log line and by the observer.
///
/// Threads: any; blocks on the disk. A lock of its own, taken after the store's where both are held.
class KeptFiles {
  public:
    struct Notice {
        std::string drivePath;  ///< where the user knows it
        std::string path;       ///< where the bytes are
        std::string reason;
        std::size_t offered = 0;  ///< above 0: a share is back, and so many kept files of it wait in `path`
    };
    using Observer = std::function<void(const Notice&)>;

    /// `clock` outlives this.
    KeptFiles(const CacheLayout& layout, const Clock& clock);

    /// Called on the thread that keeps a file, which may hold the store's lock: must only take note.
    void setObserver(Observer observer);

    /// Moves the regular file `bytesPath`, contents of `file`, here. `reason` completes "because": "the share
    /// was withdrawn". 0 or errno: the bytes are where they were then.
    [[nodiscard]] int keep(const TWVirtualFile& file, const std::string& bytesPath, std::string_view reason);
    /// As keep(), but the bytes stay under their former name as well: the caller is about to remove it. A
    /// file that was kept so before, and is still the same, is not kept twice.
    [[nodiscard]] int keepBeforeRemoval(const TWVirtualFile& file, const std::string& bytesPath,
                                        std::string_view reason);

    /// The share is shown again, as `drivePath`: tells the user of what was kept of it. The files stay where
    /// they are; the user decides what to copy back.
    void shareIsBack(std::string_view shareId, const std::string& drivePath) const;
    /// Where files of the share were kept that are still there; empty when there are none.
    [[nodiscard]] std::vector<std::string> pathsOfShare(std::string_view shareId) const;

    [[nodiscard]] static std::string folderIn(const CacheLayout& layout);
    /// Files in the folder, up to a thousand.
    [[nodiscard]] static std::size_t count(const CacheLayout& layout);

  private:
    struct Place;
    [[nodiscard]] int put(const TWVirtualFile& file, const std::string& bytesPath, std::string_view reason,
                          bool removesSource);
    [[nodiscard]] int place(const std::string& bytesPath, std::string folder, const std::string& name,
                            bool removesSource, Place& placed) const;
    void describe(const std::string& shareFolder, const TWVirtualFile& file, const std::string& path,
                  std::string_view reason) const;

    const std::string folder_;
    const Clock& clock_;
    mutable std::mutex mutex_;  ///< one file is placed at a time
    Observer observer_;         // guarded by mutex_
};

}  // namespace tarnwell
