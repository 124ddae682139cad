#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

#include "platform/Executor.h"

namespace tarnwell::testing {

/// Keeps tasks until the test runs them, on the test's thread. async() from any thread.
/// An exception of a task reaches the test.
class ManualExecutor final : public Executor {
  public:
    void async(std::function<void()> task) override;
    /// Runs the oldest task. False when there is none.
    bool runOne();
    /// Runs every task, those included which tasks post. Returns how many ran.
    std::size_t runAll();
    /// Forgets every task.
    void clear();
    [[nodiscard]] std::size_t size() const;
    /// Waits (in real time) until another thread posted a task.
    bool waitForTask(std::chrono::milliseconds deadline = std::chrono::seconds(10));

  private:
    mutable std::mutex mutex_;
    std::condition_variable posted_;
    std::deque<std::function<void()>> tasks_;  // guarded by mutex_
};

}  // namespace tarnwell::testing
