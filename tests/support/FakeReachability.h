#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/Reachability.h"

namespace tarnwell::testing {

/// Hosts are reachable unless the test says otherwise. A port after the name counts for nothing. Any thread.
class FakeReachability final : public Reachability {
  public:
    [[nodiscard]] std::unique_ptr<ReachabilityMonitor> monitorForHost(const std::string& host) override {
        return std::make_unique<Monitor>(state_, withoutPort(host));
    }
    /// Calls the notifiers of the host's monitors, on this thread, when it turns reachable.
    void setReachable(const std::string& host, bool reachable) {
        update([&] { state_->hosts[withoutPort(host)] = reachable; });
    }
    /// As if the network went or came: every host.
    void setOnline(bool online) {
        update([&] { state_->online = online; });
    }

  private:
    class Monitor;
    struct State {
        std::mutex mutex;
        bool online = true;
        std::map<std::string, bool> hosts;
        std::set<Monitor*> monitors;

        [[nodiscard]] bool reachable(const std::string& host) const {
            const auto entry = hosts.find(host);
            return online && (entry == hosts.end() || entry->second);
        }
    };

    class Monitor final : public ReachabilityMonitor {
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

      private:
        friend class FakeReachability;
        std::shared_ptr<State> state_;
        const std::string host_;
        std::function<void()> notify_;  // guarded by the state's mutex
    };

    static std::string withoutPort(const std::string& host) { return host.substr(0, host.find(':')); }

    /// Applies `change` and calls the notifiers of the hosts that turned reachable by it.
    void update(const std::function<void()>& change) {
        std::vector<std::function<void()>> calls;
        {
            std::lock_guard lock(state_->mutex);
            std::set<Monitor*> unreachable;
            for (auto* monitor : state_->monitors) {
                if (!state_->reachable(monitor->host_)) unreachable.insert(monitor);
            }
            change();
            for (auto* monitor : unreachable) {
                if (monitor->notify_ && state_->reachable(monitor->host_)) calls.push_back(monitor->notify_);
            }
        }
        for (const auto& call : calls)
            call();
    }

    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace tarnwell::testing
