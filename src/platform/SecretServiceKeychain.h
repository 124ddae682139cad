#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/Keychain.h"

namespace tarnwell {

/// Passwords in the desktop's Secret Service (D-Bus), in the default collection.
///
/// The service may be absent, locked behind a question nobody answers, or dead. The exchange therefore runs
/// on a thread of its own ("tw-secrets"); a caller waits for it no longer than the deadline, then the
/// exchange is cancelled and the call fails. While an exchange that was given up is still stuck, further
/// calls fail at once.
class SecretServiceKeychain final : public Keychain {
  public:
    explicit SecretServiceKeychain(std::chrono::milliseconds deadline = std::chrono::seconds(10));
    ~SecretServiceKeychain() override;

    [[nodiscard]] std::vector<std::string> accounts(std::string_view service) override;
    [[nodiscard]] std::optional<std::string> password(std::string_view service,
                                                      std::string_view account) override;
    bool setPassword(std::string_view service, std::string_view account, std::string_view password) override;
    bool deletePassword(std::string_view service, std::string_view account) override;

  private:
    struct Worker;
    const std::chrono::milliseconds deadline_;
    std::shared_ptr<Worker> worker_;
};

}  // namespace tarnwell
