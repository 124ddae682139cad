// Starting, ending, crashing: what the drive does to the machine.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "e2e/World.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;

struct LifecycleE2eTest : ::testing::Test {
    void SetUp() override {
        if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE on this machine";
        world.emplace();
        world->source("a.txt", "some bytes");
        world->import();
    }
    Client& client() { return world->client(); }
    void startAndSeeTheFile() {
        client().start();
        ASSERT_TRUE(client().waitForPath("/Papers/a.txt"));
    }
    std::string contents() {
        std::ifstream file(client().path("/Papers/a.txt"));
        return {std::istreambuf_iterator<char>(file), {}};
    }
    /// By whoever may: root itself, others through the helper.
    void unmountFromOutside() {
        if (geteuid() == 0) {
            ASSERT_EQ(umount2(client().mountPath().c_str(), MNT_DETACH), 0);
        } else {
            ChildProcess helper({.command = {"/usr/bin/fusermount3", "-u", "-z", client().mountPath()},
                                 .environment = {},
                                 .input = "",
                                 .outputFile = world->folder().path("umount.out")});
            ASSERT_EQ(helper.wait(10s), 0);
        }
    }

    std::optional<World> world;
};

TEST_F(LifecycleE2eTest, reportsItsStateAndEndsWhenAsked) {
    EXPECT_EQ(client().run({"status"}).status, 1) << "no client runs";
    startAndSeeTheFile();
    ASSERT_TRUE(eventually([&] {
        return client().run({"status", "--json"}).output.find("\"online\"") != std::string::npos;
    }));
    const auto status = client().run({"status", "--json"});
    EXPECT_NE(status.output.find("\"DisplayName\":\"Papers\""), std::string::npos) << status.output;
    EXPECT_NE(status.output.find("\"user\":\"ann@example.org\""), std::string::npos) << status.output;

    EXPECT_EQ(client().run({"quit"}).status, 0);
    EXPECT_EQ(client().process().wait(5s), 0);
    EXPECT_FALSE(client().isMounted());
    EXPECT_EQ(client().run({"settings", "get", "cleanShutdown"}).output, "true\n");
}

TEST_F(LifecycleE2eTest, endingLeavesNothingMounted) {
    startAndSeeTheFile();
    EXPECT_EQ(client().stop(), 0);
    EXPECT_FALSE(client().isMounted());
    EXPECT_EQ(client().run({"settings", "get", "cleanShutdown"}).status, 0);
}

TEST_F(LifecycleE2eTest, anOpenFileAsksForASecondSignal) {
    startAndSeeTheFile();
    const int file = open(client().path("/Papers/a.txt").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(file, 0);
    const auto quit = client().run({"quit"});
    EXPECT_EQ(quit.status, 1) << quit.output;
    EXPECT_EQ(contents(), "some bytes") << "everything goes on";
    client().process().signal(SIGTERM);
    ASSERT_TRUE(
        eventually([&] { return client().log().find("canceled") != client().log().rfind("canceled"); }));
    EXPECT_EQ(client().stop(), 0);
    EXPECT_FALSE(client().isMounted());
    close(file);
}

TEST_F(LifecycleE2eTest, startsOnTheMountThatACrashLeftBehind) {
    startAndSeeTheFile();
    client().kill();
    EXPECT_TRUE(client().isMounted()) << "dead, but there";
    startAndSeeTheFile();
    EXPECT_EQ(contents(), "some bytes");
    EXPECT_NE(client().log().find("Found dead filesystem on mountpoint"), std::string::npos);
}

TEST_F(LifecycleE2eTest, mountsAgainWhenTakenAway) {
    startAndSeeTheFile();
    for (int round = 0; round < 3; ++round) {
        unmountFromOutside();
        ASSERT_TRUE(client().waitForPath("/Papers/a.txt")) << round;
        EXPECT_EQ(contents(), "some bytes") << round;
    }
}

TEST_F(LifecycleE2eTest, theTreeIsThereAgainWithoutAnyServer) {
    startAndSeeTheFile();
    ASSERT_EQ(contents(), "some bytes");
    ASSERT_EQ(client().stop(), 0);
    world->stopService();

    client().start();
    ASSERT_TRUE(client().waitForPath("/Papers/a.txt")) << client().log();
    struct stat status {};
    ASSERT_EQ(stat(client().path("/Papers/a.txt").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 10);
    EXPECT_NE(client().run({"status", "--json"}).output.find("\"DisplayName\":\"Papers\""),
              std::string::npos);
    ASSERT_EQ(client().stop(), 0) << client().log();

    // A log-out takes the saved store along.
    world->startService();
    startAndSeeTheFile();
    EXPECT_EQ(client().run({"logout"}).status, 0);
    ASSERT_TRUE(client().waitForMount(false));
    ASSERT_EQ(client().stop(), 0);
    world->stopService();
    client().start();
    ASSERT_TRUE(
        eventually([&] { return client().run({"status"}).output.find("loggedOut") != std::string::npos; }));
    EXPECT_FALSE(client().isMounted());
}

TEST_F(LifecycleE2eTest, aSecondInstanceIsRefused) {
    startAndSeeTheFile();
    const auto second = client().run({"--headless"});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.output.find("Another instance of Tarnwell is already running. Startup path : "),
              std::string::npos)
        << second.output;
    EXPECT_EQ(contents(), "some bytes");
    EXPECT_EQ(client().run({"status"}).status, 0) << "the first one is still reached";
}

TEST_F(LifecycleE2eTest, aWrongPasswordMountsNothingUntilItIsRight) {
    client().login("ann@example.org", "wrong");
    client().start();
    ASSERT_TRUE(eventually([&] { return client().log().find("Not logged in.") != std::string::npos; }));
    EXPECT_FALSE(client().isMounted());
    EXPECT_NE(client().run({"status"}).output.find("loggedOut"), std::string::npos);

    client().login("ann@example.org", "secret");
    EXPECT_TRUE(client().waitForPath("/Papers/a.txt"));
    EXPECT_EQ(client().run({"logout"}).status, 0);
    EXPECT_TRUE(client().waitForMount(false));
    EXPECT_EQ(client().log().find("secret"), std::string::npos) << "passwords are never logged";
}

}  // namespace
}  // namespace tarnwell::testing
