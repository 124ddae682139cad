#include "platform/SystemInformation.h"

#include <grp.h>
#include <limits.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string_view>

namespace tarnwell {

namespace {

/// A value of a shell-like "KEY=value" file, outer quotes taken off; empty when absent.
std::string valueInFile(const char* path, std::string_view key) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with(key) || line.size() <= key.size() || line[key.size()] != '=') continue;
        auto value = line.substr(key.size() + 1);
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
            value.back() == value.front()) {
            value = value.substr(1, value.size() - 2);
        }
        return value;
    }
    return {};
}

std::string hostName() {
    char name[HOST_NAME_MAX + 1] = {};
    return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

std::string kernelRelease() {
    utsname names{};
    return ::uname(&names) == 0 ? names.release : "";
}

struct User {
    std::string name, folder;
};

User currentUser() {
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) return {};
    return {found->pw_name, found->pw_dir};
}

std::string xdgFolder(const char* variable, const char* below) {
    const char* value = ::secure_getenv(variable);
    // The XDG rules: a path that is not absolute is to be ignored.
    return value && value[0] == '/' ? value : homeFolder() + below;
}

std::optional<std::string> linkTarget(const std::string& link) {
    char target[PATH_MAX];
    const auto length = ::readlink(link.c_str(), target, sizeof target);
    if (length <= 0) return std::nullopt;
    return std::string(target, static_cast<std::size_t>(length));
}

}  // namespace

std::string computerName() {
    auto name = valueInFile("/etc/machine-info", "PRETTY_HOSTNAME");
    return name.empty() ? hostName() : name;
}

std::string operatingSystemVersion() {
    int parts[3] = {};
    const auto distribution = valueInFile("/etc/os-release", "VERSION_ID");
    if (std::sscanf(distribution.c_str(), "%9d.%9d.%9d", &parts[0], &parts[1], &parts[2]) < 1) {
        std::fill(std::begin(parts), std::end(parts), 0);
        const auto kernel = kernelRelease();
        if (std::sscanf(kernel.c_str(), "%9d.%9d.%9d", &parts[0], &parts[1], &parts[2]) < 1) return "0.0.0";
    }
    return std::to_string(parts[0]) + "." + std::to_string(parts[1]) + "." + std::to_string(parts[2]);
}

std::string executablePath() {
    return processExecutable(::getpid()).value_or("");
}

std::string homeFolder() {
    const char* home = ::secure_getenv("HOME");
    if (home && home[0] == '/') return home;
    const auto folder = currentUser().folder;
    return folder.empty() ? "/" : folder;
}

std::string xdgDataHome() {
    return xdgFolder("XDG_DATA_HOME", "/.local/share");
}
std::string xdgConfigHome() {
    return xdgFolder("XDG_CONFIG_HOME", "/.config");
}
std::string xdgCacheHome() {
    return xdgFolder("XDG_CACHE_HOME", "/.cache");
}

std::optional<std::string> xdgRuntimeDirectory() {
    const char* value = ::secure_getenv("XDG_RUNTIME_DIR");
    if (!value || value[0] != '/') return std::nullopt;
    return value;
}

std::string currentUserName() {
    return currentUser().name;
}

bool userIsInGroup(const std::string& group) {
    std::vector<char> buffer(65536);
    struct group entry {};
    struct group* found = nullptr;
    if (::getgrnam_r(group.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
        return false;
    const auto user = currentUserName();
    for (char** member = found->gr_mem; member && *member; ++member) {
        if (!user.empty() && user == *member) return true;
    }
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(::getgroups(0, nullptr), 0)));
    const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    groups.push_back(::getegid());
    return std::find(groups.begin(), groups.end(), found->gr_gid) != groups.end();
}

bool userIsInAdminGroup() {
    return userIsInGroup("sudo") || userIsInGroup("wheel") || userIsInGroup("admin");
}

bool fuseAllowsOther(const std::string& configuration) {
    std::ifstream file(configuration);
    for (std::string line; std::getline(file, line);) {
        const auto first = line.find_first_not_of(" \t");
        if (first == std::string::npos) continue;
        if (line.substr(first, line.find_last_not_of(" \t\r") + 1 - first) == "user_allow_other") return true;
    }
    return false;
}

std::optional<std::string> processName(pid_t pid) {
    if (const auto executable = processExecutable(pid)) {
        auto name = executable->substr(executable->rfind('/') + 1);
        // The kernel's mark for a program that was replaced while it runs, as after an upgrade.
        if (name.ends_with(" (deleted)")) name.resize(name.size() - 10);
        return name;
    }
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    if (!std::getline(file, name)) return std::nullopt;
    return name;
}

std::optional<std::string> processExecutable(pid_t pid) {
    return pid > 0 ? linkTarget("/proc/" + std::to_string(pid) + "/exe") : std::nullopt;
}

std::optional<FileSystemCapacity> fileSystemCapacity(const std::string& path) {
    struct statvfs status {};
    if (::statvfs(path.c_str(), &status) != 0) return std::nullopt;
    const auto block = static_cast<std::uint64_t>(status.f_frsize);
    return FileSystemCapacity{status.f_blocks * block, status.f_bfree * block, status.f_bavail * block};
}

}  // namespace tarnwell
