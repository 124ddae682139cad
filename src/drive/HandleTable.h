#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace tarnwell {

/// The objects behind the handle numbers that the kernel carries. A number the table does not know is simply
/// absent, and whatever the kernel never released goes with the table.
///
/// Threads: any; own lock, innermost.
template <class T>
class HandleTable {
  public:
    std::uint64_t add(std::shared_ptr<T> object) {
        std::lock_guard lock(mutex_);
        objects_.emplace(++last_, std::move(object));
        return last_;
    }
    [[nodiscard]] std::shared_ptr<T> find(std::uint64_t handle) const {
        std::lock_guard lock(mutex_);
        const auto found = objects_.find(handle);
        return found == objects_.end() ? nullptr : found->second;
    }
    /// An object of which `matches(object)` is true; it is called under the table's lock.
    template <class Matches>
    [[nodiscard]] std::shared_ptr<T> findIf(Matches matches) const {
        std::lock_guard lock(mutex_);
        for (const auto& [handle, object] : objects_) {
            if (matches(*object)) return object;
        }
        return nullptr;
    }
    [[nodiscard]] std::vector<std::shared_ptr<T>> all() const {
        std::lock_guard lock(mutex_);
        std::vector<std::shared_ptr<T>> result;
        for (const auto& [handle, object] : objects_)
            result.push_back(object);
        return result;
    }
    std::shared_ptr<T> remove(std::uint64_t handle) {
        std::lock_guard lock(mutex_);
        const auto found = objects_.find(handle);
        if (found == objects_.end()) return nullptr;
        auto object = std::move(found->second);
        objects_.erase(found);
        return object;
    }

  private:
    mutable std::mutex mutex_;
    // Guarded by mutex_.
    boost::unordered_flat_map<std::uint64_t, std::shared_ptr<T>> objects_;
    std::uint64_t last_ = 0;
};

}  // namespace tarnwell
