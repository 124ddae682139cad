#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/LocalSocket.h"

/// Small files that belong to one user: read whole, replaced whole. Any thread.
namespace tarnwell {

struct FileContents {
    int error = 0;  ///< errno; ENOENT when there is no such file, EFBIG when it is longer than the limit
    std::string bytes;
    struct stat status {};
};
/// Reads a regular file.
FileContents readWholeFile(const std::string& path, std::size_t limit);

/// Replaces the file, or the file that a symbolic link leads to, by one with these bytes and mode 0600. A
/// reader or a crash at any moment finds the old bytes or the new ones; on return the new ones are on the
/// disk. Returns 0 or errno; the old file is then untouched.
int replacePrivateFile(const std::string& path, std::string_view bytes);

/// Makes the folder and those above it, mode 0700. 0 or errno.
int makePrivateFolders(const std::string& path);

/// Locks `path` + ".lock" against other processes and threads. Empty when it cannot be had before the
/// deadline.
OwnedDescriptor lockBeside(const std::string& path,
                           std::chrono::milliseconds deadline = std::chrono::seconds(3));

/// `text` without line breaks, control characters and the characters of `special`, by backslash escapes.
std::string escaped(std::string_view text, std::string_view special);
/// The inverse; none when an escape is malformed.
std::optional<std::string> unescaped(std::string_view text);

}  // namespace tarnwell
