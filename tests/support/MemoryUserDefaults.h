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

    [[nodiscard]] std::optional<std::string> get(std::string_view key) const override;
    void set(std::string_view key, std::string_view value) override;
    void remove(std::string_view key) override;
    [[nodiscard]] Values all() const override;
    bool synchronize() override;

    /// What a program started after a crash would find: the values of the last synchronize().
    [[nodiscard]] Values stored() const;
    /// Another process writes; seen here after the next synchronize().
    void storeElsewhere(const std::string& key, std::optional<std::string> value);
    /// From now on synchronize() fails and stores nothing.
    void setDiskFull(bool full);

  private:
    mutable std::mutex mutex_;
    Values values_;  // guarded by mutex_, as all below
    Values stored_;
    std::map<std::string, std::optional<std::string>> changes_;  // since the last synchronize()
    bool diskFull_ = false;
};

}  // namespace tarnwell::testing
