#include "support/FakeReachability.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <set>

namespace tarnwell::testing {

namespace {

std::string withoutPort(const std::string& host) {
    return host.substr(0, host.find(':'));
}

}  // namespace

struct FakeReachability::State {
    std::mutex mutex;
    bool online = true;
    std::map<std::string, bool> hosts;
    std::vector<std::string> monitored;
    std::set<Monitor*> monitors;

    bool reachable(const std::string& host) const {
        const auto entry = hosts.find(host);
        return online && (entry == hosts.end() || entry->second);
    }
};

class FakeReachability::Monitor final : public ReachabilityMonitor {
  public:
    Monitor(std::shared_ptr<State> state, std::string host)
        : state_(std::move(state)), host_(std::move(host)) {
        std::lock_guard lock(state_->mutex);
        state_->monitors.insert(this);
    }
    ~Monitor() override {
        std::lock_guard lock(state_->mutex);
        state_->monitors.erase(this);
    }
    bool reachable() override {
        std::lock_guard lock(state_->mutex);
        return state_->reachable(host_);
    }
    void startNotifier(std::function<void()> becameReachable) override {
        std::lock_guard lock(state_->mutex);
        notify_ = std::move(becameReachable);
    }

    /// Applies `change` and calls the notifiers of the hosts that turned reachable by it.
    static void update(State& state, const std::function<void()>& change) {
        std::vector<std::function<void()>> calls;
        {
            std::lock_guard lock(state.mutex);
            std::set<Monitor*> unreachable;
            for (auto* monitor : state.monitors) {
                if (!state.reachable(monitor->host_)) unreachable.insert(monitor);
            }
            change();
            for (auto* monitor : unreachable) {
                if (monitor->notify_ && state.reachable(monitor->host_)) calls.push_back(monitor->notify_);
            }
        }
        for (const auto& call : calls)
            call();
    }

  private:
    std::shared_ptr<State> state_;
    const std::string host_;
    std::function<void()> notify_;  // guarded by the state's mutex
};

FakeReachability::FakeReachability() : state_(std::make_shared<State>()) {}
FakeReachability::~FakeReachability() = default;

std::unique_ptr<ReachabilityMonitor> FakeReachability::monitorForHost(const std::string& host) {
    {
        std::lock_guard lock(state_->mutex);
        state_->monitored.push_back(host);
    }
    return std::make_unique<Monitor>(state_, withoutPort(host));
}

void FakeReachability::setReachable(const std::string& host, bool reachable) {
    Monitor::update(*state_, [&] { state_->hosts[withoutPort(host)] = reachable; });
}

void FakeReachability::setOnline(bool online) {
    Monitor::update(*state_, [&] { state_->online = online; });
}

std::vector<std::string> FakeReachability::monitoredHosts() const {
    std::lock_guard lock(state_->mutex);
    return state_->monitored;
}

}  // namespace tarnwell::testing
