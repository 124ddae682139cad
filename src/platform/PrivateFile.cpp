#include "platform/PrivateFile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <thread>

namespace tarnwell {

namespace fs = std::filesystem;

FileContents readWholeFile(const std::string& path, std::size_t limit) {
    FileContents contents;
    // Non-blocking: opening a pipe that stands in the file's place must not hang.
    const OwnedDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!file || ::fstat(file.get(), &contents.status) != 0) {
        contents.error = errno;
        return contents;
    }
    if (!S_ISREG(contents.status.st_mode)) {
        contents.error = S_ISDIR(contents.status.st_mode) ? EISDIR : EINVAL;
        return contents;
    }
    char block[16384];
    for (;;) {
        const auto count = ::read(file.get(), block, sizeof block);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0)
            contents.error = errno;
        else if (contents.bytes.size() + static_cast<std::size_t>(count) > limit)
            contents.error = EFBIG;
        if (count <= 0 || contents.error != 0) break;
        contents.bytes.append(block, static_cast<std::size_t>(count));
    }
    return contents;
}

namespace {

int writeAll(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const auto count = ::write(file, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

/// Makes the rename durable. A file system that cannot sync a folder is left to itself.
void syncFolderOf(const std::string& path) {
    const auto folder = fs::path(path).parent_path();
    const OwnedDescriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (descriptor) ::fsync(descriptor.get());
}

}  // namespace

int replacePrivateFile(const std::string& path, std::string_view bytes) {
    std::error_code code;
    auto target = path;
    if (fs::is_symlink(path, code)) {
        const auto real = fs::weakly_canonical(path, code);
        if (code) return code.value();
        target = real.string();
    }
    auto temporary = target + ".XXXXXX";
    const OwnedDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));  // mode 0600
    if (!file) return errno;
    int error = writeAll(file.get(), bytes);
    if (error == 0 && ::fsync(file.get()) != 0) error = errno;
    if (error == 0 && ::rename(temporary.c_str(), target.c_str()) != 0) error = errno;
    if (error != 0)
        ::unlink(temporary.c_str());
    else
        syncFolderOf(target);
    return error;
}

int makePrivateFolders(const std::string& path) {
    if (path.empty() || path == "/") return 0;
    if (::mkdir(path.c_str(), 0700) == 0) return 0;
    if (errno == ENOENT) {
        if (const int error = makePrivateFolders(fs::path(path).parent_path().string())) return error;
        if (::mkdir(path.c_str(), 0700) == 0) return 0;
    }
    if (errno != EEXIST) return errno;
    std::error_code code;
    return fs::is_directory(path, code) ? 0 : ENOTDIR;
}

OwnedDescriptor lockBeside(const std::string& path, std::chrono::milliseconds deadline) {
    OwnedDescriptor file(::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600));
    if (!file) return {};
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || std::chrono::steady_clock::now() >= end) return {};
        // The kernel has no lock with a deadline; holders keep it for milliseconds.
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return file;
}

std::string escaped(std::string_view text, std::string_view special) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else if (byte >= 0x20 && byte != 0x7f && special.find(c) == std::string_view::npos)
            out += c;
        else
            (((out += "\\x") += kDigits[byte >> 4]) += kDigits[byte & 15]);
    }
    return out;
}

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

std::optional<std::string> unescaped(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out += text[i];
            continue;
        }
        const char kind = ++i < text.size() ? text[i] : '\0';
        if (kind == '\\') {
            out += '\\';
        } else if (kind == 'n') {
            out += '\n';
        } else if (kind == 'x' && i + 2 < text.size() && hexDigit(text[i + 1]) >= 0 &&
                   hexDigit(text[i + 2]) >= 0) {
            out += static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2]));
            i += 2;
        } else {
            return std::nullopt;
        }
    }
    return out;
}

}  // namespace tarnwell
