#pragma once

#include <chrono>
#include <memory>
#include <string_view>

#include "platform/Executor.h"

namespace tarnwell {

/// The pool of threads for work that may block: the login exchange, copies, clean-ups.
class BackgroundQueue final : public Executor {
  public:
    /// `threads` workers named "tw-bg-N", or after another prefix.
    explicit BackgroundQueue(std::size_t threads, std::string_view namePrefix = "tw-bg");
    /// As stop() with ten seconds, unless it was stopped before.
    ~BackgroundQueue() override;

    void async(std::function<void()> task) override;
    /// Takes no new task, drops those that wait, gives those that run until the deadline to end.
    /// Idempotent. False when a task was still running: its thread is left to itself. A task may call it; its
    /// own thread is then not waited for.
    bool stop(std::chrono::milliseconds deadline);

  private:
    struct State;
    std::shared_ptr<State> state_;
};

/// Runs tasks one at a time, in order, on the threads of another executor.
class SerialQueue final : public Executor {
  public:
    /// `target` outlives this queue's tasks.
    explicit SerialQueue(Executor& target);
    ~SerialQueue() override;
    void async(std::function<void()> task) override;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace tarnwell
