#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "support/TemporaryFolder.h"

namespace tarnwell::testing {

/// Sends the program's log into a folder of its own for the time of a scope. One at a time in a process.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Every line of both log files as written, with prefix.
    [[nodiscard]] std::vector<std::string> lines() const;
    /// Whether a line holds `text`.
    [[nodiscard]] bool contains(std::string_view text) const { return count(text) > 0; }
    /// How many lines hold `text`.
    [[nodiscard]] std::size_t count(std::string_view text) const;
    /// All lines, for the message of a failed assertion.
    [[nodiscard]] std::string text() const;

  private:
    TemporaryFolder folder_;
};

}  // namespace tarnwell::testing
