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
    std::vector<std::string> accounts(std::string_view service) override {
        std::lock_guard lock(mutex_);
        std::vector<std::string> found;
        for (const auto& [account, password] : passwords_[std::string(service)])
            found.push_back(account);
        return found;
    }
    std::optional<std::string> password(std::string_view service, std::string_view account) override {
        std::lock_guard lock(mutex_);
        const auto& ofService = passwords_[std::string(service)];
        const auto entry = ofService.find(std::string(account));
        return entry == ofService.end() ? std::nullopt : std::optional(entry->second);
    }
    bool setPassword(std::string_view service, std::string_view account, std::string_view password) override {
        std::lock_guard lock(mutex_);
        passwords_[std::string(service)][std::string(account)] = password;
        return true;
    }
    bool deletePassword(std::string_view service, std::string_view account) override {
        std::lock_guard lock(mutex_);
        return passwords_[std::string(service)].erase(std::string(account)) > 0;
    }

  private:
    mutable std::mutex mutex_;
    std::map<std::string, std::map<std::string, std::string>> passwords_;  // guarded by mutex_
};

}  // namespace tarnwell::testing
