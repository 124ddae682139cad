#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/BackgroundQueue.h"
#include "store/StoreDelegates.h"

namespace tarnwell {

class TWMetadataStorage;

/// Makes file browsers read folders of the drive again that changed elsewhere: creates and removes a marker
/// in them through the mount, which the kernel announces to whoever watches them.
///
/// Any thread, without the store's lock. The markers are made one after another in the background. A drive
/// that is down, or goes down meanwhile, is left alone.
class FolderRefresh final : public FolderRefresher {
  public:
    /// `isMounted`: any thread.
    FolderRefresh(const TWMetadataStorage& store, Executor& background, std::function<bool()> isMounted);
    ~FolderRefresh() override;

    void refreshFinderFolders(const std::vector<std::string>& folderIds) override;

  private:
    /// Shared with the task that runs.
    struct State {
        std::function<bool()> isMounted;
        std::mutex mutex;
        std::set<std::string> folders;  // guarded by mutex: absolute paths
        bool running = false;           // guarded by mutex
        bool ended = false;             // guarded by mutex
    };
    static void run(const std::shared_ptr<State>& state);

    const TWMetadataStorage& store_;
    Executor& background_;
    std::shared_ptr<State> state_;
};

}  // namespace tarnwell
