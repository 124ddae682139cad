#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tarnwell {

/// The user's settings: text by key. Keys are used exactly as given ("Tarnwell.username", "cleanShutdown").
/// Any thread.
class UserDefaults {
  public:
    virtual ~UserDefaults() = default;
    [[nodiscard]] virtual std::optional<std::string> get(std::string_view key) const = 0;
    virtual void set(std::string_view key, std::string_view value) = 0;
    virtual void remove(std::string_view key) = 0;
    /// Every key with its value, by key.
    [[nodiscard]] virtual std::map<std::string, std::string> all() const = 0;
    /// Writes what changed, atomically, and takes over what another process wrote. False (and a log line) on
    /// failure.
    virtual bool synchronize() = 0;

    [[nodiscard]] bool contains(std::string_view key) const { return get(key).has_value(); }
    /// "true", "yes", "on" and numbers other than 0 are true; an absent or any other value is false.
    [[nodiscard]] bool getBool(std::string_view key) const;
    /// `fallback` when absent or not an integer.
    [[nodiscard]] int getInt(std::string_view key, int fallback) const;
};

}  // namespace tarnwell
