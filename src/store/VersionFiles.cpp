#include "store/VersionFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <string_view>

#include "platform/LocalSocket.h"
#include "platform/PrivateFile.h"

namespace tarnwell {

namespace {

constexpr std::size_t kLargest = 256;
constexpr std::string_view kBound = " bound";

struct Folder {
    std::mutex mutex;
    std::string path;  // guarded by mutex
};

Folder& folder() {
    // Never destroyed: threads that were left to themselves may look at cache files while the process ends.
    static auto* folder = new Folder;
    return *folder;
}

std::string folderPath() {
    const std::lock_guard lock(folder().mutex);
    return folder().path;
}

/// What tells the file, and its bytes where `bindsContents`, from others of that inode.
std::optional<std::string> identity(int descriptor, bool bindsContents, std::string& path) {
    struct statx status {};
    if (::statx(descriptor, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &status) != 0)
        return std::nullopt;
    path = folderPath();
    if (path.empty()) {
        errno = ENOTSUP;
        return std::nullopt;
    }
    path += "/" + std::to_string(status.stx_ino);
    const auto time = [](const statx_timestamp& at) {
        return " " + std::to_string(at.tv_sec) + "." + std::to_string(at.tv_nsec);
    };
    std::string text = (status.stx_mask & STATX_BTIME) != 0 ? time(status.stx_btime) : " -";
    if (bindsContents)
        text += " " + std::to_string(status.stx_size) + time(status.stx_mtime) + std::string(kBound);
    return text;
}

}  // namespace

void VersionFiles::use(std::string path) {
    const std::lock_guard lock(folder().mutex);
    folder().path = std::move(path);
}

int VersionFiles::set(int descriptor, const std::string& text, bool bindsContents) {
    std::string path;
    const auto who = identity(descriptor, bindsContents, path);
    if (!who) return errno;
    const auto top = folderPath();
    if (::mkdir(top.c_str(), S_IRWXU) != 0 && errno != EEXIST) return errno;
    const std::string next = path + "." + std::to_string(::gettid());
    const std::string line = text + *who;
    int error = 0;
    {
        const OwnedDescriptor file(
            ::open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file) return errno;
        if (::write(file.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()))
            error = errno != 0 ? errno : ENOSPC;
    }
    if (error == 0 && std::rename(next.c_str(), path.c_str()) != 0) error = errno;
    if (error != 0) ::unlink(next.c_str());
    return error;
}

std::optional<std::string> VersionFiles::of(int descriptor) {
    std::string path;
    if (!identity(descriptor, false, path)) return std::nullopt;
    const auto contents = readWholeFile(path, kLargest);
    if (contents.error != 0) return std::nullopt;
    const auto end = contents.bytes.find(' ');
    if (end == std::string::npos) return std::nullopt;
    const auto who = identity(descriptor, contents.bytes.ends_with(kBound), path);
    if (!who || contents.bytes.substr(end) != *who) return std::nullopt;
    return contents.bytes.substr(0, end);
}

}  // namespace tarnwell
