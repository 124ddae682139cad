#pragma once

#include <cstdlib>
#include <random>
#include <string>

namespace tarnwell::testing {

/// The seed of a random test: the environment variable TARNWELL_TEST_SEED, or a new one. Trace it, so that a
/// failure says how to repeat it:
///
///     const unsigned seed = testing::seed();
///     SCOPED_TRACE(testing::replayWith(seed));
inline unsigned seed() {
    const char* const given = std::getenv("TARNWELL_TEST_SEED");
    return given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device{}();
}
inline std::string replayWith(unsigned seed) {
    return "TARNWELL_TEST_SEED=" + std::to_string(seed);
}
/// How often a random test runs, with the seeds from seed() on: TARNWELL_TEST_ROUNDS, or once when a seed is
/// given, or `usual`.
inline int rounds(int usual) {
    if (const char* const given = std::getenv("TARNWELL_TEST_ROUNDS")) return std::atoi(given);
    return std::getenv("TARNWELL_TEST_SEED") ? 1 : usual;
}

}  // namespace tarnwell::testing
