#include "support/MemoryKeychain.h"

namespace tarnwell::testing {

std::vector<std::string> MemoryKeychain::accounts(std::string_view service) {
    std::lock_guard lock(mutex_);
    std::vector<std::string> found;
    const auto entries = passwords_.find(service);
    if (!available_ || entries == passwords_.end()) return found;
    for (const auto& [account, password] : entries->second)
        found.push_back(account);
    return found;
}

std::optional<std::string> MemoryKeychain::password(std::string_view service, std::string_view account) {
    std::lock_guard lock(mutex_);
    const auto entries = passwords_.find(service);
    if (!available_ || entries == passwords_.end()) return std::nullopt;
    const auto entry = entries->second.find(std::string(account));
    if (entry == entries->second.end()) return std::nullopt;
    return entry->second;
}

bool MemoryKeychain::setPassword(std::string_view service, std::string_view account,
                                 std::string_view password) {
    std::lock_guard lock(mutex_);
    if (!available_) return false;
    passwords_[std::string(service)][std::string(account)] = password;
    history_.push_back("set " + std::string(service) + " " + std::string(account) + " " +
                       std::string(password));
    return true;
}

bool MemoryKeychain::deletePassword(std::string_view service, std::string_view account) {
    std::lock_guard lock(mutex_);
    const auto entries = passwords_.find(service);
    if (!available_ || entries == passwords_.end() || entries->second.erase(std::string(account)) == 0)
        return false;
    history_.push_back("delete " + std::string(service) + " " + std::string(account));
    return true;
}

void MemoryKeychain::setAvailable(bool available) {
    std::lock_guard lock(mutex_);
    available_ = available;
}

std::vector<std::string> MemoryKeychain::history() const {
    std::lock_guard lock(mutex_);
    return history_;
}

}  // namespace tarnwell::testing
