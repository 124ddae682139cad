#pragma once

#include <functional>

namespace tarnwell {

/// Somewhere to run a task: the main loop, the background pool, a serial queue.
///
/// A task never lets an exception out: what escapes is logged by the executor and dropped. Any thread may
/// call async.
class Executor {
  public:
    virtual ~Executor() = default;
    /// Runs `task` later, never inside this call. After the executor stopped, tasks are dropped.
    virtual void async(std::function<void()> task) = 0;
};

}  // namespace tarnwell
