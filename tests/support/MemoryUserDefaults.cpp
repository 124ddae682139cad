#include "support/MemoryUserDefaults.h"

namespace tarnwell::testing {

std::optional<std::string> MemoryUserDefaults::get(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const auto value = values_.find(std::string(key));
    if (value == values_.end()) return std::nullopt;
    return value->second;
}

void MemoryUserDefaults::set(std::string_view key, std::string_view value) {
    std::lock_guard lock(mutex_);
    values_[std::string(key)] = value;
    changes_[std::string(key)] = std::string(value);
}

void MemoryUserDefaults::remove(std::string_view key) {
    std::lock_guard lock(mutex_);
    values_.erase(std::string(key));
    changes_[std::string(key)] = std::nullopt;
}

MemoryUserDefaults::Values MemoryUserDefaults::all() const {
    std::lock_guard lock(mutex_);
    return values_;
}

bool MemoryUserDefaults::synchronize() {
    std::lock_guard lock(mutex_);
    if (diskFull_) return false;
    for (const auto& [key, value] : changes_) {
        if (value)
            stored_[key] = *value;
        else
            stored_.erase(key);
    }
    changes_.clear();
    values_ = stored_;
    return true;
}

MemoryUserDefaults::Values MemoryUserDefaults::stored() const {
    std::lock_guard lock(mutex_);
    return stored_;
}

void MemoryUserDefaults::storeElsewhere(const std::string& key, std::optional<std::string> value) {
    std::lock_guard lock(mutex_);
    if (value)
        stored_[key] = *value;
    else
        stored_.erase(key);
}

void MemoryUserDefaults::setDiskFull(bool full) {
    std::lock_guard lock(mutex_);
    diskFull_ = full;
}

}  // namespace tarnwell::testing
