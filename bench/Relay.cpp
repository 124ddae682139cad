// A slow link on loopback: forwards TCP connections to a port, each direction delayed and limited in rate.
//   relay TARGET-PORT ROUND-TRIP-MILLISECONDS MEGABITS-PER-SECOND
// Prints "listening on PORT", then "connection" for each one that it takes. All connections share the rate of
// a direction, as they would share a link. A connection begins one round trip late, as its handshake would
// have it. What congestion control would make of the link is not imitated.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace {

using SteadyClock = std::chrono::steady_clock;
using SteadyTime = SteadyClock::time_point;

constexpr std::size_t kPiece = 64 << 10;
/// What waits before the link, in time: the buffer of a router.
constexpr std::chrono::milliseconds kBuffer{30};
constexpr int kSocketBuffer = 256 << 10;

/// One direction of the link: when bytes that are given to it now come out.
class Direction {
  public:
    Direction(std::chrono::nanoseconds delay, double bytesPerSecond)
        : delay_(delay), bytesPerSecond_(bytesPerSecond) {}

    /// Waits for a place in the link's buffer.
    SteadyTime carry(std::size_t bytes) {
        SteadyTime sent;
        {
            const std::lock_guard lock(mutex_);
            const std::chrono::duration<double> time(static_cast<double>(bytes) / bytesPerSecond_);
            free_ = std::max(free_, SteadyClock::now()) +
                    std::chrono::duration_cast<std::chrono::nanoseconds>(time);
            sent = free_;
        }
        std::this_thread::sleep_until(sent - kBuffer);
        return sent + delay_;
    }

  private:
    const std::chrono::nanoseconds delay_;
    const double bytesPerSecond_;
    std::mutex mutex_;
    SteadyTime free_;  // guarded by mutex_
};

class Socket {
  public:
    explicit Socket(int descriptor) : descriptor_(descriptor) {
        const int on = 1;
        ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        // Small ones: the link's own buffer is the one that counts.
        ::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
    }
    ~Socket() { ::close(descriptor_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    [[nodiscard]] int get() const { return descriptor_; }

  private:
    const int descriptor_;
};
using SocketPtr = std::shared_ptr<Socket>;

/// What is on the way from one socket to the other.
struct Line {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::pair<SteadyTime, std::string>> pieces;  // guarded by mutex; an empty piece is the end
};

void give(Line& line, SteadyTime due, std::string piece) {
    const std::lock_guard lock(line.mutex);
    line.pieces.emplace_back(due, std::move(piece));
    line.changed.notify_one();
}

void receive(const SocketPtr& from, const std::shared_ptr<Line>& line, Direction& direction) {
    for (std::string piece;;) {
        piece.resize(kPiece);
        const auto count = ::recv(from->get(), piece.data(), piece.size(), 0);
        if (count <= 0) break;
        piece.resize(static_cast<std::size_t>(count));
        const auto due = direction.carry(piece.size());
        give(*line, due, std::move(piece));
    }
    give(*line, direction.carry(1), {});
}

void deliver(const SocketPtr& to, const std::shared_ptr<Line>& line) {
    for (;;) {
        std::pair<SteadyTime, std::string> next;
        {
            std::unique_lock lock(line->mutex);
            line->changed.wait(lock, [&] { return !line->pieces.empty(); });
            next = std::move(line->pieces.front());
            line->pieces.pop_front();
        }
        std::this_thread::sleep_until(next.first);
        for (std::size_t done = 0; done < next.second.size();) {
            const auto count =
                ::send(to->get(), next.second.data() + done, next.second.size() - done, MSG_NOSIGNAL);
            if (count <= 0) break;  // the other direction sees the end as well
            done += static_cast<std::size_t>(count);
        }
        if (next.second.empty()) {
            ::shutdown(to->get(), SHUT_WR);
            return;
        }
    }
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

void relay(SocketPtr client, int targetPort, std::chrono::nanoseconds roundTrip, Direction& up,
           Direction& down) {
    std::this_thread::sleep_for(roundTrip);
    const auto server = std::make_shared<Socket>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto address = loopback(targetPort);
    if (::connect(server->get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return;
    const auto upward = std::make_shared<Line>();
    const auto downward = std::make_shared<Line>();
    std::thread([=, &up] { receive(client, upward, up); }).detach();
    std::thread([=, &down] { receive(server, downward, down); }).detach();
    std::thread([=] { deliver(server, upward); }).detach();
    deliver(client, downward);
}

}  // namespace

int main(int count, char** words) {
    if (count != 4) {
        std::fprintf(stderr, "usage: %s TARGET-PORT ROUND-TRIP-MILLISECONDS MEGABITS-PER-SECOND\n", words[0]);
        return 2;
    }
    const int targetPort = std::atoi(words[1]);
    const auto roundTrip = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::duration<double, std::milli>(std::atof(words[2])));
    const double rate = std::atof(words[3]) * 1e6 / 8;
    // Never destroyed: connections may still use them when the program is ended.
    auto& up = *new Direction(roundTrip / 2, rate);
    auto& down = *new Direction(roundTrip / 2, rate);

    const Socket listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    auto address = loopback(0);
    socklen_t size = sizeof address;
    if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        ::listen(listener.get(), 100) != 0 ||
        ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        std::perror("relay");
        return 1;
    }
    std::printf("listening on %d\n", ntohs(address.sin_port));
    std::fflush(stdout);
    for (;;) {
        const int descriptor = ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor < 0) continue;
        std::puts("connection");
        std::fflush(stdout);
        auto client = std::make_shared<Socket>(descriptor);
        std::thread([=, &up, &down] { relay(client, targetPort, roundTrip, up, down); }).detach();
    }
}
