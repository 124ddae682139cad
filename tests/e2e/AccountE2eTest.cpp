// The user's login and this device: refused, forgotten, wiped.

#include <filesystem>

#include "e2e/E2eTest.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

struct AccountE2eTest : E2eTest {
    void SetUp() override {
        E2eTest::SetUp();
        if (!world) return;
        import({{ "a.txt", "some bytes" }});
        start("a.txt");
        ASSERT_EQ(contents("a.txt"), "some bytes");
    }
    /// Empty when there is none.
    std::string deviceId() {
        const auto result = client().run({"settings", "get", "Fern Disk.deviceId"});
        return result.status == 0 ? result.output.substr(0, result.output.find('\n')) : "";
    }
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
    EXPECT_EQ(contents("a.txt"), "some bytes");
    EXPECT_TRUE(deviceId() != "" && deviceId() != unknown);
}

TEST_F(AccountE2eTest, aWipedDeviceForgetsEverything) {
    world->service({"wipe-device", "ann@example.org"});
    client().refresh();
    ASSERT_TRUE(client().waitForState("loggedOut"));
    EXPECT_TRUE(client().waitForMount(false));
    EXPECT_EQ(deviceId(), "");
    EXPECT_EQ(client().run({"settings", "get", "Fern Disk.username"}).status, 1);
    const std::string kept = world->folder().read("ann/keychain");
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
    EXPECT_EQ(contents("a.txt"), "some bytes");
}

TEST_F(AccountE2eTest, aPasswordThatWasChangedIsAskedForAfterThreeAttempts) {
    const int before = world->requests("login2.aspx");
    world->service({"user", "passwd", "ann@example.org", "--password-stdin"}, "other\n");
    client().refresh();
    ASSERT_TRUE(client().waitForState("loggedOut"));
    EXPECT_EQ(world->requests("login2.aspx") - before, 3);
    EXPECT_EQ(contents("a.txt"), "some bytes") << "what is here stays here";
    client().login("ann@example.org", "other");
    ASSERT_TRUE(client().waitForState("online"));
    world->service({"put", "Papers", world->folder().write("b", "later"), "b.txt"});
    client().refresh();
    EXPECT_TRUE(client().waitForPath("/Papers/b.txt"));
    EXPECT_EQ(contents("b.txt"), "later") << "with the new tokens";
}

}  // namespace
}  // namespace tarnwell::testing
