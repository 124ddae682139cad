#pragma once

#include <csignal>
#include <cstdio>
#include <string>

#include "support/TemporaryFolder.h"

namespace tarnwell::testing {

/// A shell command beside the test; killed at the end of the scope.
class SideProgram {
  public:
    explicit SideProgram(const std::string& command);
    ~SideProgram();
    SideProgram(const SideProgram&) = delete;
    SideProgram& operator=(const SideProgram&) = delete;
    /// Waits for the next line that it prints; empty at its end.
    std::string line();
    void signal(int number) const { ::kill(pid_, number); }

  private:
    FILE* output_;
    int pid_;
};

/// A message bus that starts no services, named to this process as its session bus.
class PrivateBus {
  public:
    PrivateBus();
    ~PrivateBus();
    /// False where dbus-daemon is not installed.
    [[nodiscard]] bool started() const { return !address_.empty(); }
    void signal(int number) const { daemon_.signal(number); }
    [[nodiscard]] const TemporaryFolder& folder() const { return folder_; }

  private:
    TemporaryFolder folder_;
    SideProgram daemon_;
    const std::string address_;
};

}  // namespace tarnwell::testing
