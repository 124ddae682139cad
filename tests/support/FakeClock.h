#pragma once

#include <atomic>

#include "platform/Clock.h"
#include "util/Date.h"

namespace tarnwell::testing {

/// A clock that stands still until the test moves it. Starts on 2026-01-02 03:04:05 UTC. Any thread.
class FakeClock final : public Clock {
  public:
    [[nodiscard]] Date now() const override { return dateWithTicks(ticks_); }
    template <class Duration>
    void advance(Duration by) {
        ticks_ += std::chrono::duration_cast<TickDuration>(by).count();
    }

  private:
    std::atomic<std::int64_t> ticks_{kUnixEpochTicks + 17'673'230'450'000'000};
};

}  // namespace tarnwell::testing
