#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell {

/// Generic passwords by service and account. Any thread; a call may block (for a bounded time) on the
/// desktop's secret service, so the main thread calls it at start-up only. Failures are logged and give none
/// or false.
class Keychain {
  public:
    virtual ~Keychain() = default;
    /// The accounts that have a password under `service`.
    [[nodiscard]] virtual std::vector<std::string> accounts(std::string_view service) = 0;
    [[nodiscard]] virtual std::optional<std::string> password(std::string_view service,
                                                              std::string_view account) = 0;
    virtual bool setPassword(std::string_view service, std::string_view account,
                             std::string_view password) = 0;
    virtual bool deletePassword(std::string_view service, std::string_view account) = 0;
};

}  // namespace tarnwell
