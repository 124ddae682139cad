#pragma once

#include <chrono>

#include "util/Date.h"

namespace tarnwell {

/// Wall-clock time, so that tests decide what "now" is. Any thread.
class Clock {
  public:
    virtual ~Clock() = default;
    [[nodiscard]] virtual Date now() const = 0;
};

class SystemClock final : public Clock {
  public:
    [[nodiscard]] Date now() const override {
        return std::chrono::time_point_cast<TickDuration>(std::chrono::system_clock::now());
    }
};

}  // namespace tarnwell
