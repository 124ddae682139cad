#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "platform/Reachability.h"

namespace tarnwell {

/// Whether the name of `host` (no port) resolves and a route to one of its addresses exists. Sends nothing to
/// the host itself: a connected UDP socket asks the kernel's routing table. May block on the resolver. Names
/// ending in ".localhost", and "localhost", are loopback without a look-up.
bool routeToHostExists(const std::string& host);

/// Reachability by look-up and routing table, kept up to date by the kernel's own announcements (netlink) and
/// by a slow repetition, since a resolver's recovery is announced by nobody.
///
/// Threads: "tw-net" listens and schedules; "tw-lookup-N" look names up, as that may take many seconds.
/// Notifiers run on a look-up thread. Destruction ends both within a deadline.
class NetlinkReachability final : public Reachability {
  public:
    using Probe = std::function<bool(const std::string& host)>;

    /// `probe` may block; called on the look-up threads.
    explicit NetlinkReachability(Probe probe = routeToHostExists);
    ~NetlinkReachability() override;

    /// Monitors may outlive this object; their state then stays as it is.
    [[nodiscard]] std::unique_ptr<ReachabilityMonitor> monitorForHost(const std::string& host) override;
    /// Looks all hosts up again, as after a change of the network.
    void networkChanged();

  private:
    struct State;
    class Monitor;
    std::shared_ptr<State> state_;
    std::thread listener_;
};

}  // namespace tarnwell
