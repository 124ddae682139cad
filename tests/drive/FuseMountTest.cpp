#include "drive/FuseMount.h"

#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <thread>

#include "drive/DriveWorld.h"
#include "drive/MountPoint.h"
#include "drive/MountedDrive.h"

namespace tarnwell::testing {
namespace {

namespace fs = std::filesystem;

using FuseMountTest = MountedDrive;

TEST_F(FuseMountTest, manyReadersAtOnceWhileSlowFetchesHang) {
    const auto bytes = randomBytes(1u << 20);
    world.addCached("S", "cached", bytes);
    world.addRemote("S", "slow", bytes);
    world.mediator.hold();
    std::vector<std::thread> slow, quick;
    constexpr int kSlow = 24;
    for (int i = 0; i < kSlow; ++i)
        slow.emplace_back([&] { EXPECT_TRUE(contentsOf(path("Share/slow")) == bytes); });
    ASSERT_TRUE(world.mediator.waitForHeld(kSlow));
    for (int i = 0; i < 8; ++i)
        quick.emplace_back([&] { EXPECT_TRUE(contentsOf(path("Share/cached")) == bytes); });
    for (auto& reader : quick)
        reader.join();
    world.mediator.release();
    for (auto& reader : slow)
        reader.join();
}

TEST_F(FuseMountTest, listsALargeFolderWhileItChanges) {
    constexpr int kCount = 10'000;
    std::vector<TWVirtualFilePtr> files;
    for (int i = 0; i < kCount; ++i)
        files.push_back(world.addRemote("S", "file" + std::to_string(i), "x"));
    world.addRemote("S", "..", "x");
    world.addRemote("S", std::string(2000, 'n'), "x");

    DIR* directory = ::opendir(path("Share").c_str());
    ASSERT_NE(directory, nullptr);
    std::multiset<std::string> seen;
    for (int i = 0; const dirent* entry = ::readdir(directory); ++i) {
        seen.insert(entry->d_name);
        if (i != 100) continue;
        const auto lock = world.store.beginWriteStorage();
        for (int other = 1; other < kCount; other += 2)
            world.store.deleteFileMetadata(files[std::size_t(other)]);
        world.addRemote("S", "late", "x");
    }
    EXPECT_EQ(seen.size(), kCount + 2u) << "no entry twice, none left out, hostile names hidden";
    EXPECT_EQ(seen.count("."), 1u);
    EXPECT_EQ(seen.count(".."), 1u);
    ::rewinddir(directory);
    std::size_t again = 0;
    while (::readdir(directory))
        ++again;
    EXPECT_EQ(again, kCount / 2 + 3u) << "a rewound folder is read anew";
    ::closedir(directory);
}

TEST_F(FuseMountTest, anExceptionIsAnErrorOfOneCall) {
    world.addCached("S", "f", "text");
    const int descriptor = ::open(path("Share/f").c_str(), O_RDONLY);
    world.mediator.failNext();
    char byte = 0;
    EXPECT_EQ(::read(descriptor, &byte, 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(::read(descriptor, &byte, 1), 1);
    ::close(descriptor);
}

TEST_F(FuseMountTest, noticesThatOthersUnmountOrCutTheConnection) {
    for (const int flags : {0, static_cast<int>(MNT_FORCE)}) {
        didUnmount = 0;
        ASSERT_EQ(::umount2(path().c_str(), flags), 0) << std::strerror(errno);
        ASSERT_TRUE(waitFor(didUnmount, 1));
        EXPECT_FALSE(mountpoint::deviceAt(path()));
        mountDrive();
        EXPECT_TRUE(fs::exists(path("Share")));
    }
}

TEST_F(FuseMountTest, aBusyDriveIsUnmountedByForceOnly) {
    const int descriptor = ::open(path(".fuselock").c_str(), O_RDWR | O_CREAT, 0700);
    EXPECT_EQ(mount->unmount(false), EBUSY);
    EXPECT_EQ(didUnmount, 0);
    EXPECT_EQ(mount->unmount(true), 0);
    EXPECT_EQ(didUnmount, 1);
    EXPECT_FALSE(fs::exists(path("Share")));
    ::close(descriptor);
}

TEST_F(FuseMountTest, forceDoesNotWaitForAHangingRead) {
    world.addRemote("S", "slow", "text");
    world.mediator.hold();
    std::thread reader([&] {
        const int descriptor = ::open(path("Share/slow").c_str(), O_RDONLY);
        char byte = 0;
        EXPECT_EQ(::read(descriptor, &byte, 1), -1);
        ::close(descriptor);
    });
    ASSERT_TRUE(world.mediator.waitForHeld(1));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(mount->unmount(true, std::chrono::milliseconds(300)), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_TRUE(mount->wasAbandoned());
    EXPECT_EQ(didUnmount, 1);
    reader.join();
    EXPECT_FALSE(mountpoint::deviceAt(path()));
    // The thread that was left to itself ends with its call; only then may the world go.
    world.mediator.release();
    mount.reset();
    world.drive.reset();
    EXPECT_EQ(world.driveGone.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

}  // namespace
}  // namespace tarnwell::testing
