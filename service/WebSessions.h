#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tarnwell::service {

/// Browsers that came in by a log-in link. A session holds the domain token of the device that made the link,
/// and lives as long as that does, at most `kLife`, and not beyond the end of the process. Any thread.
class WebSessions {
  public:
    static constexpr std::chrono::hours kLife{12};

    struct Session {
        std::string email;
        std::string domainId;
        std::string domainToken;  ///< a secret
    };
    /// The secret that the browser has to show.
    std::string begin(Session session);
    std::optional<Session> find(std::string_view secret);

  private:
    static constexpr std::size_t kMost = 10'000;
    using Clock = std::chrono::steady_clock;
    struct Entry {
        Session session;
        Clock::time_point end;
    };
    std::mutex lock_;
    std::map<std::string, Entry, std::less<>> sessions_;  ///< by the secret's digest; guarded by lock_
};

}  // namespace tarnwell::service
