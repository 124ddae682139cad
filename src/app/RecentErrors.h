#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell {

/// The last few things that went wrong, oldest first, for the status report. Own lock; any thread.
class RecentErrors {
  public:
    static constexpr std::size_t kLimit = 20;

    /// A repetition of the newest text is not entered again.
    void add(std::string_view text);
    /// Enters a line of the log file ("[thread] date : message") if its message begins as warnings and errors
    /// do.
    void addLogLine(std::string_view line);
    [[nodiscard]] std::vector<std::string> list() const;

  private:
    mutable std::mutex mutex_;
    std::deque<std::string> texts_;  // guarded by mutex_
};

}  // namespace tarnwell
