#pragma once

#include <algorithm>
#include <chrono>
#include <ctime>

#include "util/Date.h"

namespace tarnwell {

/// Times outside the years 1 to 9999, which a record cannot carry, become the nearest that it can.
inline Date dateOf(const timespec& time) {
    constexpr time_t kFirst = -62'135'596'800, kLast = 253'402'300'799;
    return Date{std::chrono::duration_cast<TickDuration>(
                    std::chrono::seconds(std::clamp<time_t>(time.tv_sec, kFirst, kLast))) +
                TickDuration{time.tv_nsec / 100}};
}

inline timespec timespecOf(Date date) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(date);
    return {static_cast<time_t>(seconds.time_since_epoch().count()),
            static_cast<long>(std::chrono::nanoseconds(date - seconds).count())};
}

}  // namespace tarnwell
