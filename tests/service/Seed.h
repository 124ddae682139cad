#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

namespace tarnwell::service::testing {

/// The seed of a random test: TARNWELL_SEED, else a new one. Printed, so that a failure can be replayed.
inline std::uint64_t testSeed() {
    const char* given = std::getenv("TARNWELL_SEED");
    const std::uint64_t seed = given ? std::stoull(given) : std::random_device()();
    std::cout << "TARNWELL_SEED=" << seed << "\n";
    return seed;
}
/// A number of rounds, or what the environment variable of that name says.
inline int testRounds(const char* name, int usual) {
    const char* given = std::getenv(name);
    return given ? std::atoi(given) : usual;
}

}  // namespace tarnwell::service::testing
