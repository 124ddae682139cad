#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tarnwell::testing {

/// A program started by a test. Killed and reaped at the end of the scope, in whatever way the test ends.
class ChildProcess {
  public:
    using Environment = std::vector<std::pair<std::string, std::string>>;

    struct Options {
        std::vector<std::string> command{};
        Environment environment{};  ///< added to the test's own, or replacing it
        std::string input{};        ///< read by the program at once; for short texts
        std::string outputFile{};   ///< takes standard output and error
    };
    explicit ChildProcess(const Options& options);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    void signal(int number) const;
    /// The exit status, or minus the number of the signal that ended it; none when it still runs at the
    /// deadline.
    std::optional<int> wait(std::chrono::milliseconds deadline);

  private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

/// What a program that ran to its end left.
struct ProgramResult {
    int status = -1;
    std::string output;  ///< standard output and error
};

}  // namespace tarnwell::testing
