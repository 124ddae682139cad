#pragma once

#include <functional>
#include <memory>

namespace tarnwell {

/// Turns the signals that ask the process to end (SIGTERM, SIGINT, SIGHUP) into calls on the main loop.
class SignalWatcher {
  public:
    /// Keeps these signals from their default action, and SIGPIPE altogether. Called first of all in main:
    /// threads inherit it, so no thread of the process is ever interrupted.
    static void blockSignals();

    /// REQUIRES: blockSignals() was called; made on the loop's thread. `ended` runs there, once per signal.
    explicit SignalWatcher(std::function<void(int signal)> ended);
    ~SignalWatcher();
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tarnwell
