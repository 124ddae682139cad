#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What the machine, the user and the environment are. Any thread.
namespace tarnwell {

/// The machine's name for people: the pretty name that the administrator gave it, else the host name, else
/// empty.
std::string computerName();
/// The operating system's version as "%d.%d.%d" (major.minor.bugfix, missing parts 0): the distribution's,
/// else the kernel's.
std::string operatingSystemVersion();
/// The absolute path of the running program; empty when unknown.
std::string executablePath();

/// $HOME, else the user database's entry; never empty.
std::string homeFolder();
/// $XDG_DATA_HOME and so on. Unset, empty or relative values count as absent and give the defaults below
/// $HOME.
std::string xdgDataHome();
std::string xdgConfigHome();
std::string xdgCacheHome();
/// None when the session has no runtime folder.
std::optional<std::string> xdgRuntimeDirectory();

std::string currentUserName();
/// The current user is listed as a member of the group, or the process runs with it.
bool userIsInGroup(const std::string& group);
/// Member of "sudo", "wheel" or "admin".
bool userIsInAdminGroup();
/// `user_allow_other` stands in the FUSE configuration file: users may open their mounts to others.
bool fuseAllowsOther(const std::string& configuration = "/etc/fuse.conf");

/// The program's name of a process, as people know it; none when it does not run.
std::optional<std::string> processName(pid_t pid);
/// The absolute path of a process's program; none when it does not run or is not ours to see.
std::optional<std::string> processExecutable(pid_t pid);

struct FileSystemCapacity {
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;       ///< free at all
    std::uint64_t availableBytes = 0;  ///< free for this user
};
/// Of the file system that holds `path`; none when it cannot be asked.
std::optional<FileSystemCapacity> fileSystemCapacity(const std::string& path);

}  // namespace tarnwell
