#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Reachability.h"
#include "store/UserDomain.h"

namespace tarnwell {

struct ConnectorIdentity;

/// Which of the service's hosts can be reached, as far as this machine knows without sending anything.
/// One monitor per host, made at its first question and kept.
///
/// Threads: any; own small lock, held while a monitor is made or asked (neither blocks for longer than a
/// moment).
class ConnectorReachability {
  public:
    /// `identity` outlives this. `globalBecameReachable` is called on a thread of the monitor's choice.
    ConnectorReachability(Reachability& reachability, const ConnectorIdentity& identity,
                          std::function<void()> globalBecameReachable);

    [[nodiscard]] bool internetReachable();
    [[nodiscard]] bool globalReachable();
    /// False for no domain, and for one whose address is not a host name: nothing is ever sent there.
    [[nodiscard]] bool domainReachable(const std::optional<Domain>& domain);

    /// While set, nothing is reachable.
    [[nodiscard]] bool disableInternetConnection() const { return disabled_; }
    void setDisableInternetConnection(bool disabled) { disabled_ = disabled; }

    /// Ends the monitors; nothing is reachable afterwards.
    void stop();

  private:
    bool reachable(const std::string& key, const std::string& host, bool notify);

    Reachability& reachability_;
    const ConnectorIdentity& identity_;
    const std::function<void()> globalBecameReachable_;
    std::atomic<bool> disabled_{false};

    struct Entry {
        std::string host;
        std::shared_ptr<ReachabilityMonitor> monitor;
    };
    std::mutex mutex_;
    bool stopped_ = false;  // guarded by mutex_
    std::map<std::string, Entry>
        monitors_;  // guarded by mutex_; "internet", "global" or "domain:" + a domain's id
};

}  // namespace tarnwell
