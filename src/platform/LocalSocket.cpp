#include "platform/LocalSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

namespace tarnwell {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr int kBacklog = 16;

/// A socket address for `path`. A path too long for it is written as /proc/self/fd/N/name: the descriptor
/// `folder` must then stay open as long as the address is used.
struct LocalAddress {
    OwnedDescriptor folder;
    sockaddr_un address{};
    bool valid = false;

    explicit LocalAddress(const std::string& path) {
        address.sun_family = AF_UNIX;
        std::string shortPath = path;
        if (path.size() >= sizeof address.sun_path) {
            const std::filesystem::path whole(path);
            folder = OwnedDescriptor(open(whole.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            if (!folder) return;
            shortPath = "/proc/self/fd/" + std::to_string(folder.get()) + "/" + whole.filename().string();
        }
        if (shortPath.size() >= sizeof address.sun_path) {
            errno = ENAMETOOLONG;
            return;
        }
        std::memcpy(address.sun_path, shortPath.c_str(), shortPath.size() + 1);
        valid = true;
    }
    [[nodiscard]] const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
};

/// Waits until `descriptor` is ready for `events` or the deadline passed.
bool waitFor(int descriptor, short events, SteadyClock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now());
        if (left.count() <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd waiting{descriptor, events, 0};
        const int ready = poll(&waiting, 1, static_cast<int>(left.count()));
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return false;
    }
}

bool sendAll(int descriptor, std::string_view text, SteadyClock::time_point deadline) {
    while (!text.empty()) {
        const ssize_t sent = send(descriptor, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            text.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno == EAGAIN) {
            if (!waitFor(descriptor, POLLOUT, deadline)) return false;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool receiveAll(int descriptor, std::string& text, SteadyClock::time_point deadline) {
    char buffer[16384];
    for (;;) {
        const ssize_t got = recv(descriptor, buffer, sizeof buffer, 0);
        if (got == 0) return true;
        if (got > 0) {
            text.append(buffer, static_cast<std::size_t>(got));
            if (text.size() > kLocalTextLimit) {
                errno = EMSGSIZE;
                return false;
            }
        } else if (errno == EAGAIN) {
            if (!waitFor(descriptor, POLLIN, deadline)) return false;
        } else if (errno != EINTR) {
            return false;
        }
    }
}

}  // namespace

OwnedDescriptor& OwnedDescriptor::operator=(OwnedDescriptor&& other) noexcept {
    if (this != &other) {
        reset();
        descriptor_ = other.release();
    }
    return *this;
}

int OwnedDescriptor::release() noexcept {
    return std::exchange(descriptor_, -1);
}

void OwnedDescriptor::reset() noexcept {
    if (descriptor_ >= 0) close(release());
}

namespace {

/// EAGAIN: its backlog is full, so somebody made one.
bool isListenedAt(const LocalAddress& address) {
    const OwnedDescriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return probe && (connect(probe.get(), address.get(), sizeof address.address) == 0 || errno == EAGAIN);
}

}  // namespace

OwnedDescriptor listenLocal(const std::string& path, std::string& error) {
    const auto failed = [&error](const char* step) {
        error = std::string(step) + ": " + std::strerror(errno);
        return OwnedDescriptor();
    };
    OwnedDescriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener) return failed("socket");
    // The file takes the mode of the socket: set before bind, it is never open to others, not even for a
    // moment.
    if (fchmod(listener.get(), S_IRUSR | S_IWUSR) != 0) return failed("fchmod");
    const LocalAddress address(path);
    if (!address.valid) return failed("path");
    if (isListenedAt(address)) {
        error = kLocalSocketInUse;
        return {};
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) return failed("unlink");
    if (bind(listener.get(), address.get(), sizeof address.address) != 0) return failed("bind");
    if (listen(listener.get(), kBacklog) != 0) return failed("listen");
    return listener;
}

LocalAnswer sendLocalText(const std::string& path, std::string_view text,
                          std::chrono::milliseconds deadline) {
    const auto end = SteadyClock::now() + deadline;
    LocalAnswer answer;
    const auto failed = [&answer](const char* step) {
        answer.error = std::string(step) + ": " + std::strerror(errno);
        return std::move(answer);
    };
    const OwnedDescriptor connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!connection) return failed("socket");
    const LocalAddress address(path);
    if (!address.valid) return failed("path");
    // EAGAIN: the listener's backlog is full; a unix socket gives no event for that, so it counts as a
    // failure.
    if (connect(connection.get(), address.get(), sizeof address.address) != 0) return failed("connect");
    answer.connected = true;
    if (!sendAll(connection.get(), text, end)) return failed("send");
    shutdown(connection.get(), SHUT_WR);
    if (!receiveAll(connection.get(), answer.text, end)) return failed("receive");
    return answer;
}

}  // namespace tarnwell
