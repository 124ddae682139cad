#include "platform/NetlinkReachability.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/BackgroundQueue.h"
#include "platform/GuardedTask.h"
#include "platform/LocalSocket.h"
#include "util/TWLogger.h"

namespace tarnwell {

using std::chrono::milliseconds;
using SteadyTime = std::chrono::steady_clock::time_point;

namespace {

// How long the first question for a host waits for the first answer: a look-up on a working network is
// faster.
constexpr milliseconds kFirstAnswerWait{1000};
// Changes of the network come in bursts; the last one of a burst tells the state.
constexpr milliseconds kSettleTime{250};
constexpr milliseconds kLongestBurst{2000};
constexpr milliseconds kRepeatReachable = std::chrono::minutes(5);
constexpr milliseconds kRepeatUnreachable = std::chrono::seconds(30);
constexpr milliseconds kStopDeadline{500};
constexpr std::size_t kLookupThreads = 2;

std::string withoutPort(const std::string& host) {
    if (host.starts_with('['))
        return host.substr(1, host.find(']') == std::string::npos ? 0 : host.find(']') - 1);
    const auto colon = host.find(':');
    if (colon != host.rfind(':')) return host;  // an IPv6 address without brackets
    return host.substr(0, colon);
}

bool routeExists(const sockaddr* address, socklen_t length) {
    const OwnedDescriptor probe(::socket(address->sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return probe && ::connect(probe.get(), address, length) == 0;
}

OwnedDescriptor openNetlink() {
    OwnedDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups =
        RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
    if (!socket || ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        TWLog(kLogMain, "Warning! Cannot listen for network changes: %@", std::strerror(errno));
        return {};
    }
    return socket;
}

/// Reads all that waits. What it says does not matter: every message is a change, an overflow is many.
void drain(int descriptor) {
    char block[8192];
    while (::read(descriptor, block, sizeof block) > 0 || errno == ENOBUFS || errno == EINTR) {
    }
}

}  // namespace

bool routeToHostExists(const std::string& host) {
    const auto lastLabel = host.ends_with('.') ? host.substr(0, host.size() - 1) : host;
    const bool loopback = lastLabel == "localhost" || lastLabel.ends_with(".localhost");
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICSERV | (loopback ? AI_NUMERICHOST : 0);
    addrinfo* found = nullptr;
    if (::getaddrinfo(loopback ? "127.0.0.1" : host.c_str(), "443", &hints, &found) != 0) return false;
    bool reachable = false;
    for (const auto* entry = found; entry && !reachable; entry = entry->ai_next) {
        reachable = routeExists(entry->ai_addr, entry->ai_addrlen);
    }
    ::freeaddrinfo(found);
    return reachable;
}

/// Shared by the threads and the monitors; a look-up that is stuck in the resolver may outlive everybody
/// else.
struct NetlinkReachability::State : std::enable_shared_from_this<State> {
    struct Notifier {
        std::recursive_mutex mutex;  // held during the call, so that the monitor's end waits for it
        std::function<void()> becameReachable;  // guarded by mutex; empty once the monitor ended
    };
    struct Host {
        bool answered = false;
        bool reachable = false;
        bool looking = false;
        bool again = false;  // a change came while a look-up ran
        SteadyTime due{};    // next repetition
        std::vector<std::weak_ptr<Notifier>> notifiers;
        std::size_t monitors = 0;
    };

    explicit State(Probe function)
        : probe(std::move(function)),
          wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
          netlink(openNetlink()) {}

    const Probe probe;
    OwnedDescriptor wake;
    OwnedDescriptor netlink;
    BackgroundQueue lookups{kLookupThreads, "tw-lookup"};

    std::mutex mutex;  // before a notifier's mutex never; guards all below
    std::condition_variable answeredNow;
    std::map<std::string, Host> hosts;
    bool stopping = false;

    void signal() const {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(wake.get(), &one, sizeof one);
    }

    /// REQUIRES: mutex.
    void startLookup(const std::string& name, Host& host) {
        if (stopping) return;
        if (host.looking) {
            host.again = true;
            return;
        }
        host.looking = true;
        // Weak: the queue is ours, and its threads must not own it.
        lookups.async([weak = weak_from_this(), name] {
            if (const auto state = weak.lock()) state->look(name);
        });
    }

    /// Look-up thread.
    void look(const std::string& name) {
        bool reachable = false;
        runGuarded("Reachability look-up", [&] { reachable = probe(name); });
        std::vector<std::weak_ptr<Notifier>> notified;
        {
            std::lock_guard lock(mutex);
            const auto entry = hosts.find(name);
            if (entry == hosts.end()) return;
            auto& host = entry->second;
            if (reachable && !host.reachable) notified = host.notifiers;
            host.looking = false;
            host.answered = true;
            host.reachable = reachable;
            host.due = std::chrono::steady_clock::now() + (reachable ? kRepeatReachable : kRepeatUnreachable);
            if (std::exchange(host.again, false)) startLookup(name, host);
            answeredNow.notify_all();
        }
        signal();
        for (const auto& weak : notified) {
            const auto notifier = weak.lock();
            if (!notifier) continue;
            std::lock_guard lock(notifier->mutex);
            // A copy: the call may end its own monitor.
            if (const auto call = notifier->becameReachable) runGuarded("Reachability notifier", call);
        }
    }

    void lookAgain() {
        std::lock_guard lock(mutex);
        for (auto& [name, host] : hosts)
            startLookup(name, host);
    }

    /// Starts the repetitions that are due; returns the time until the next one. "tw-net".
    milliseconds repeatDue() {
        std::lock_guard lock(mutex);
        const auto now = std::chrono::steady_clock::now();
        auto next = now + kRepeatReachable;
        for (auto& [name, host] : hosts) {
            if (host.looking) continue;
            if (host.due <= now)
                startLookup(name, host);
            else
                next = std::min(next, host.due);
        }
        return std::chrono::ceil<milliseconds>(next - now);
    }

    bool stopped() {
        std::lock_guard lock(mutex);
        return stopping;
    }

    void listen() {
        std::optional<SteadyTime> changed;  // the first change that was not acted on
        while (!stopped()) {
            const auto pause = changed ? kSettleTime : repeatDue();
            pollfd watched[2] = {{wake.get(), POLLIN, 0}, {netlink.get(), POLLIN, 0}};
            const int ready = ::poll(watched, 2, static_cast<int>(pause.count()));
            const auto now = std::chrono::steady_clock::now();
            if (ready > 0 && watched[0].revents != 0) drain(wake.get());
            if (ready > 0 && watched[1].revents != 0) {
                drain(netlink.get());
                if (!changed) changed = now;
            }
            if (changed && (ready == 0 || now - *changed > kLongestBurst)) {
                changed.reset();
                lookAgain();
            }
        }
    }
};

class NetlinkReachability::Monitor final : public ReachabilityMonitor {
  public:
    Monitor(std::shared_ptr<State> state, std::string host)
        : state_(std::move(state)), name_(std::move(host)) {
        std::lock_guard lock(state_->mutex);
        auto& entry = state_->hosts[name_];
        if (entry.monitors++ == 0) state_->startLookup(name_, entry);
    }
    ~Monitor() override {
        {
            std::lock_guard lock(state_->mutex);
            const auto entry = state_->hosts.find(name_);
            if (--entry->second.monitors == 0) state_->hosts.erase(entry);
        }
        if (!notifier_) return;
        std::lock_guard lock(notifier_->mutex);
        notifier_->becameReachable = nullptr;
    }

    bool reachable() override {
        std::unique_lock lock(state_->mutex);
        auto& host = state_->hosts[name_];
        if (!host.answered && !state_->stopping) {
            state_->answeredNow.wait_for(lock, kFirstAnswerWait,
                                         [&] { return host.answered || state_->stopping; });
        }
        return host.reachable;
    }

    void startNotifier(std::function<void()> becameReachable) override {
        auto notifier = std::make_shared<State::Notifier>();
        notifier->becameReachable = std::move(becameReachable);
        std::lock_guard lock(state_->mutex);
        state_->hosts[name_].notifiers.push_back(notifier);
        notifier_ = std::move(notifier);
    }

  private:
    const std::shared_ptr<State> state_;
    const std::string name_;
    std::shared_ptr<State::Notifier> notifier_;
};

NetlinkReachability::NetlinkReachability(Probe probe) : state_(std::make_shared<State>(std::move(probe))) {
    listener_ = std::thread([state = state_] {
        nameThisThread("tw-net");
        runGuarded("Network listener", [&] { state->listen(); });
    });
}

NetlinkReachability::~NetlinkReachability() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
        state_->answeredNow.notify_all();
    }
    state_->signal();
    listener_.join();
    state_->lookups.stop(kStopDeadline);
}

std::unique_ptr<ReachabilityMonitor> NetlinkReachability::monitorForHost(const std::string& host) {
    return std::make_unique<Monitor>(state_, withoutPort(host));
}

void NetlinkReachability::networkChanged() {
    state_->lookAgain();
}

}  // namespace tarnwell
