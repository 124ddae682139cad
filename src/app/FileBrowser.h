#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

#include "app/FileBrowserLink.h"
#include "app/FolderRefresh.h"
#include "app/OverlayIcons.h"
#include "app/PendingPaths.h"
#include "app/RemoteCommands.h"
#include "connector/SyncStatus.h"
#include "platform/NotificationCenter.h"

namespace tarnwell {

class Clipboard;
class DesktopServices;
class TWConnector;
class TWMetadataStorage;

/// The client's side of the desktop's file browser:
///
///     FileBrowserLink   the conversation with the extension
///     RemoteCommands    what it, or the command line, asks for
///     OverlayIcons      what it shows
///     FolderRefresh     folders that changed elsewhere
///
/// Wires them with each other, the store and the connector. Main thread only, except for folders to refresh,
/// which come from any.
class FileBrowser final : public FolderRefresher,
                          private FileBrowserLink::Mediator,
                          private OverlayIcons::Mediator,
                          private RemoteCommands::Mediator,
                          private JournalObserver,
                          private ItemIcons {
  public:
    /// All outlive the object.
    struct Environment {
        TWMetadataStorage& store;
        TWConnector& connector;
        RunLoop& mainLoop;
        Executor& background;
        NotificationCenter& notifications;
        MessagePorts& ports;
        DesktopServices& desktop;
        Clipboard& clipboard;
    };
    explicit FileBrowser(const Environment& environment);
    ~FileBrowser() override;

    /// Start-up: nothing is shown yet; opens the ports and begins to follow the transfers.
    void start();
    /// The end: nothing is followed any more. Idempotent.
    void stop();
    /// Greets the extension a moment later: the desktop learns of a volume first.
    void driveDidMount();
    void driveWillUnmount();

    void parseRemoteCommand(std::string_view text) override { commands_.parseRemoteCommand(text); }
    void refreshFinderFolders(const std::vector<std::string>& folderIds) override;

    [[nodiscard]] FileBrowserLink& link() { return link_; }
    [[nodiscard]] OverlayIcons& icons() { return icons_; }
    [[nodiscard]] RemoteCommands& commands() { return commands_; }

  private:
    // FileBrowserLink::Mediator
    void fileBrowserGone() override { icons_.clear(); }
    void sendingFailed() override { icons_.forgetSent(); }

    // OverlayIcons::Mediator
    int pathIsSynchronized(std::string_view path) override;
    bool pathHasUploads(std::string_view path) override;
    bool pathHasDownloads(std::string_view path) override;
    bool isFileDownloaded(const TWVirtualFile& file) override;
    bool isFileInUploadQueue(const TWVirtualFile& file) override;
    bool isFileInDownloadQueue(const TWVirtualFile& file) override;

    // RemoteCommands::Mediator
    void sendFinderCommand(std::string_view command, std::string_view path) override;
    void createFilePublicLink(const TWVirtualFilePtr& file, RemoteCommands::LinkHandler handler) override;
    void openShareInWebClient(const ManagedSharePtr& share) override;
    void refreshSyncStatus(const TWVirtualFilePtr& file) override;
    void refreshShareSyncStatus(const ManagedSharePtr& share) override;
    void downloadFolder(const TWVirtualFilePtr& folder) override;
    void downloadShare(const ManagedSharePtr& share) override;
    void downloadFile(const TWVirtualFilePtr& file) override;

    void journalChanged(std::string_view internalName) override { itemChanged(internalName); }
    /// Any thread.
    void itemChanged(std::string_view internalName);
    void lookAtQueues();

    // ItemIcons
    bool setIcon(const std::string& forPath) override;

    Environment environment_;
    std::atomic<bool> mounted_{false};
    // What waits, as it was when somebody asked last; looked at anew once anything was told or queued.
    std::atomic<bool> queuesChanged_{true};
    std::int64_t downloadQueueLen_ = -1;
    PendingPaths uploads_;
    PendingPaths downloads_;
    FileBrowserLink link_;
    OverlayIcons icons_;
    RemoteCommands commands_;
    FolderRefresh folders_;
    std::vector<Subscription> subscriptions_;
    Timer greeting_;
    std::shared_ptr<FileBrowser*> self_;  // tasks on their way hold it weakly
};

}  // namespace tarnwell
