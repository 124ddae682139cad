#include "support/TcpRelay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <stdexcept>

namespace tarnwell::testing {

namespace {

constexpr std::size_t kHeldAtMost = 256 * 1024;
constexpr std::size_t kPieceBytes = 64 * 1024;
constexpr int kLongestPause = 1000;  // ms
constexpr double kBurstSeconds = 0.05;

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

}  // namespace

TcpRelay::TcpRelay(int target) : target_(target) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("pipe");
    wakeRead_ = ends[0];
    wakeWrite_ = ends[1];
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    auto address = loopback(0);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 128) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("the relay cannot listen");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

TcpRelay::~TcpRelay() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake();
    thread_.join();
    for (auto& connection : connections_)
        closeConnection(connection, false);
    for (const int descriptor : {listener_, wakeRead_, wakeWrite_})
        ::close(descriptor);
}

void TcpRelay::stallAfter(std::int64_t bytes) {
    const std::lock_guard lock(mutex_);
    fault_ = Fault::kStall;
    untilFault_ = bytes;
    faultCame_ = false;
    passed(0);
    wake();
}

void TcpRelay::cutAfter(std::int64_t bytes) {
    const std::lock_guard lock(mutex_);
    fault_ = Fault::kCut;
    untilFault_ = bytes;
    faultCame_ = stalled_ = false;
    passed(0);
    wake();
}

bool TcpRelay::waitForFault(Deadline deadline) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, deadline, [this] { return faultCame_; });
}

void TcpRelay::setBytesPerSecond(std::int64_t rate) {
    const std::lock_guard lock(mutex_);
    rate_ = rate;
    tokens_ = 0;
    refilled_ = Clock::now();
    wake();
}

void TcpRelay::setDelay(std::chrono::milliseconds delay) {
    const std::lock_guard lock(mutex_);
    delay_ = delay;
}

void TcpRelay::setRefusing(bool refusing) {
    const std::lock_guard lock(mutex_);
    refusing_ = refusing;
}

void TcpRelay::heal() {
    const std::lock_guard lock(mutex_);
    fault_ = Fault::kNone;
    stalled_ = faultCame_ = refusing_ = false;
    rate_ = 0;
    delay_ = {};
    wake();
}

std::int64_t TcpRelay::bytesFromServer() const {
    const std::lock_guard lock(mutex_);
    return bytes_;
}

int TcpRelay::connections() const {
    const std::lock_guard lock(mutex_);
    return accepted_;
}

void TcpRelay::wake() const {
    [[maybe_unused]] const auto written = ::write(wakeWrite_, "", 1);
}

/// REQUIRES mutex_.
void TcpRelay::passed(std::int64_t bytes) {
    bytes_ += bytes;
    if (fault_ == Fault::kNone) return;
    untilFault_ -= bytes;
    if (untilFault_ > 0) return;
    if (fault_ == Fault::kStall) stalled_ = true;
    if (fault_ == Fault::kCut) resetAll();
    fault_ = Fault::kNone;
    faultCame_ = true;
    changed_.notify_all();
}

void TcpRelay::resetAll() {
    for (auto& connection : connections_)
        connection.dead = true;
}

std::int64_t TcpRelay::allowance(const Way& way) {
    if (!way.limited) return std::numeric_limits<std::int64_t>::max();
    if (stalled_) return 0;
    std::int64_t allowed = std::numeric_limits<std::int64_t>::max();
    if (rate_ > 0) {
        const auto now = Clock::now();
        const auto rate = static_cast<double>(rate_);
        tokens_ += std::chrono::duration<double>(now - refilled_).count() * rate;
        tokens_ = std::min(tokens_, std::max(1.0, rate * kBurstSeconds));
        refilled_ = now;
        allowed = static_cast<std::int64_t>(tokens_);
    }
    return fault_ == Fault::kNone ? allowed : std::min(allowed, untilFault_);
}

