#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/UserDefaults.h"

namespace tarnwell::testing {

/// Settings in memory, with the "disk" beside them. Any thread.
class MemoryUserDefaults final : public UserDefaults {
  public:
    using Values = std::map<std::string, std::string>;

    MemoryUserDefaults() = default;
    explicit MemoryUserDefaults(Values values) : values_(values), stored_(std::move(values)) {}

    [[nodiscard]] std::optional<std::string> get(std::string_view key) const override {
        std::lock_guard lock(mutex_);
        const auto value = values_.find(std::string(key));
        return value == values_.end() ? std::nullopt : std::optional(value->second);
    }
    void set(std::string_view key, std::string_view value) override {
        std::lock_guard lock(mutex_);
        apply(values_, std::string(key), std::string(value));
        changes_[std::string(key)] = std::string(value);
    }
    void remove(std::string_view key) override {
        std::lock_guard lock(mutex_);
        apply(values_, std::string(key), std::nullopt);
        changes_[std::string(key)] = std::nullopt;
    }
    [[nodiscard]] Values all() const override {
        std::lock_guard lock(mutex_);
        return values_;
    }
    bool synchronize() override {
        std::lock_guard lock(mutex_);
        for (const auto& [key, value] : changes_)
            apply(stored_, key, value);
        changes_.clear();
        values_ = stored_;
        return true;
    }

    /// What a program started after a crash would find: the values of the last synchronize().
    [[nodiscard]] Values stored() const {
        std::lock_guard lock(mutex_);
        return stored_;
    }
    /// Another process writes; seen here after the next synchronize().
    void storeElsewhere(const std::string& key, const std::optional<std::string>& value) {
        std::lock_guard lock(mutex_);
        apply(stored_, key, value);
    }

  private:
    static void apply(Values& values, const std::string& key, const std::optional<std::string>& value) {
        values.erase(key);
        if (value) values[key] = *value;
    }

    mutable std::mutex mutex_;
    Values values_, stored_;                                     // guarded by mutex_
    std::map<std::string, std::optional<std::string>> changes_;  // since the last synchronize(); likewise
};

}  // namespace tarnwell::testing
