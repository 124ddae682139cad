#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tarnwell {

class TWFuseFileSystem;

/// One mount of the drive: mounts, runs the file-system threads, notices the end, unmounts in bounded time.
///
/// Threads: mount() and unmount() on one thread (the main thread). File-system threads are libfuse's, made on
/// demand. Signals are not touched.
///
/// A file-system thread may hang in a fetch when the drive is taken down by force. After the deadline it is
/// left to itself: it keeps the drive object alive and ends by itself as soon as its call returns. What the
/// drive borrows (the store, the mediator) must then live until the process ends: wasAbandoned() tells.
class FuseMount {
  public:
    /// Must not block, and not call this object; hop to the main thread to act.
    struct Notifications {
        std::function<void()> didMount;                          ///< on the thread that called mount()
        std::function<void(const std::string&)> mountDidFailed;  ///< reason in words; likewise
        std::function<void()> didUnmount;                        ///< once per didMount; on another thread
    };

    FuseMount(std::shared_ptr<TWFuseFileSystem> fileSystem, Notifications notifications);
    /// Unmounts by force when still mounted.
    ~FuseMount();
    FuseMount(const FuseMount&) = delete;
    FuseMount& operator=(const FuseMount&) = delete;

    /// Mounts at `path`, an existing folder, with the application's option list (see MountOptions), and calls
    /// didMount once the kernel's first request was answered, or mountDidFailed. May be called again after
    /// didUnmount.
    void mount(const std::string& path, const std::vector<std::string>& options);

    [[nodiscard]] bool isMounted() const;

    /// 0 when the drive is no longer mounted, and its threads ended or were left to themselves; otherwise the
    /// error, EBUSY while a program holds something on the drive open. `force` detaches a busy drive all the
    /// same: whatever is still open there fails from then on. Returns within `deadline`, or a moment later.
    int unmount(bool force, std::chrono::milliseconds deadline = std::chrono::seconds(10));

    /// A file-system thread did not end in time.
    [[nodiscard]] bool wasAbandoned() const;

    /// Takes away a mount that an earlier run left behind without a process.
    static void checkForOldMountAtPath(const std::string& path);

  private:
    struct Session;

    const std::shared_ptr<TWFuseFileSystem> fileSystem_;
    const Notifications notifications_;
    std::shared_ptr<Session> session_;  // null before the first mount
    bool abandoned_ = false;
};

}  // namespace tarnwell
