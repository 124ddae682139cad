#include <sched.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <future>
#include <mutex>
#include <thread>

#include "platform/NetlinkReachability.h"

namespace tarnwell {
namespace {

using namespace std::chrono_literals;

/// A count that other threads raise.
class Counter {
  public:
    void add() {
        std::lock_guard lock(mutex_);
        ++count_;
        changed_.notify_all();
    }
    bool waitFor(int count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 10s, [&] { return count_ >= count; });
    }
    int count() {
        std::lock_guard lock(mutex_);
        return count_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

/// A network that the test switches, and look-ups that it can hold.
struct Network {
    bool probe(const std::string&) {
        probes.add();
        held.wait(true);
        return up;
    }
    void release() {
        held = false;
        held.notify_all();
    }
    Counter probes;
    std::atomic<bool> up = true, held = false;
};

TEST(NetlinkReachabilityTest, stuckLookupHoldsNobodyUpForLong) {
    // Shared with a look-up that is left to itself.
    const auto network = std::make_shared<Network>();
    network->held = true;
    auto reachability = std::make_unique<NetlinkReachability>(
        [network](const std::string& host) { return network->probe(host); });
    const auto monitor = reachability->monitorForHost("slow.example.org");
    Counter turned;
    monitor->startNotifier([&] { turned.add(); });
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(monitor->reachable());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    network->release();
    EXPECT_TRUE(turned.waitFor(1)) << "whoever was told false hears of the late answer";
    EXPECT_TRUE(monitor->reachable());

    network->held = true;
    reachability->networkChanged();
    EXPECT_TRUE(monitor->reachable()) << "the last answer counts while a look-up runs";
    ASSERT_TRUE(network->probes.waitFor(2));
    start = std::chrono::steady_clock::now();
    reachability.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s) << "the end waited for the resolver";
    network->release();
}

TEST(NetlinkReachabilityTest, notifiesEachTurnToReachableUntilTheMonitorEnds) {
    Network network;
    network.up = false;
    NetlinkReachability reachability([&](const std::string& host) { return network.probe(host); });
    auto monitor = reachability.monitorForHost("example.org");
    const auto second = reachability.monitorForHost("example.org");
    Counter turned, secondTurned;
    monitor->startNotifier([&] { turned.add(); });
    second->startNotifier([&] { secondTurned.add(); });
    EXPECT_FALSE(monitor->reachable());
    network.up = true;
    reachability.networkChanged();
    EXPECT_TRUE(turned.waitFor(1));
    EXPECT_TRUE(monitor->reachable());
    reachability.networkChanged();
    EXPECT_TRUE(network.probes.waitFor(3));
    network.up = false;
    while (monitor->reachable())
        reachability.networkChanged();
    EXPECT_EQ(turned.count(), 1) << "staying reachable or turning unreachable is no news";
    monitor.reset();
    network.up = true;
    reachability.networkChanged();
    EXPECT_TRUE(secondTurned.waitFor(2));
    EXPECT_EQ(turned.count(), 1);
}

TEST(NetlinkReachabilityTest, notifierMayEndItsOwnMonitorAndMonitorsOutliveTheMaker) {
    Network network;
    std::unique_ptr<ReachabilityMonitor> own, left;
    Counter ended;
    {
        network.up = false;
        NetlinkReachability reachability([&](const std::string& host) { return network.probe(host); });
        own = reachability.monitorForHost("a.example.org");
        left = reachability.monitorForHost("b.example.org");
        EXPECT_FALSE(own->reachable());
        own->startNotifier([&] {
            own.reset();
            ended.add();
        });
        network.up = true;
        reachability.networkChanged();
        EXPECT_TRUE(ended.waitFor(1));
        while (!left->reachable())
            std::this_thread::yield();
    }
    EXPECT_TRUE(left->reachable());
}

TEST(NetlinkReachabilityTest, knowsLoopbackNamesAndAddressesWithoutAResolver) {
    for (const auto* host : {"localhost", "clientgateway.island.localhost", "x.localhost.", "127.0.0.1"}) {
        EXPECT_TRUE(routeToHostExists(host)) << host;
    }
    for (const auto* host : {"", "no such host", "300.1.1.1", "example.invalid"}) {
        EXPECT_FALSE(routeToHostExists(host)) << host;
    }
    NetlinkReachability reachability;
    EXPECT_TRUE(reachability.monitorForHost("gateway.localhost:8443")->reachable())
        << "the port counts for nothing, and the first question waits for the answer";
}

TEST(NetlinkReachabilityTest, kernelAnnouncesThatTheNetworkCame) {
    // In a network namespace of this thread's own, whose loopback device starts switched off.
    std::promise<std::string> outcome;
    std::thread([&] {
        if (::unshare(CLONE_NEWNET) != 0) return outcome.set_value("skip");
        NetlinkReachability reachability([](const std::string&) {
            std::ifstream state("/proc/thread-self/net/fib_trie");
            return std::string(std::istreambuf_iterator<char>(state), {}).find("127.0.0.1") !=
                   std::string::npos;
        });
        const auto monitor = reachability.monitorForHost("127.0.0.1");
        Counter turned;
        monitor->startNotifier([&] { turned.add(); });
        if (monitor->reachable()) return outcome.set_value("the device was up already");
        if (::system("ip link set lo up 2>/dev/null") != 0) return outcome.set_value("skip");
        outcome.set_value(turned.waitFor(1) ? "" : "no announcement arrived");
    }).join();
    const auto result = outcome.get_future().get();
    if (result == "skip") GTEST_SKIP() << "needs the right to make a network namespace, and the program ip";
    EXPECT_EQ(result, "");
}

}  // namespace
}  // namespace tarnwell
