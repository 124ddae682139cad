#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "connector/ConnectorEnvironment.h"
#include "store/ManagedShare.h"
#include "store/TWVirtualFile.h"

namespace tarnwell {

class DownloadEngine;
class TaskGate;

/// Shows items of the drive in the file browser. Any thread; must not block.
class ItemIcons {
  public:
    virtual ~ItemIcons() = default;
    /// Draws the item at an absolute path anew, without an icon of its own. False when that failed.
    virtual bool setIcon(const std::string& forPath) = 0;
};

/// What is still to be downloaded or uploaded, per path and in all, and the switch that keeps folders and
/// shares on this machine.
///
/// Paths are drive paths. They are compared without regard to letter case, as beginnings of texts: "/S/ab"
/// counts as below "/S/a" too.
///
/// Threads: any, without locks held.
class SyncStatus {
  public:
    SyncStatus(const ConnectorEnvironment& environment, DownloadEngine& downloads, TaskGate& gate)
        : environment_(environment), downloads_(downloads), gate_(gate) {}

    /// Null: nobody shows icons. `icons` outlives this or is taken back.
    void setIcons(ItemIcons* icons) { icons_ = icons; }

    [[nodiscard]] bool pathHasDownloads(std::string_view path) const;
    /// Whether anything is in the journal, Catch-up markers included.
    [[nodiscard]] bool hasUploads() const;
    [[nodiscard]] bool pathHasUploads(std::string_view path) const;
    /// Changes that the service has not got yet, of any kind, and the bytes of the files among them.
    [[nodiscard]] std::int64_t uploadQueueLen() const;
    [[nodiscard]] std::int64_t uploadQueueBytes() const;
    /// 1 when the item is kept on this machine, else 0, also when there is none.
    [[nodiscard]] int pathIsSynchronized(std::string_view path) const;

    /// Makes everything below a folder or in a share follow its keep-local setting: queues what is missing,
    /// or ends downloads and clears the setting of the files below. Works in the background.
    void refreshSyncStatus(const TWVirtualFilePtr& folder);
    void refreshShareSyncStatus(const ManagedSharePtr& share);
    void setIcon(const std::string& forPath) const;

  private:
    void follow(const std::vector<TWVirtualFilePtr>& items, bool synchronized);

    const ConnectorEnvironment& environment_;
    DownloadEngine& downloads_;
    TaskGate& gate_;
    std::atomic<ItemIcons*> icons_{nullptr};
};

}  // namespace tarnwell
