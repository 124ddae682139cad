#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/RunLoop.h"
#include "store/TWVirtualFile.h"

namespace tarnwell {

class TWMetadataStorage;

/// What the file browser shows of the drive, and the overlay on each item of it.
///
/// Paths are absolute and as the file browser spells them. Main thread only, except for itemChanged and
/// pathChanged. What they tell is gathered for a moment, so that a burst of transfers costs one round, and an
/// overlay that is there already is not sent again.
class OverlayIcons {
  public:
    /// One byte, as the extension gets it.
    enum Status : int {
        kNone = 0,                  ///< the root; a folder that is not kept locally, with nothing in transfer
        kLocal = 1,                 ///< a file whose contents are here and are not waiting for upload
        kOnServer = 2,              ///< a file whose contents are only on the server
        kInTransfer = 3,            ///< a file that waits for up- or download, or a folder with such below it
        kKeptLocally = 4,           ///< a folder or share that is kept here
        kKeptLocallyInTransfer = 5  ///< the same, with something in transfer below it
    };

    /// What it asks. Called on the main thread, the file's questions with the store's lock held.
    class Mediator {
      public:
        virtual ~Mediator() = default;
        /// Not 0: kept locally. These three take drive paths.
        [[nodiscard]] virtual int pathIsSynchronized(std::string_view path) = 0;
        [[nodiscard]] virtual bool pathHasUploads(std::string_view path) = 0;
        [[nodiscard]] virtual bool pathHasDownloads(std::string_view path) = 0;
        [[nodiscard]] virtual bool isFileDownloaded(const TWVirtualFile& file) = 0;
        [[nodiscard]] virtual bool isFileInUploadQueue(const TWVirtualFile& file) = 0;
        [[nodiscard]] virtual bool isFileInDownloadQueue(const TWVirtualFile& file) = 0;
        virtual void sendFinderCommand(std::string_view command, std::string_view path) = 0;
    };

    /// All outlive the icons.
    OverlayIcons(const TWMetadataStorage& store, RunLoop& mainLoop, Mediator& mediator);
    ~OverlayIcons();

    void observe(const std::string& path) { browsedFolders_.insert(path); }
    void unobserve(const std::string& path);
    void badge(const std::string& path);
    /// Nobody shows anything.
    void clear();

    [[nodiscard]] int getFileStatusValue(std::string_view path) const;
    void updateOverlayIcon(const std::string& path);
    /// The overlays of a shown file and of the folders above it.
    void refreshFileInFinder(const TWVirtualFilePtr& file);
    /// The overlays of all that is shown at or below the path.
    void refreshTree(const std::string& path);
    /// The overlays of what is shown in these folders; ids of folders or shares.
    void refreshFolders(const std::vector<std::string>& folderIds);

    /// Something in transfer or waiting for it. Any thread, with or without locks.
    void itemChanged(std::string_view internalName);
    /// The same for an absolute path.
    void pathChanged(const std::string& path);
    /// An overlay was lost on its way: each is sent again at its next turn.
    void forgetSent();

    [[nodiscard]] const std::set<std::string>& browsedFolders() const { return browsedFolders_; }
    [[nodiscard]] std::set<std::string> displayBadgePaths() const;

  private:
    using Badges = std::map<std::string, std::optional<int>>;  // to the status that was sent last

    /// What was told and not looked at yet; shared with the rounds on their way.
    struct Told {
        std::mutex mutex;
        std::set<std::string> ids, paths;  // guarded by mutex
        bool scheduled = false;            // guarded by mutex
        OverlayIcons* icons = nullptr;     // main thread
    };
    void schedule(std::unique_lock<std::mutex> lock);
    void armRound();
    void armRecheck();
    void round();
    void addWithParents(const std::string& path, std::set<std::string>& paths) const;
    void addShown(const std::string& from, const std::string& to, bool childrenOnly);

    const TWMetadataStorage& store_;
    RunLoop& mainLoop_;
    Mediator& mediator_;
    std::set<std::string> browsedFolders_;
    Badges displayBadgePaths_;
    std::set<std::string> due_;
    std::set<std::string> inTransfer_;  // of the shown: looked at again until they are not
    Timer timer_;
    Timer recheck_;
    std::chrono::milliseconds pause_;
    std::atomic<bool> anyShown_{false};  // nothing is gathered while nothing is shown
    std::shared_ptr<Told> told_;
};

}  // namespace tarnwell
