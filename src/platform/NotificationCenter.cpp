#include "platform/NotificationCenter.h"

#include "platform/GuardedTask.h"

namespace tarnwell {

Subscription NotificationCenter::add(std::type_index type, Observer observer) {
    auto token = std::make_shared<Observer>(std::move(observer));
    std::lock_guard lock(mutex_);
    auto& observers = observers_[type];
    std::erase_if(observers, [](const auto& entry) { return entry.expired(); });
    observers.push_back(token);
    return Subscription(std::move(token));
}

void NotificationCenter::deliver(std::type_index type, const void* notification) {
    std::vector<std::weak_ptr<Observer>> observers;
    {
        std::lock_guard lock(mutex_);
        const auto entry = observers_.find(type);
        if (entry == observers_.end()) return;
        observers = entry->second;
    }
    // Each one is looked up at its turn: an earlier observer may have ended the subscription of a later one.
    for (const auto& entry : observers) {
        if (const auto observer = entry.lock()) {
            runGuarded("Notification observer", [&] { (*observer)(notification); });
        }
    }
}

}  // namespace tarnwell
