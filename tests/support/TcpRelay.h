#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tarnwell::testing {

/// A bad line in front of a server: listens on a loopback port and passes bytes on, TLS untouched, until it
/// is told to stall, to cut, to be slow or to refuse. It makes moments exact: "after the next 100,000 bytes".
///
/// Bytes are counted and held up on their way from the server to the client. The operations are for any
/// thread and take effect for the bytes that are not passed on yet, on every connection.
class TcpRelay {
  public:
    using Deadline = std::chrono::milliseconds;

    /// `target` is the server's port on loopback; it is connected to for each connection anew.
    explicit TcpRelay(int target);
    ~TcpRelay();
    TcpRelay(const TcpRelay&) = delete;
    TcpRelay& operator=(const TcpRelay&) = delete;

    [[nodiscard]] int port() const { return port_; }

    /// After so many more bytes nothing comes from the server any more, ends of connections included;
    /// connections stay open and can be made.
    void stallAfter(std::int64_t bytes);
    /// After so many more bytes every connection is reset; new ones work.
    void cutAfter(std::int64_t bytes);
    void cut() { cutAfter(0); }
    /// Waits until the ordered stall or cut came. False at the deadline.
    bool waitForFault(Deadline deadline = std::chrono::seconds(20));
    /// 0: no limit.
    void setBytesPerSecond(std::int64_t rate);
    /// Each way; a round trip takes twice as long.
    void setDelay(std::chrono::milliseconds delay);
    /// While set, connections are closed as soon as they are made.
    void setRefusing(bool refusing);
    /// Ends every fault: what was held up goes on.
    void heal();

    [[nodiscard]] std::int64_t bytesFromServer() const;
    [[nodiscard]] int connections() const;

  private:
    using Clock = std::chrono::steady_clock;
    enum class Fault { kNone, kStall, kCut };
    struct Piece {
        std::string bytes;
        Clock::time_point due;
    };
    /// One direction of one connection.
    struct Way {
        int from = -1, to = -1;
        bool limited = false;  ///< from the server
        bool ended = false;    ///< `from` sends no more
        bool closed = false;   ///< `to` was told
        std::list<Piece> pieces;
        std::size_t held = 0;
    };
    struct Connection {
        std::array<int, 2> sockets{-1, -1};
        std::array<Way, 2> ways;
        bool dead = false;
    };

    void run();
    void accept();
    void receive(Way& way, bool& dead);
    void send(Way& way, bool& dead);
    void resetAll();
    void passed(std::int64_t bytes);
    void wake() const;
    [[nodiscard]] std::int64_t allowance(const Way& way);
    [[nodiscard]] int pollTimeout() const;
    static void closeConnection(Connection& connection, bool reset);

    int listener_ = -1, wakeRead_ = -1, wakeWrite_ = -1;
    const int target_;
    int port_ = 0;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    Fault fault_ = Fault::kNone;
    std::int64_t untilFault_ = 0;
    bool stalled_ = false, faultCame_ = false, refusing_ = false, stopping_ = false;
    std::int64_t rate_ = 0, bytes_ = 0;
    std::chrono::milliseconds delay_{0};
    double tokens_ = 0;
    Clock::time_point refilled_ = Clock::now();
    int accepted_ = 0;
    std::list<Connection> connections_;

    std::thread thread_;  // last: it uses all of the above
};

}  // namespace tarnwell::testing
