#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "store/ManagedShare.h"
#include "store/TWVirtualFile.h"

namespace tarnwell {

class Clipboard;
class DesktopServices;
class OverlayIcons;
class TWMetadataStorage;
struct CommandMessage;

/// Carries out the commands "COMMAND:PATH" of the file browser's extension and of `tarnwell send`, as
/// docs/file-browser.md lists them. A command that cannot be carried out is logged and dropped.
///
/// Main thread only.
class RemoteCommands {
  public:
    using LinkHandler = std::function<void(const std::string& link)>;

    /// Called on the main thread, without the store's lock; must not block.
    class Mediator {
      public:
        virtual ~Mediator() = default;
        virtual void sendFinderCommand(std::string_view command, std::string_view path) = 0;
        /// The handler is called on the main thread with the link, and not at all when there is none.
        virtual void createFilePublicLink(const TWVirtualFilePtr& file, LinkHandler handler) = 0;
        /// Null: to make a new share.
        virtual void openShareInWebClient(const ManagedSharePtr& share) = 0;
        virtual void refreshSyncStatus(const TWVirtualFilePtr& file) = 0;
        virtual void refreshShareSyncStatus(const ManagedSharePtr& share) = 0;
        virtual void downloadFolder(const TWVirtualFilePtr& folder) = 0;
        virtual void downloadShare(const ManagedSharePtr& share) = 0;
        virtual void downloadFile(const TWVirtualFilePtr& file) = 0;
    };
    /// All outlive the commands.
    struct Collaborators {
        TWMetadataStorage& store;
        OverlayIcons& icons;
        DesktopServices& desktop;
        Clipboard& clipboard;
        Mediator& mediator;
    };

    explicit RemoteCommands(Collaborators collaborators);

    void parseRemoteCommand(std::string_view text);
    void putFileLinkToClipboard(const TWVirtualFilePtr& file);
    void openRootFolder();
    void openShareFolder(const ManagedSharePtr& share);

  private:
    /// What a command is about.
    struct Item {
        std::string path;      ///< as it was given: absolute
        std::string relative;  ///< in the drive; empty when it lies elsewhere, or is the root
        TWVirtualFilePtr file;
        [[nodiscard]] bool isFile() const { return file && file->IsFile; }
    };
    using Command = void (RemoteCommands::*)(const Item& item);
    static Command commandNamed(std::string_view name);

    void hello(const Item& item);
    void createlink(const Item& item);
    void emaillink(const Item& item);
    void newshare(const Item& item);
    void shareashare(const Item& item);
    void togglesync(const Item& item);
    void downloadfolder(const Item& item);
    void downloadfile(const Item& item);
    void openroot(const Item& item);
    void openshare(const Item& item);
    void observe(const Item& item);
    void unobserve(const Item& item);
    void badge(const Item& item);

    [[nodiscard]] ManagedSharePtr shareOf(const Item& item) const;
    [[nodiscard]] bool needsFile(const Item& item) const;
    void clipboardSet(const std::string& link, const std::string& name, bool succeeded);

    Collaborators use_;
    std::shared_ptr<RemoteCommands*> self_;  // handlers on their way hold it weakly
};

}  // namespace tarnwell
