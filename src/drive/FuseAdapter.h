#pragma once

#include <functional>
#include <memory>
#include <string>

#include "drive/DriveOperations.h"

namespace tarnwell {

struct FuseBinding;

/// One session of libfuse's low-level interface: binds every request of the kernel to DriveOperations. Its
/// source is the only file that knows the fuse headers.
///
/// One guarded thunk per request type takes the object from the session's user data, calls it, turns whatever
/// escapes into an errno, and replies exactly once; an answer that the kernel did not take is taken back.
///
/// Threads: mount() and attach() before run(); run() on a thread of its own, it starts libfuse's workers on
/// demand. Requests that block in a fetch hold a worker each, so the bound is high: local requests must not
/// wait behind slow remote ones.
class FuseAdapter {
  public:
    static constexpr unsigned kMaximumThreads = 128;
    static constexpr unsigned kIdleThreads = 8;

    /// `initialised` is called on a file-system thread when the kernel's first request came in; must not
    /// block.
    FuseAdapter(std::shared_ptr<TWFuseFileSystem> fileSystem, MountOptions options,
                std::function<void()> initialised);
    /// REQUIRES: run() is not running.
    ~FuseAdapter();
    FuseAdapter(const FuseAdapter&) = delete;
    FuseAdapter& operator=(const FuseAdapter&) = delete;

    /// Mounts; empty, or what went wrong in words.
    [[nodiscard]] std::string mount(const std::string& path);
    /// Serves a socket instead, whose other end speaks the kernel's protocol, one message per packet. Takes
    /// over `descriptor`. Empty, or what went wrong.
    [[nodiscard]] std::string attach(int descriptor);

    /// Answers requests until the connection ends. REQUIRES: mount() or attach() succeeded.
    void run();

    [[nodiscard]] DriveOperations& operations();

    /// Version of the library that this process runs with ("3.14.0").
    [[nodiscard]] static std::string libraryVersion();
    /// It has what run() needs: thread limits came with 3.12.
    [[nodiscard]] static bool libraryIsRecent();

  private:
    std::unique_ptr<FuseBinding> binding_;
};

}  // namespace tarnwell
