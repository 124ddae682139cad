#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tarnwell {

/// One mount of the drive as the application sees it: made for one mount, gone with it.
class FileSystemLayer {
  public:
    /// What became of the mount. Called on any thread; must not block and must not destroy the layer in the
    /// call.
    struct Events {
        std::function<void()> didMount;
        std::function<void(const std::string& reason)> mountDidFailed;
        std::function<void()> didUnmount;  ///< by whomever
    };
    using Factory = std::function<std::unique_ptr<FileSystemLayer>(Events)>;

    /// Ends every thread of the mount. Main thread; waits for a bounded time.
    virtual ~FileSystemLayer() = default;
    /// Begins to mount; one of the events follows.
    virtual void mount(const std::string& path, const std::vector<std::string>& options) = 0;
    /// 0, or the error number. `forced`: also with files open on it. Waits for a bounded time.
    virtual int unmount(bool forced) = 0;
};

}  // namespace tarnwell
