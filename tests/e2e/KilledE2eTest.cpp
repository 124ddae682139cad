// The client is killed at random moments of merges, downloads and saves: the next start shows a tree that was
// true, and in the end the present one, every byte of it.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "e2e/World.h"

namespace tarnwell::testing {
namespace {

namespace fs = std::filesystem;

/// Reads what the drive shows, again and again. A read may fail; what it brings must be the file's bytes.
class Reader {
  public:
    Reader(const std::string& folder, unsigned seed)
        : thread_([this, folder, seed] {
              std::mt19937 random(seed);
              while (!ended_) {
                  const auto size = 1 + random() % 3000;
                  // A file's bytes follow from its name.
                  const auto got = readRange(folder + "/" + std::to_string(size), 0, size + 1);
                  if (!got.starts_with("errno") && got != randomBytes(size)) ++wrong_;
              }
          }) {}
    ~Reader() {
        ended_ = true;
        thread_.join();
        EXPECT_EQ(wrong_, 0) << "bytes that were never the file's";
    }

  private:
    std::atomic<bool> ended_{false};
    std::atomic<int> wrong_{0};
    std::thread thread_;
};

TEST(KilledE2eTest, atRandomMomentsNothingButTheTruthIsShown) {
    if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE on this machine";
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    World world;
    auto& client = world.client();
    std::string folder = "files";
    for (int size = 1; size <= 3000; ++size)
        world.source(folder + "/" + std::to_string(size), randomBytes(static_cast<std::size_t>(size)));
    world.import();
    for (int round = 0; round < 10; ++round) {
        client.start();
        {
            const Reader reader(client.path("/Papers/" + folder), random());
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % (round < 6 ? 700 : 7000)));
            client.kill();
        }
        // What changes while nobody looks: a folder with everything below it, and a few files.
        const std::string renamed = "files " + std::to_string(round);
        world.service({"mv", "Papers", "/" + folder, "/" + renamed});
        fs::rename(world.sourceFolder() + "/" + folder, world.sourceFolder() + "/" + renamed);
        folder = renamed;
        const std::string gone = "/" + folder + "/" + std::to_string(1000 + round);
        world.service({"rm", "Papers", gone});
        fs::remove(world.sourceFolder() + gone);
        const std::string added = world.folder().write("added", "round " + std::to_string(round));
        world.service({"put", "Papers", added, "/added " + std::to_string(round)});
        fs::copy_file(added, world.sourceFolder() + "/added " + std::to_string(round));
    }
    client.start();
    ASSERT_TRUE(client.waitForState("online"));
    const auto names = [](Tree tree) {
        for (auto& [path, entry] : tree)
            entry.modifiedMs = 0;
        return tree;
    };
    const Tree expected = names(readTree(world.sourceFolder()));
    EXPECT_TRUE(eventually([&] {
        try {
            return names(readTree(client.path("/Papers"))) == expected;
        } catch (const std::exception&) {
            return false;
        }
    }));
    EXPECT_EQ(client.log().find("circular"), std::string::npos);
    EXPECT_EQ(client.log().find("damaged"), std::string::npos) << "a save was found half";
}

}  // namespace
}  // namespace tarnwell::testing
