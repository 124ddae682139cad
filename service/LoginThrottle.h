#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace tarnwell::service {

/// Slows down guessing of one user's password, without holding anybody else up. The first failures cost
/// nothing; each further one doubles the distance to the next attempt, up to a limit, also for attempts made
/// at the same time. Keys are those of failed and running attempts only; their number is bounded. Any thread.
class LoginThrottle {
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr int kFreeFailures = 5;
    static constexpr std::chrono::milliseconds kFirstPenalty{500};
    static constexpr std::chrono::milliseconds kLargestPenalty{8000};
    /// An attempt that would have to wait for longer is refused: clients give up after 15 s.
    static constexpr std::chrono::milliseconds kLongestWait{10'000};
    /// After this time without an attempt the failures are forgotten.
    static constexpr std::chrono::minutes kMemory{15};

    /// How long this attempt has to wait, its turn being taken; none when there are too many before it.
    std::optional<std::chrono::milliseconds> admit(const std::string& key,
                                                   Clock::time_point now = Clock::now());
    void failed(const std::string& key);
    void succeeded(const std::string& key);

  private:
    struct Entry {
        int failures = 0;
        int running = 0;                ///< attempts admitted and not yet judged: they count as failures
        Clock::time_point nextAttempt;  ///< the earliest time of the next one
    };
    void forgetOld(Clock::time_point now);

    std::mutex lock_;
    std::unordered_map<std::string, Entry> entries_;  ///< guarded by lock_
};

}  // namespace tarnwell::service
