#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace tarnwell {

/// What the system says of a mount point, and how to take one down. Nothing here asks the file system that is
/// mounted there, except isDead(). Any thread.
namespace mountpoint {

/// The device number ("0:52") of what is mounted at `path` (absolute, without symbolic links); none when
/// nothing is.
[[nodiscard]] std::optional<std::string> deviceAt(const std::string& path);

/// A user-space file system without its process stands there.
[[nodiscard]] bool isDead(const std::string& path);

/// Unmounts; 0 or an error number, EBUSY while in use. `force` detaches it whether in use or not and fails
/// what waits for it. Uses the system's helper where this user may not unmount directly; waits for it until
/// `deadline`.
int unmount(const std::string& path, bool force, std::chrono::steady_clock::time_point deadline);

/// Cuts the kernel's connection of a user-space file system: whatever waits for an answer fails.
void abortConnection(const std::string& device);

}  // namespace mountpoint
}  // namespace tarnwell
