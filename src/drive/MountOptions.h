#pragma once

#include <string>
#include <vector>

namespace tarnwell {

/// What the kernel may keep of what the drive told it.
enum class CachePolicy {
    /// Nothing: every name, attribute and byte is asked for anew.
    none,
};

/// The meaning on Linux of the options that a drive is mounted with.
struct MountOptions {
    std::string volumeName;         ///< shown as the source of the mount
    bool directIo = false;          ///< reads and writes pass by the page cache
    bool synchronousReads = false;  ///< one read-ahead request at a time
    bool allowRoot = false;
    CachePolicy cachePolicy = CachePolicy::none;

    /// Translates the application's list: "sync_read", "volname=X", "direct_io", "nolocalcaches",
    /// "novncache", "local", "volicon=PATH", "allow_root". What has no meaning here is dropped here and
    /// nowhere else; "allow_root" also where the system does not permit it (`otherUsersPermitted` false).
    [[nodiscard]] static MountOptions translate(const std::vector<std::string>& options,
                                                bool otherUsersPermitted);
    /// This user may give others access to a mount: is root, or fuse.conf says so.
    [[nodiscard]] static bool otherUsersPermitted(const std::string& fuseConf = "/etc/fuse.conf");
    /// The "-o" list for libfuse.
    [[nodiscard]] std::string libfuseOptions() const;
};

}  // namespace tarnwell
