#include "drive/MountPoint.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <sstream>
#include <string_view>
#include <vector>

extern char** environ;

namespace tarnwell::mountpoint {
namespace {

constexpr const char* kUnmountHelper = "fusermount3";
constexpr const char* kConnections = "/sys/fs/fuse/connections/";

/// The kernel writes space, tab, newline and backslash of a path as three octal digits.
std::string unescaped(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto isOctal = [](char digit) { return digit >= '0' && digit <= '7'; };
        if (text[i] == '\\' && i + 3 < text.size() && std::all_of(&text[i + 1], &text[i + 4], isOctal)) {
            result +=
                static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
            i += 3;
        } else {
            result += text[i];
        }
    }
    return result;
}

/// Runs a program without output; its exit status, or -1 when it could not start or did not end in time
/// (killed).
int runBounded(const std::vector<std::string>& command, std::chrono::steady_clock::time_point deadline) {
    std::vector<char*> arguments;
    for (const auto& argument : command)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    if (::posix_spawn_file_actions_init(&actions) != 0) return -1;
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    const int error = ::posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) return -1;

    const int descriptor = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
    if (descriptor >= 0) {
        pollfd ended{descriptor, POLLIN, 0};
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        const int ready = ::poll(&ended, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
        ::close(descriptor);
        if (ready <= 0) ::kill(child, SIGKILL);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

std::optional<std::string> deviceAt(const std::string& path) {
    std::ifstream mounts("/proc/self/mountinfo");
    std::optional<std::string> device;
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::string mountId, parentId, number, root, point;
        fields >> mountId >> parentId >> number >> root >> point;
        if (unescaped(point) == path) device = number;  // the latest one hides the others
    }
    return device;
}

bool isDead(const std::string& path) {
    struct stat attributes {};
    return ::stat(path.c_str(), &attributes) != 0 && errno == ENOTCONN;
}

int unmount(const std::string& path, bool force, std::chrono::steady_clock::time_point deadline) {
    if (::umount2(path.c_str(), UMOUNT_NOFOLLOW | (force ? MNT_FORCE | MNT_DETACH : 0)) == 0) return 0;
    if (errno != EPERM) return errno;
    std::vector<std::string> command{kUnmountHelper, "-u", "-q"};
    if (force) command.emplace_back("-z");
    command.insert(command.end(), {"--", path});
    const int status = runBounded(command, deadline);
    if (status == 0) return 0;
    if (status < 0) return ETIMEDOUT;
    return deviceAt(path) ? EBUSY : EINVAL;
}

void abortConnection(const std::string& device) {
    const auto colon = device.find(':');
    if (colon == std::string::npos) return;
    std::ofstream(kConnections + device.substr(colon + 1) + "/abort") << "1";
}

}  // namespace tarnwell::mountpoint
