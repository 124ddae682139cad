// What a user sees on the drive: the service's files, byte for byte.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <random>
#include <thread>

#include "e2e/World.h"
#include "util/TWUtils.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;

struct DriveE2eTest : ::testing::Test {
    void SetUp() override {
        if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE on this machine";
        world.emplace();
    }
    void startClient() {
        world->client().start();
        ASSERT_TRUE(world->client().waitForMount());
    }

    std::optional<World> world;
};

TEST_F(DriveE2eTest, showsTheTreeByteForByte) {
    const std::vector<std::string> names{
        "plain.txt",
        "with space & percent%20+plus.txt",
        "composed caf\u00e9.txt",
        "decomposed cafe\u0301 2.txt",
        "\u65e5\u672c\u8a9e/\u0440\u0443\u0441\u0441\u043a\u0438\u0439/\u05e2\u05d1\u05e8\u05d9\u05ea.bin",
        "emoji \U0001F600.txt",
        std::string(251, 'n') + ".txt",
        "deep/" +
            [] {
                std::string path;
                for (int level = 0; level < 60; ++level)
                    path += "level/";
                return path;
            }() +
            "bottom",
    };
    std::size_t size = 0;
    for (const auto& name : names)
        world->source(name, randomBytes(size += 1000));
    for (const std::size_t edge : {0, 1, 4095, 4096, 131072, 262144, 262145, 2'097'152, 5'000'001}) {
        world->source("size " + std::to_string(edge), randomBytes(edge));
    }
    const timespec times[] = {{1'700'000'000, 0}, {1'234'567'890, 987'654'321}};
    utimensat(AT_FDCWD, (world->sourceFolder() + "/plain.txt").c_str(), times, 0);
    world->import();
    startClient();
    ASSERT_TRUE(world->client().waitForPath("/Papers/plain.txt"));

    const Tree expected = readTree(world->sourceFolder());
    ASSERT_TRUE(
        eventually([&] { return readTree(world->client().path("/Papers")).size() == expected.size(); }));
    for (const char* pass : {"cold", "again"}) {
        const Tree shown = readTree(world->client().path("/Papers"));
        for (const auto& [path, entry] : expected) {
            const auto found = shown.find(path);
            ASSERT_NE(found, shown.end()) << pass << " " << path;
            EXPECT_EQ(found->second.isFolder, entry.isFolder) << pass << " " << path;
            EXPECT_EQ(found->second.modifiedMs, entry.modifiedMs) << pass << " " << path;
            EXPECT_TRUE(found->second.contents == entry.contents) << pass << " " << path;
        }
    }
}

TEST_F(DriveE2eTest, servesManyReadersAtOnce) {
    const std::string big = randomBytes(20'000'000);
    world->source("big", big);
    for (int i = 0; i < 50; ++i)
        world->source("small/" + std::to_string(i), randomBytes(static_cast<std::size_t>(i) * 997));
    world->import();
    startClient();
    ASSERT_TRUE(world->client().waitForPath("/Papers/big"));
    ASSERT_TRUE(world->client().waitForPath("/Papers/small/49"));

    std::atomic<int> faults{0};
    std::vector<std::thread> readers;
    for (unsigned reader = 0; reader < 16; ++reader) {
        readers.emplace_back([&, reader] {
            std::mt19937 random(reader);
            for (int round = 0; round < 20; ++round) {
                const auto offset = static_cast<std::size_t>(random() % big.size());
                const std::size_t size = random() % 300'000;
                if (readRange(world->client().path("/Papers/big"), static_cast<off_t>(offset), size) !=
                    big.substr(offset, size)) {
                    ++faults;
                }
                const auto file = static_cast<std::size_t>(random() % 50);
                if (readRange(world->client().path("/Papers/small/" + std::to_string(file)), 0, 100'000) !=
                    randomBytes(file * 997)) {
                    ++faults;
                }
            }
        });
    }
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(faults, 0);
}

TEST_F(DriveE2eTest, aReadWithoutTheServiceFailsInTime) {
    world->source("small", "here");
    world->source("big", randomBytes(1'000'000));
    world->import();
    startClient();
    ASSERT_TRUE(world->client().waitForPath("/Papers/big"));
    EXPECT_EQ(readRange(world->client().path("/Papers/small"), 0, 10), "here");
    world->stopService();

    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(readRange(world->client().path("/Papers/big"), 0, 100), "errno " + std::to_string(EIO));
    EXPECT_LT(std::chrono::steady_clock::now() - began, 15s);
    EXPECT_EQ(readRange(world->client().path("/Papers/small"), 0, 10), "here")
        << "what is cached stays readable";

    world->startService();
    EXPECT_TRUE(eventually([&] {
        return readRange(world->client().path("/Papers/big"), 0, 100) ==
               randomBytes(1'000'000).substr(0, 100);
    }));
}

TEST_F(DriveE2eTest, changesMadeElsewhereShowAfterANewStart) {
    world->source("keep", "1");
    world->source("goes/away", "2");
    world->source("old name", "3");
    world->import();
    startClient();
    ASSERT_TRUE(world->client().waitForPath("/Papers/old name"));
    EXPECT_EQ(readRange(world->client().path("/Papers/old name"), 0, 10), "3");
    EXPECT_EQ(world->client().stop(), 0);

    world->service({"rm", "Papers", "/goes"});
    world->service({"mv", "Papers", "/old name", "/new name"});
    startClient();
    ASSERT_TRUE(world->client().waitForPath("/Papers/new name"));
    EXPECT_EQ(readRange(world->client().path("/Papers/new name"), 0, 10), "3");
    EXPECT_TRUE(world->client().waitForPath("/Papers/goes", false));
    EXPECT_TRUE(world->client().waitForPath("/Papers/old name", false));
    EXPECT_EQ(readRange(world->client().path("/Papers/keep"), 0, 10), "1");
}

}  // namespace
}  // namespace tarnwell::testing
