#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/Executor.h"

namespace tarnwell {

/// Ends a delayed or repeating call when it is destroyed or cancelled. Move-only; may outlive the loop.
/// Cancelling on the loop's own thread guarantees that the call does not run afterwards; from another thread
/// a call that already began may still be running.
class Timer {
  public:
    struct Handle {
        virtual ~Handle() = default;
        virtual void cancel() noexcept = 0;
    };

    Timer() = default;
    explicit Timer(std::shared_ptr<Handle> handle) : handle_(std::move(handle)) {}
    Timer(Timer&&) noexcept = default;
    Timer& operator=(Timer&& other) noexcept {
        if (this != &other) {
            cancel();
            handle_ = std::move(other.handle_);
        }
        return *this;
    }
    ~Timer() { cancel(); }

    void cancel() noexcept {
        if (auto handle = std::move(handle_)) handle->cancel();
        handle_ = nullptr;
    }
    [[nodiscard]] explicit operator bool() const { return handle_ != nullptr; }

  private:
    std::shared_ptr<Handle> handle_;
};

/// The main thread's loop: tasks, delayed calls and repeating timers, one at a time and in order.
/// Any thread may call async, postAfter and repeat.
class RunLoop : public Executor {
  public:
    /// Runs `task` once, `delay` from now, unless the timer ends before.
    [[nodiscard]] virtual Timer postAfter(std::chrono::milliseconds delay, std::function<void()> task) = 0;
    /// Runs `task` every `interval`, first after one interval. A late loop skips beats, it never catches up
    /// in a burst.
    [[nodiscard]] virtual Timer repeat(std::chrono::milliseconds interval, std::function<void()> task) = 0;
};

}  // namespace tarnwell
