#include "drive/MountOptions.h"

#include <unistd.h>

#include <fstream>
#include <string_view>

namespace tarnwell {
namespace {

constexpr std::string_view kVolumeName = "volname=";
constexpr std::string_view kSubtype = "tarnwell";

/// libfuse separates options by commas; a backslash takes the meaning from the next character.
std::string escaped(std::string_view text) {
    std::string result;
    for (const char character : text) {
        if (character == ',' || character == '\\') result += '\\';
        result += character;
    }
    return result;
}

}  // namespace

MountOptions MountOptions::translate(const std::vector<std::string>& options, bool otherUsersPermitted) {
    MountOptions result;
    for (const std::string_view option : options) {
        if (option.starts_with(kVolumeName)) {
            result.volumeName = option.substr(kVolumeName.size());
        } else if (option == "direct_io") {
            result.directIo = true;
        } else if (option == "sync_read") {
            result.synchronousReads = true;
        } else if (option == "nolocalcaches" || option == "novncache") {
            result.cachePolicy = CachePolicy::none;
        } else if (option == "allow_root") {
            result.allowRoot = otherUsersPermitted;
        }
    }
    return result;
}

bool MountOptions::otherUsersPermitted(const std::string& fuseConf) {
    if (::geteuid() == 0) return true;
    std::ifstream file(fuseConf);
    for (std::string line; std::getline(file, line);) {
        const auto end = line.find_last_not_of(" \t\r");
        if (end != std::string::npos && line.substr(0, end + 1) == "user_allow_other") return true;
    }
    return false;
}

std::string MountOptions::libfuseOptions() const {
    std::string list = "subtype=" + std::string(kSubtype);
    if (!volumeName.empty()) list += ",fsname=" + escaped(volumeName);
    if (allowRoot) list += ",allow_root";
    return list;
}

}  // namespace tarnwell
