#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/RunLoop.h"
#include "support/FakeClock.h"

namespace tarnwell::testing {

/// A main loop in virtual time: nothing runs but inside runPending(), advance() and waitUntil(), on the
/// thread that calls them (the test's), in the order in which it is due, and in posting order when due at the
/// same time. Posting and cancelling from any thread. An exception of a task reaches the test.
class ManualRunLoop final : public RunLoop {
  public:
    /// `clock` moves along with advance(); may be null.
    explicit ManualRunLoop(FakeClock* clock = nullptr);
    ~ManualRunLoop() override;

    void async(std::function<void()> task) override;
    [[nodiscard]] Timer postAfter(std::chrono::milliseconds delay, std::function<void()> task) override;
    [[nodiscard]] Timer repeat(std::chrono::milliseconds interval, std::function<void()> task) override;

    /// Runs what is due now, including what those tasks post. Returns how many tasks ran.
    std::size_t runPending();
    /// Moves the time on, stopping at each task that becomes due on the way. Returns how many tasks ran.
    std::size_t advance(std::chrono::milliseconds by);
    /// For tests with real threads behind the code under test: runs what is due as it is posted until
    /// `done()` holds. `deadline` is real time; virtual time stands still. False when the deadline passed.
    bool waitUntil(const std::function<bool()>& done,
                   std::chrono::milliseconds deadline = std::chrono::seconds(10));

    /// Tasks and timers that are still to run.
    [[nodiscard]] std::size_t pending() const;

  private:
    struct Entry;
    struct State;
    class Handle;
    std::shared_ptr<Timer::Handle> add(std::chrono::milliseconds delay, std::chrono::milliseconds interval,
                                       std::function<void()> task);
    bool runNext(std::chrono::milliseconds until);

    std::shared_ptr<State> state_;
    FakeClock* clock_;
};

}  // namespace tarnwell::testing
