#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Keychain.h"

namespace tarnwell::testing {

/// Passwords in memory. Any thread.
class MemoryKeychain final : public Keychain {
  public:
    [[nodiscard]] std::vector<std::string> accounts(std::string_view service) override;
    [[nodiscard]] std::optional<std::string> password(std::string_view service,
                                                      std::string_view account) override;
    bool setPassword(std::string_view service, std::string_view account, std::string_view password) override;
    bool deletePassword(std::string_view service, std::string_view account) override;

    /// False: as a desktop without a secret service, every call fails.
    void setAvailable(bool available);
    /// The changes made, in order: "set SERVICE ACCOUNT PASSWORD" and "delete SERVICE ACCOUNT".
    [[nodiscard]] std::vector<std::string> history() const;

  private:
    mutable std::mutex mutex_;
    std::map<std::string, std::map<std::string, std::string>, std::less<>> passwords_;  // guarded by mutex_
    std::vector<std::string> history_;                                                  // guarded by mutex_
    bool available_ = true;                                                             // guarded by mutex_
};

}  // namespace tarnwell::testing
