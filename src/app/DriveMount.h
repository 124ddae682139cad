#pragma once

#include <memory>
#include <string>
#include <vector>

#include "app/FileSystemLayer.h"
#include "drive/TWFuseFileSystem.h"

namespace tarnwell {

class DownloadEngine;
class TWConnector;

/// Makes the drive's mounts: the file system of the store behind libfuse, with the connector's downloads
/// behind that. Main thread only; what it is given outlives it and the mounts.
class DriveMount final : private TWFuseFileSystem::Mediator {
  public:
    struct Collaborators {
        TWMetadataStorage& store;
        Executor& background;
        TWConnector& connector;
        std::function<bool()> excessiveLogging;  ///< any thread
    };
    explicit DriveMount(Collaborators collaborators);
    ~DriveMount() override;

    [[nodiscard]] FileSystemLayer::Factory factory();
    /// One round over the open files of the present mount.
    void checkOpenedFiles();
    /// A file-system thread outlasted its mount: nothing of the program may be destroyed while the process
    /// lives.
    [[nodiscard]] bool wasAbandoned() const { return abandoned_; }

    /// Why no drive can be mounted on this machine; empty: it can.
    [[nodiscard]] static std::string checkFuseInstallation();
    /// The device number of what is mounted at `path`; empty: nothing is. Never asks the drive itself.
    [[nodiscard]] static std::string deviceAtPath(const std::string& path);
    /// Names of the programs that have files of the drive open, each once; this program does not count.
    [[nodiscard]] static std::vector<std::string> programsWithOpenFiles();

  private:
    class Layer;

    bool isFileDownloaded(const TWVirtualFilePtr& file) override;
    std::optional<std::string> downloadFileChunk(const TWVirtualFilePtr& file, std::int64_t position,
                                                 std::int64_t size) override;
    [[nodiscard]] bool excessiveLogging() const override { return collaborators_.excessiveLogging(); }

    Collaborators collaborators_;
    std::weak_ptr<TWFuseFileSystem> fileSystem_;  // of the present mount
    bool abandoned_ = false;
};

}  // namespace tarnwell
