#include "connector/ConnectorReachability.h"

#include "connector/ConnectorEnvironment.h"
#include "connector/Endpoints.h"
#include "connector/UrlUtil.h"

namespace tarnwell {

ConnectorReachability::ConnectorReachability(Reachability& reachability, const ConnectorIdentity& identity,
                                             std::function<void()> globalBecameReachable)
    : reachability_(reachability),
      identity_(identity),
      globalBecameReachable_(std::move(globalBecameReachable)) {}

bool ConnectorReachability::internetReachable() {
    const auto& probe = identity_.internetProbe;
    return reachable("internet", probe.empty() ? identity_.globalAddress : probe, false);
}

bool ConnectorReachability::globalReachable() {
    return reachable("global", identity_.globalAddress, true);
}

bool ConnectorReachability::domainReachable(const std::optional<Domain>& domain) {
    if (!domain || !domain->Url || !isHostAddress(*domain->Url)) return false;
    return reachable("domain:" + domain->DomainId.value_or(""), endpoints::gatewayHost(*domain->Url), false);
}

bool ConnectorReachability::reachable(const std::string& key, const std::string& host, bool notify) {
    if (disabled_) return false;
    std::shared_ptr<ReachabilityMonitor> monitor;
    std::shared_ptr<ReachabilityMonitor>
        replaced;  // ends after the lock: a monitor may wait for its own thread
    {
        const std::lock_guard lock(mutex_);
        if (stopped_) return false;
        auto& entry = monitors_[key];
        // A domain that moved to another address gets a new monitor.
        if (!entry.monitor || entry.host != host) {
            replaced = std::move(entry.monitor);
            entry = {host, reachability_.monitorForHost(host)};
            if (notify) entry.monitor->startNotifier(globalBecameReachable_);
        }
        monitor = entry.monitor;
    }
    return monitor->reachable();
}

void ConnectorReachability::stop() {
    std::map<std::string, Entry> ended;  // ends after the lock, as above
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    ended.swap(monitors_);
}

}  // namespace tarnwell