void TcpRelay::run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        std::vector<pollfd> watched{{wakeRead_, POLLIN, 0}, {listener_, POLLIN, 0}};
        for (auto& connection : connections_) {
            for (int side = 0; side < 2; ++side) {
                const Way& in = connection.ways[static_cast<std::size_t>(side)];
                const bool reads = !in.ended && in.held < kHeldAtMost;
                watched.push_back(
                    {reads ? connection.sockets[static_cast<std::size_t>(side)] : -1, POLLIN, 0});
            }
        }
        const int timeout = pollTimeout();
        lock.unlock();
        ::poll(watched.data(), watched.size(), timeout);
        for (char drop[64]; ::read(wakeRead_, drop, sizeof drop) > 0;) {
        }
        lock.lock();
        std::size_t at = 2;
        for (auto& connection : connections_) {
            for (auto& way : connection.ways) {
                if (watched[at++].revents != 0) receive(way, connection.dead);
                send(way, connection.dead);
            }
        }
        for (auto& connection : connections_) {
            if (connection.ways[0].closed && connection.ways[1].closed) closeConnection(connection, false);
            if (connection.dead) closeConnection(connection, true);
        }
        connections_.remove_if([](const Connection& connection) { return connection.sockets[0] < 0; });
        if (watched[1].revents != 0) accept();
    }
}

void TcpRelay::accept() {
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client < 0) return;
    const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto address = loopback(target_);
    ++accepted_;
    if (refusing_ || ::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(client);
        ::close(server);
        return;
    }
    ::fcntl(server, F_SETFL, O_NONBLOCK);
    for (const int one = 1; const int descriptor : {client, server})
        ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    auto& connection = connections_.emplace_back();
    connection.sockets = {client, server};
    connection.ways[0].from = connection.ways[1].to = client;
    connection.ways[0].to = connection.ways[1].from = server;
    connection.ways[1].limited = true;
}

void TcpRelay::receive(Way& way, bool& dead) {
    std::string bytes(kPieceBytes, '\0');
    const auto count = ::recv(way.from, bytes.data(), bytes.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) {
        way.ended = true;
        // A reset passes at once, unless the line is stalled: then nobody hears of it.
        if (count < 0 && !(way.limited && stalled_)) dead = true;
        return;
    }
    bytes.resize(static_cast<std::size_t>(count));
    way.held += bytes.size();
    way.pieces.push_back({std::move(bytes), Clock::now() + delay_});
}

void TcpRelay::send(Way& way, bool& dead) {
    while (!way.pieces.empty() && !dead) {
        auto& piece = way.pieces.front();
        const auto allowed = std::min<std::int64_t>(allowance(way), std::ssize(piece.bytes));
        if (allowed <= 0 || piece.due > Clock::now()) return;
        const auto sent = ::send(way.to, piece.bytes.data(), static_cast<std::size_t>(allowed), MSG_NOSIGNAL);
        if (sent < 0) {
            dead = errno != EAGAIN && errno != EINTR;
            return;
        }
        way.held -= static_cast<std::size_t>(sent);
        piece.bytes.erase(0, static_cast<std::size_t>(sent));
        if (piece.bytes.empty()) way.pieces.pop_front();
        if (!way.limited) continue;
        tokens_ -= static_cast<double>(sent);
        passed(sent);
    }
    if (way.ended && !way.closed && way.pieces.empty() && !(way.limited && stalled_)) {
        ::shutdown(way.to, SHUT_WR);
        way.closed = true;
    }
}

/// How long nothing can become due.
int TcpRelay::pollTimeout() const {
    auto longest = std::chrono::milliseconds(kLongestPause);
    for (const auto& connection : connections_) {
        for (const auto& way : connection.ways) {
            if (way.pieces.empty() || (way.limited && stalled_)) continue;
            const auto wait =
                std::chrono::ceil<std::chrono::milliseconds>(way.pieces.front().due - Clock::now());
            longest = std::min(longest, std::max(wait, std::chrono::milliseconds(5)));
        }
    }
    return static_cast<int>(longest.count());
}

void TcpRelay::closeConnection(Connection& connection, bool reset) {
    for (int& descriptor : connection.sockets) {
        if (descriptor < 0) continue;
        if (reset) {
            const linger now{1, 0};
            ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        }
        ::close(descriptor);
        descriptor = -1;
    }
}

}  // namespace tarnwell::testing
