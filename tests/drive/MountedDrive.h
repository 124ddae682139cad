#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "drive/DriveWorld.h"
#include "drive/FuseMount.h"

namespace tarnwell::testing {

inline const std::vector<std::string> kOptions{"sync_read",     "volname=Tarn, well", "direct_io",
                                               "nolocalcaches", "novncache",          "local",
                                               "volicon=/x",    "allow_root"};

inline std::size_t entriesOf(const char* folder) {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
}

inline std::string contentsOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline std::string randomBytes(std::size_t size) {
    std::minstd_rand generator(7);
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(generator()); });
    return bytes;
}

/// A mounted drive; what it needs of threads and descriptors is given back at the end.
class MountedDrive : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE device here";
        ::mkdir(path().c_str(), 0700);
        world.addShare("S", "Share");
        // Whatever the process keeps from its first mount is not a leak.
        mountDrive();
        mount->unmount(true);
        didUnmount = 0;
        descriptors_ = entriesOf("/proc/self/fd");
        threads_ = entriesOf("/proc/self/task");
        mountDrive();
    }

    void TearDown() override {
        if (!mount) return;
        world.mediator.release();
        mount->unmount(true);
        if (mount->wasAbandoned()) return;
        mount.reset();
        EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors_);
        EXPECT_EQ(entriesOf("/proc/self/task"), threads_);
    }

    void mountDrive() {
        failure.clear();
        if (!mount) {
            mount = std::make_unique<FuseMount>(
                world.drive, FuseMount::Notifications{[this] { count(didMount); },
                                                      [this](const auto& why) { failure = why; },
                                                      [this] { count(didUnmount); }});
        }
        mount->mount(path(), kOptions);
        ASSERT_EQ(failure, "");
    }

    [[nodiscard]] std::string path() const { return world.layout.mountPath(); }
    [[nodiscard]] std::string path(const std::string& name) const { return path() + "/" + name; }

    void count(int& counter) {
        std::lock_guard lock(mutex_);
        ++counter;
        changed_.notify_all();
    }
    bool waitFor(const int& counter, int value) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return counter == value; });
    }

    DriveWorld world;
    std::unique_ptr<FuseMount> mount;
    int didMount = 0, didUnmount = 0;
    std::string failure;

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t descriptors_ = 0, threads_ = 0;
};

}  // namespace tarnwell::testing
