#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/FileSystemLayer.h"
#include "platform/LocalSocket.h"
#include "platform/RunLoop.h"

namespace tarnwell {

/// Takes the drive up and down:
///
///     not mounted --initializeFuse--> mounting --didMount--> mounted --didUnmount--> mounted again, unless
///     the unmount was our own (stopFuse, the only orderly way down)
///
/// Owns the file-system layer and the handle of "/.fuselock", which keeps the volume busy while the program
/// runs. Main thread only; events of the layer hop here, and those of a layer that is gone are dropped.
class DriveController {
  public:
    struct Settings {
        std::string appTitle;
        std::string mountPath;
        std::string oldMountPath;  ///< empty: none
        std::string iconPath;
    };
    /// What it needs from outside. Called on the main thread.
    class Mediator {
      public:
        virtual ~Mediator() = default;
        [[nodiscard]] virtual bool inAdminGroup() = 0;
        /// Takes away by force what a crashed run left mounted at `path`.
        virtual void checkForOldMountAtPath(const std::string& path) = 0;
        virtual void migrateMountDirectoryIfNeeded() = 0;
        /// Tells what is mounted at `path` from what was before; empty: nothing is. Does not ask the drive
        /// itself.
        [[nodiscard]] virtual std::string deviceAtPath(const std::string& path) = 0;
        /// The drive is there.
        virtual void driveDidMount() = 0;
        /// The drive cannot be shown; the application ends after telling the user.
        virtual void mountDidFail(const std::string& reason) = 0;
    };

    DriveController(Settings settings, Mediator& mediator, RunLoop& loop, FileSystemLayer::Factory makeLayer);
    ~DriveController();

    void initializeFuse();
    void stopFuse();
    /// Something was mounted or unmounted on this machine. A drive that was detached while programs hold
    /// files open on it ("/.fuselock" is always one) lives on where nobody can see it, so its end is noticed
    /// here.
    void mountTableChanged();
    /// A mount was started and not yet taken down.
    [[nodiscard]] bool fuseInitialized() const { return fuseInitialized_; }

  private:
    FileSystemLayer::Events eventsOfThisMount();
    [[nodiscard]] std::vector<std::string> mountOptions() const;
    void didMount();
    void mountDidFailed(const std::string& information);
    void didUnmount();

    Settings settings_;
    Mediator& mediator_;
    RunLoop& loop_;
    FileSystemLayer::Factory makeLayer_;
    std::shared_ptr<DriveController*> self_;  // events on their way hold it weakly
    std::unique_ptr<FileSystemLayer> fuseFilesystem_;
    OwnedDescriptor fuseLockHandle_;
    std::string device_;             // of the mounted drive; empty while there is none
    std::uint64_t mountNumber_ = 0;  // tells the events of this mount from those of an earlier one
    bool fuseInitialized_ = false;
    bool calledUnmount_ = false;
};

}  // namespace tarnwell
