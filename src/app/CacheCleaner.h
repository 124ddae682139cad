#pragma once

#include <functional>
#include <vector>

#include "platform/Executor.h"

namespace tarnwell {

class CacheLayout;
class TWMetadataStorage;

/// Takes everything of a user off this machine after a log-out, kept files excepted: the records at once, the
/// files on the background queue. The program does not end before that is done, and a new log-in waits for
/// it: new contents would be deleted together with the old.
///
/// Main thread only.
class CacheCleaner {
  public:
    CacheCleaner(TWMetadataStorage& store, Executor& background, Executor& mainLoop, bool keepLogs);

    void clearCaches();
    /// The part on disk: empties the cache folders and removes the saved store. The log must be closed if
    /// logs go too.
    static void clearFiles(const CacheLayout& layout, bool keepLogs);
    /// A wipe takes the kept files as well; a log-out leaves them to the user.
    void removeKeptFiles();
    /// Calls `task` once no clean-up is under way: at once, or on the main loop later.
    void whenClean(std::function<void()> task);

  private:
    TWMetadataStorage& store_;
    Executor& background_;
    Executor& mainLoop_;
    const bool keepLogs_;
    int running_ = 0;
    std::vector<std::function<void()>> waiting_;
};

}  // namespace tarnwell
