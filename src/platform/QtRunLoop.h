#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/RunLoop.h"

namespace tarnwell {

/// The main thread's loop on Qt's event loop.
///
/// Constructed, run and destroyed on the main thread. When the process has no application object yet (a
/// window system brings its own), the loop makes a plain one and owns it. Tasks and timers that are left at
/// the end are dropped.
///
/// A task that opens a nested loop (a modal question) does not hold up the others; a repeating task is never
/// entered again while it runs.
class QtRunLoop final : public RunLoop {
  public:
    /// `argc` and `argv` outlive the loop.
    QtRunLoop(int& argc, char** argv);
    ~QtRunLoop() override;

    void async(std::function<void()> task) override;
    [[nodiscard]] Timer postAfter(std::chrono::milliseconds delay, std::function<void()> task) override;
    [[nodiscard]] Timer repeat(std::chrono::milliseconds interval, std::function<void()> task) override;

    /// Runs until quit(); returns its status.
    int exec();
    /// Any thread.
    void quit(int status);

  private:
    struct Entry;
    struct State;
    class TimerHandle;
    Timer add(std::chrono::milliseconds delay, std::chrono::milliseconds interval,
              std::function<void()> task);

    std::shared_ptr<State> state_;
};

}  // namespace tarnwell
