#pragma once

#include <functional>
#include <memory>
#include <string>

namespace tarnwell {

/// Whether one host can be reached, as far as this machine knows without sending anything.
class ReachabilityMonitor {
  public:
    virtual ~ReachabilityMonitor() = default;
    /// The present state: the name resolves and a route exists. Never blocks for longer than a moment: name
    /// look-ups run in the background and the last answer counts. Any thread.
    [[nodiscard]] virtual bool reachable() = 0;
    /// Calls `becameReachable` each time the host turns from unreachable to reachable, on a thread of the
    /// monitor's choice. The call ends with the monitor.
    virtual void startNotifier(std::function<void()> becameReachable) = 0;
};

/// Makes monitors. `host` is a DNS name or address; a port (":8443") may follow and is ignored.
class Reachability {
  public:
    virtual ~Reachability() = default;
    [[nodiscard]] virtual std::unique_ptr<ReachabilityMonitor> monitorForHost(const std::string& host) = 0;
};

}  // namespace tarnwell
