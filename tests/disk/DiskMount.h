#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "disk/DiskFaults.h"
#include "disk/ForgetfulDisk.h"

struct fuse_session;

namespace tarnwell::testing {

/// A forgetful disk as a mounted file system, with calls that fail on demand. run() serves requests on the
/// calling thread; everything else may be called from another one, under mutex().
class DiskMount {
  public:
    /// States that are written while programs work: one before each `every`th sync.
    struct SyncCuts {
        std::string folder{};  ///< empty: none
        std::uint64_t every = 1, seed = 0, most = 0;
        std::uint64_t syncs = 0, written = 0;
    };

    explicit DiskMount(ForgetfulDisk::Mode mode) : disk(mode) {}
    ~DiskMount();
    DiskMount(const DiskMount&) = delete;
    DiskMount& operator=(const DiskMount&) = delete;

    bool mount(const std::string& folder);
    /// Until the file system is unmounted or the program gets SIGTERM.
    void run();

    /// Writes FOLDER/state and the moment, on the monotonic clock in nanoseconds, as FOLDER/time.
    std::int64_t writeCut(std::uint64_t seed, const std::string& folder);
    /// The same with nothing lost.
    std::int64_t writeNow(const std::string& folder);
    /// Called before each sync of a file or folder.
    void beforeSync();

    [[nodiscard]] std::mutex& mutex() { return mutex_; }
    // Guarded by mutex().
    ForgetfulDisk disk;
    DiskFaults faults;
    SyncCuts syncCuts;

  private:
    std::mutex mutex_;
    fuse_session* session_ = nullptr;
};

}  // namespace tarnwell::testing
