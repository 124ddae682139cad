#pragma once

#include <chrono>
#include <cstdint>
#include <ratio>

namespace tarnwell {

/// One tick: 100 nanoseconds, the unit of every time in records and on the wire.
using TickDuration = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;

/// An absolute instant (UTC). Holds every date from 0001-01-01 on.
using Date = std::chrono::sys_time<TickDuration>;

/// Ticks between 0001-01-01T00:00:00 UTC, the service's time base, and the Unix epoch.
inline constexpr std::int64_t kUnixEpochTicks = 621355968000000000;

/// The most distant past date: what a malformed date string becomes. Never a valid server date.
inline constexpr Date kDistantPast{TickDuration{-kUnixEpochTicks}};

/// Ticks since 0001-01-01 UTC.
constexpr std::int64_t ticks(Date date) {
    return date.time_since_epoch().count() + kUnixEpochTicks;
}

/// The inverse of ticks().
constexpr Date dateWithTicks(std::int64_t value) {
    return Date{TickDuration{value - kUnixEpochTicks}};
}

}  // namespace tarnwell
