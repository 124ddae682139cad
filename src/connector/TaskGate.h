#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

namespace tarnwell {

/// Lets work in while its owner lives, and tells the owner when all of it is out again.
///
/// Tasks that wait on queues and requests that are in flight outlive the object they belong to. Each holds
/// the gate's state and enters before it touches the object; after close() it finds the gate shut and does
/// nothing.
///
///     executor.async(gate.guard([this] { ... }));
///
/// Threads: any. A task may enter again while it is inside.
class TaskGate {
    struct State;

  public:
    /// A stay inside; false when the gate is shut.
    class Pass {
      public:
        Pass(Pass&& other) noexcept : state_(std::move(other.state_)) {}
        Pass& operator=(Pass&&) = delete;
        ~Pass();
        explicit operator bool() const { return state_ != nullptr; }

      private:
        friend class TaskGate;
        explicit Pass(std::shared_ptr<State> state) : state_(std::move(state)) {}
        std::shared_ptr<State> state_;
    };

    TaskGate();
    TaskGate(const TaskGate&) = delete;
    TaskGate& operator=(const TaskGate&) = delete;

    [[nodiscard]] Pass enter() const { return enter(state_); }
    [[nodiscard]] bool closed() const;

    /// Lets nobody in any more.
    void shut();
    /// Shuts, and waits for those inside. False when some were still there at the deadline. Idempotent.
    /// REQUIRES: the caller is not inside.
    bool close(std::chrono::milliseconds deadline);

    /// The task, run inside the gate or not at all.
    template <class Task>
    [[nodiscard]] auto guard(Task task) const {
        return [state = state_, task = std::move(task)](auto&&... arguments) mutable {
            if (const Pass pass = enter(state)) task(std::forward<decltype(arguments)>(arguments)...);
        };
    }

  private:
    static Pass enter(const std::shared_ptr<State>& state);

    std::shared_ptr<State> state_;
};

}  // namespace tarnwell
