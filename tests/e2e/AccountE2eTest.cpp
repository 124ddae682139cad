// The user's login and this device: refused, forgotten, wiped.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "e2e/World.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

struct AccountE2eTest : ::testing::Test {
    void SetUp() override {
        if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE on this machine";
        world.emplace();
        world->source("a.txt", "some bytes");
        world->import();
        client().start();
        ASSERT_TRUE(client().waitForPath("/Papers/a.txt"));
        ASSERT_EQ(contents(), "some bytes");
    }
    Client& client() { return world->client(); }
    [[nodiscard]] std::string contents() { return readRange(client().path("/Papers/a.txt"), 0, 100); }
    /// Empty when there is none.
    std::string deviceId() {
        const auto result = client().run({"settings", "get", "Fern Disk.deviceId"});
        return result.status == 0 ? result.output.substr(0, result.output.find('\n')) : "";
    }

    std::optional<World> world;
};

TEST_F(AccountE2eTest, aDeviceThatTheServiceForgotGetsANewId) {
    EXPECT_EQ(client().stop(), 0);
    const std::string unknown = "00000000-0000-0000-0000-000000000000";
    ASSERT_NE(deviceId(), "");
    ASSERT_EQ(client().run({"settings", "set", "Fern Disk.deviceId", unknown}).status, 0);
    client().start();
    ASSERT_TRUE(client().waitForState("offline"));
    EXPECT_EQ(deviceId(), "");
    EXPECT_TRUE(client().waitForMount()) << "what is known stays in reach";

    client().refresh();
    ASSERT_TRUE(client().waitForState("online"));
    EXPECT_TRUE(client().waitForPath("/Papers/a.txt"));
    EXPECT_EQ(contents(), "some bytes");
    EXPECT_NE(deviceId(), "");
    EXPECT_NE(deviceId(), unknown);
}

TEST_F(AccountE2eTest, aWipedDeviceForgetsEverything) {
    world->service({"wipe-device", "ann@example.org"});
    client().refresh();
    ASSERT_TRUE(client().waitForState("loggedOut"));
    EXPECT_TRUE(client().waitForMount(false));
    EXPECT_EQ(deviceId(), "");
    EXPECT_EQ(client().run({"settings", "get", "Fern Disk.username"}).status, 1);
    std::ifstream keychain(world->folder().path("ann/keychain"));
    const std::string kept((std::istreambuf_iterator<char>(keychain)), {});
    EXPECT_EQ(kept.find("ann@example.org"), std::string::npos) << kept;
    EXPECT_EQ(client().run({"refresh"}).status, 1) << "there is nobody to ask for";
    ASSERT_TRUE(eventually([&] {
        std::error_code error;
        for (const auto& item : fs::recursive_directory_iterator(client().cacheFolder("Files"), error))
            if (item.is_regular_file()) return false;
        return !error;
    })) << "contents are gone";

    // The wiped device has no id any more; a new login makes a new device.
    client().login("ann@example.org", "secret");
    EXPECT_TRUE(client().waitForPath("/Papers/a.txt"));
    EXPECT_EQ(contents(), "some bytes");
}

TEST_F(AccountE2eTest, aPasswordThatWasChangedIsAskedForAfterThreeAttempts) {
    const int before = world->requests("login2.aspx");
    world->service({"user", "passwd", "ann@example.org", "--password-stdin"}, "other\n");
    client().refresh();
    ASSERT_TRUE(client().waitForState("loggedOut"));
    EXPECT_EQ(world->requests("login2.aspx") - before, 3);
    EXPECT_EQ(contents(), "some bytes") << "what is here stays here";
    client().login("ann@example.org", "other");
    ASSERT_TRUE(client().waitForState("online"));
    world->service({"put", "Papers", world->folder().write("b", "later"), "b.txt"});
    client().refresh();
    EXPECT_TRUE(client().waitForPath("/Papers/b.txt"));
    EXPECT_EQ(readRange(client().path("/Papers/b.txt"), 0, 100), "later") << "with the new tokens";
}

}  // namespace
}  // namespace tarnwell::testing
