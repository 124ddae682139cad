#pragma once

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <typeindex>
#include <vector>

namespace tarnwell {

/// Ends an observation when destroyed. Move-only; may outlive the centre.
/// When the destructor returns, no call of the observer begins any more; one that runs on another thread may
/// finish.
class Subscription {
  public:
    Subscription() = default;
    explicit Subscription(std::shared_ptr<void> token) : token_(std::move(token)) {}
    void reset() { token_.reset(); }

  private:
    std::shared_ptr<void> token_;
};

/// Typed notifications: the type's name is the notification's name.
///
///     auto subscription = center.observe<TWConnectorGlobalLoggedOut>([](const auto&) { ... });
///     center.post(TWConnectorGlobalLoggedOut{});
///
/// Observers run on the posting thread, in the order in which they were added, with no lock held; they must
/// not block and hop to their own thread themselves. An exception of one is logged and does not keep the
/// others from running.
class NotificationCenter {
  public:
    template <class Notification>
    [[nodiscard]] Subscription observe(std::function<void(const Notification&)> observer) {
        return add(typeid(Notification), [observer = std::move(observer)](const void* notification) {
            observer(*static_cast<const Notification*>(notification));
        });
    }
    template <class Notification>
    void post(const Notification& notification) {
        deliver(typeid(Notification), &notification);
    }

  private:
    using Observer = std::function<void(const void*)>;

    Subscription add(std::type_index type, Observer observer);
    void deliver(std::type_index type, const void* notification);

    std::mutex mutex_;
    std::map<std::type_index, std::vector<std::weak_ptr<Observer>>> observers_;  // guarded by mutex_
};

}  // namespace tarnwell
