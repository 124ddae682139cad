// Starting, ending, crashing: what the drive does to the machine.

#include <fcntl.h>
#include <sys/mount.h>

#include <csignal>
#include <filesystem>

#include "e2e/E2eTest.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;

struct LifecycleE2eTest : E2eTest {
    void SetUp() override {
        E2eTest::SetUp();
        if (world) import({{ "a.txt", "some bytes" }});
    }
    /// By whoever may: root itself, others through the helper.
    void unmountFromOutside() {
        if (geteuid() == 0)
            ASSERT_EQ(umount2(client().mountPath().c_str(), MNT_DETACH), 0);
        else
            ASSERT_EQ(runProgram({"/usr/bin/fusermount3", "-u", "-z", client().mountPath()},
                                 world->folder().path("umount.out"))
                          .status,
                      0);
    }
};

TEST_F(LifecycleE2eTest, reportsItsStateAndEndsWhenAsked) {
    EXPECT_EQ(client().run({"status"}).status, 1) << "no client runs";
    start("a.txt");
    ASSERT_TRUE(client().waitForState("online"));
    const auto status = client().run({"status", "--json"});
    EXPECT_NE(status.output.find("\"DisplayName\":\"Papers\""), std::string::npos) << status.output;
    EXPECT_NE(status.output.find("\"user\":\"ann@example.org\""), std::string::npos) << status.output;

    EXPECT_EQ(client().run({"quit"}).status, 0);
    EXPECT_EQ(client().process().wait(5s), 0);
    EXPECT_FALSE(client().isMounted());
    EXPECT_EQ(client().run({"settings", "get", "cleanShutdown"}).output, "true\n");
}

TEST_F(LifecycleE2eTest, anOpenFileAsksForASecondSignal) {
    start("a.txt");
    const int file = open(papers("a.txt").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(file, 0);
    const auto quit = client().run({"quit"});
    EXPECT_EQ(quit.status, 1) << quit.output;
    EXPECT_EQ(contents("a.txt"), "some bytes") << "everything goes on";
    client().process().signal(SIGTERM);
    ASSERT_TRUE(
        eventually([&] { return client().log().find("canceled") != client().log().rfind("canceled"); }));
    EXPECT_EQ(client().stop(), 0);
    EXPECT_FALSE(client().isMounted());
    close(file);
}

TEST_F(LifecycleE2eTest, startsOnTheMountThatACrashLeftBehind) {
    start("a.txt");
    client().kill();
    EXPECT_TRUE(client().isMounted()) << "dead, but there";
    start("a.txt");
    EXPECT_EQ(contents("a.txt"), "some bytes");
    EXPECT_NE(client().log().find("Found dead filesystem on mountpoint"), std::string::npos);
}

TEST_F(LifecycleE2eTest, mountsAgainWhenTakenAway) {
    start("a.txt");
    for (int round = 0; round < 3; ++round) {
        unmountFromOutside();
        ASSERT_TRUE(client().waitForPath("/Papers/a.txt")) << round;
        EXPECT_EQ(contents("a.txt"), "some bytes") << round;
    }
}

TEST_F(LifecycleE2eTest, theTreeIsThereAgainWithoutAnyServer) {
    start("a.txt");
    ASSERT_EQ(contents("a.txt"), "some bytes");
    ASSERT_EQ(client().stop(), 0);
    world->stopService();

    start("a.txt");
    EXPECT_EQ(std::filesystem::file_size(papers("a.txt")), 10u);
    ASSERT_EQ(client().stop(), 0) << client().log();

    // A log-out takes the saved store along.
    world->startService();
    start("a.txt");
    EXPECT_EQ(client().run({"logout"}).status, 0);
    ASSERT_TRUE(client().waitForMount(false));
    ASSERT_EQ(client().stop(), 0);
    world->stopService();
    client().start();
    ASSERT_TRUE(client().waitForState("loggedOut"));
    EXPECT_FALSE(client().isMounted());
}

TEST_F(LifecycleE2eTest, aSecondInstanceIsRefused) {
    start("a.txt");
    const auto second = client().run({"--headless"});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.output.find("Another instance of Tarnwell is already running. Startup path : "),
              std::string::npos)
        << second.output;
    EXPECT_EQ(contents("a.txt"), "some bytes");
    EXPECT_EQ(client().run({"status"}).status, 0) << "the first one is still reached";
}

}  // namespace
}  // namespace tarnwell::testing
