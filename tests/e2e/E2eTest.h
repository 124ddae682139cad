#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "e2e/World.h"

namespace tarnwell::testing {

/// A test of the whole system over a real mount; skipped where there is no FUSE.
class E2eTest : public ::testing::Test {
  protected:
    explicit E2eTest(World::Options options = {}) : options_(std::move(options)) {}
    void SetUp() override {
        if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE on this machine";
        world.emplace(options_);
    }
    Client& client() { return world->client(); }
    /// The path of an item of the share on the drive.
    std::string papers(const std::string& name) { return client().path("/Papers/" + name); }
    /// The whole file, of at most 16 MiB; "errno N" when that fails.
    std::string contents(const std::string& name) { return readRange(papers(name), 0, 16u << 20); }
    /// Imports these files into the share.
    void import(const std::vector<std::pair<std::string, std::string>>& files) {
        for (const auto& [name, bytes] : files)
            world->source(name, bytes);
        world->import();
    }
    /// Starts the client and waits until it has logged in and shows the item.
    void start(const std::string& shown) {
        client().start();
        ASSERT_TRUE(client().waitForPath("/Papers/" + shown)) << client().log();
    }

    std::optional<World> world;

  private:
    const World::Options options_;
};

}  // namespace tarnwell::testing
