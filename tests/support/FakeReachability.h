#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Reachability.h"

namespace tarnwell::testing {

/// Hosts are reachable unless the test says otherwise. A port after the name counts for nothing. Any thread.
class FakeReachability final : public Reachability {
  public:
    FakeReachability();
    ~FakeReachability() override;

    [[nodiscard]] std::unique_ptr<ReachabilityMonitor> monitorForHost(const std::string& host) override;

    /// Calls the notifiers of the host's monitors, on this thread, when it turns reachable.
    void setReachable(const std::string& host, bool reachable);
    /// As if the network went or came: every host.
    void setOnline(bool online);
    /// The hosts for which monitors were asked, in order, ports included.
    [[nodiscard]] std::vector<std::string> monitoredHosts() const;

  private:
    struct State;
    class Monitor;
    std::shared_ptr<State> state_;
};

}  // namespace tarnwell::testing
