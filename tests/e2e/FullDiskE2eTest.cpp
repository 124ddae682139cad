// The disk of the client's data is full: reads answer or fail, nothing half is kept, and space mends it.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "e2e/World.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

/// A file system of its own of a few megabytes; only root can make one.
class SmallDisk {
  public:
    explicit SmallDisk(const std::string& path) : path_(path) {
        fs::create_directories(path_);
        mounted_ = mount("tarnwell-test", path_.c_str(), "tmpfs", 0, "size=6m,mode=700") == 0;
    }
    ~SmallDisk() {
        if (mounted_) umount2(path_.c_str(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    [[nodiscard]] bool mounted() const { return mounted_; }
    void fill() {
        std::ofstream file(ballast(), std::ios::binary);
        const std::string block(4096, 'x');
        while (file.write(block.data(), std::ssize(block)) && file.flush()) {
        }
    }
    void empty() { fs::remove(ballast()); }

  private:
    [[nodiscard]] std::string ballast() const { return path_ + "/ballast"; }
    const std::string path_;
    bool mounted_ = false;
};

TEST(FullDiskE2eTest, readsAnswerAndNothingHalfIsKept) {
    if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE on this machine";
    const TemporaryFolder folder;
    // The client's data, not its settings: those have a disk of their own here.
    SmallDisk disk(folder.path("ann/data"));
    if (!disk.mounted()) GTEST_SKIP() << "no right to mount a small disk";
    World world({.dataFolder = folder.path("ann")});
    const std::string small = randomBytes(100'000), big = randomBytes(2'000'000);
    world.source("small", small);
    world.source("big", big);
    world.import();
    auto& client = world.client();
    client.start();
    ASSERT_TRUE(client.waitForPath("/Papers/big"));

    disk.fill();
    EXPECT_TRUE(readRange(client.path("/Papers/small"), 0, small.size()) == small) << "answered from memory";
    EXPECT_TRUE(readRange(client.path("/Papers/big"), 500'000, 1'000'000) == big.substr(500'000, 1'000'000));
    std::error_code error;
    const auto kept = [&] {
        int files = 0;
        for (const auto& item : fs::recursive_directory_iterator(client.cacheFolder("Files"), error))
            files += item.is_regular_file();
        return files;
    };
    EXPECT_EQ(kept(), 0);
    EXPECT_EQ(client.run({"status"}).status, 0) << "it lives on";

    disk.empty();
    ASSERT_TRUE(eventually([&] {
        readRange(client.path("/Papers/small"), 0, 1);
        readRange(client.path("/Papers/big"), 0, 1);
        return kept() == 2;
    }));
    EXPECT_TRUE(readRange(client.path("/Papers/small"), 0, small.size() + 1) == small);
    EXPECT_TRUE(readRange(client.path("/Papers/big"), 0, big.size() + 1) == big);
    EXPECT_NE(client.log().find("failed"), std::string::npos) << "the log says what went wrong";

    // A start without a byte to spare: the drive is there all the same.
    disk.fill();
    EXPECT_EQ(client.stop(), 1) << "its state is in the change log, but could not be saved";
    client.start();
    ASSERT_TRUE(client.waitForPath("/Papers/big"));
    EXPECT_TRUE(readRange(client.path("/Papers/small"), 0, small.size() + 1) == small);
    disk.empty();
}

TEST(FullDiskE2eTest, aWriteThatDoesNotFitSaysSoAndWhatFitArrives) {
    if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE on this machine";
    const TemporaryFolder folder;
    SmallDisk disk(folder.path("ann/data"));
    if (!disk.mounted()) GTEST_SKIP() << "no right to mount a small disk";
    World world({.dataFolder = folder.path("ann")});
    auto& client = world.client();
    client.start();
    ASSERT_TRUE(client.waitForPath("/Papers"));
    ASSERT_TRUE(client.waitForState("online"));
    const auto write = [&](const std::string& name, std::size_t size) {
        std::ofstream file(client.path("/Papers/" + name), std::ios::binary);
        const auto bytes = randomBytes(size);
        file.write(bytes.data(), std::ssize(bytes));
        file.close();
        return !file.fail();
    };
    ASSERT_TRUE(write("fits", 100'000));
    disk.fill();
    EXPECT_FALSE(write("too big", 3'000'000)) << "nobody may take this for written";
    // What needs no room goes on, though nothing of it can be kept at once.
    fs::rename(client.path("/Papers/fits"), client.path("/Papers/renamed"));
    EXPECT_EQ(client.run({"status"}).status, 0);
    disk.empty();
    std::error_code error;
    fs::remove(client.path("/Papers/too big"), error);
    EXPECT_TRUE(eventually([&] { return write("after", 200'000); }));

    ASSERT_TRUE(client.waitForUploads());
    auto& other = world.otherClient();
    other.start();
    ASSERT_TRUE(other.waitForPath("/Papers/after"));
    ASSERT_TRUE(other.waitForPath("/Papers/renamed"));
    EXPECT_TRUE(readRange(other.path("/Papers/renamed"), 0, 100'001) == randomBytes(100'000));
    EXPECT_TRUE(readRange(other.path("/Papers/after"), 0, 200'001) == randomBytes(200'000));
    EXPECT_FALSE(fs::exists(other.path("/Papers/fits")));
}

}  // namespace
}  // namespace tarnwell::testing
