#include "service/LoginThrottle.h"

#include <algorithm>

namespace tarnwell::service {

namespace {

constexpr std::size_t kMaxEntries = 20'000;

std::chrono::milliseconds penalty(int attempts) {
    const int beyond = attempts - LoginThrottle::kFreeFailures;
    if (beyond < 0) return std::chrono::milliseconds(0);
    return std::min(LoginThrottle::kFirstPenalty * (1 << std::min(beyond, 10)),
                    LoginThrottle::kLargestPenalty);
}

}  // namespace

std::optional<std::chrono::milliseconds> LoginThrottle::admit(const std::string& key, Clock::time_point now) {
    const std::lock_guard lock(lock_);
    if (entries_.size() >= kMaxEntries && !entries_.contains(key)) forgetOld(now);
    Entry& entry = entries_[key];
    if (entry.running == 0 && now - entry.nextAttempt > kMemory) entry.failures = 0;
    const auto start = std::max(now, entry.nextAttempt);
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(start - now);
    if (wait > kLongestWait) return std::nullopt;
    ++entry.running;
    entry.nextAttempt = start + penalty(entry.failures + entry.running);
    return wait;
}

void LoginThrottle::failed(const std::string& key) {
    const std::lock_guard lock(lock_);
    Entry& entry = entries_[key];
    entry.running = std::max(0, entry.running - 1);
    entry.failures = std::min(entry.failures + 1, 1000);
}

void LoginThrottle::succeeded(const std::string& key) {
    const std::lock_guard lock(lock_);
    const auto found = entries_.find(key);
    if (found == entries_.end()) return;
    if (--found->second.running <= 0) {
        entries_.erase(found);
    } else {
        found->second.failures = 0;
        found->second.nextAttempt = {};
    }
}

void LoginThrottle::forgetOld(Clock::time_point now) {
    std::erase_if(entries_, [&](const auto& entry) {
        return entry.second.running == 0 && now - entry.second.nextAttempt > kMemory;
    });
    // All in use: somebody tries many names at once. The ones with nothing running make room.
    if (entries_.size() >= kMaxEntries) {
        std::erase_if(entries_, [](const auto& entry) { return entry.second.running == 0; });
    }
}

}  // namespace tarnwell::service
