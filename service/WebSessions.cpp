#include "service/WebSessions.h"

#include <algorithm>

#include "service/Secrets.h"

namespace tarnwell::service {

std::string WebSessions::begin(Session session) {
    std::string secret = randomToken();
    const auto now = Clock::now();
    const std::lock_guard lock(lock_);
    if (sessions_.size() >= kMost) {
        std::erase_if(sessions_, [&](const auto& entry) { return entry.second.end <= now; });
        if (sessions_.size() >= kMost) {
            sessions_.erase(std::min_element(sessions_.begin(), sessions_.end(),
                                             [](auto& a, auto& b) { return a.second.end < b.second.end; }));
        }
    }
    sessions_.emplace(digestOf(secret), Entry{std::move(session), now + kLife});
    return secret;
}

std::optional<WebSessions::Session> WebSessions::find(std::string_view secret) {
    const std::lock_guard lock(lock_);
    const auto found = sessions_.find(digestOf(secret));
    if (found == sessions_.end()) return std::nullopt;
    if (found->second.end <= Clock::now()) {
        sessions_.erase(found);
        return std::nullopt;
    }
    return found->second.session;
}

}  // namespace tarnwell::service
