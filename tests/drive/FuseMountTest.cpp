#include "drive/FuseMount.h"

#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "drive/DriveWorld.h"
#include "drive/MountPoint.h"
#include "drive/MountedDrive.h"
#include "support/LogCapture.h"

namespace tarnwell::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

using FuseMountTest = MountedDrive;

TEST_F(FuseMountTest, showsTheTreeWithItsAttributes) {
    const auto folder = world.addFolder("S", "sub");
    const auto file = world.addCached(folder->InternalName.str(), "f.txt", "hello");
    {
        const auto lock = world.store.beginWriteStorage();
        file->POSIXPermissions = 0640;
    }

    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(path())) {
        names.push_back(entry.path().string().substr(path().size()));
    }
    EXPECT_THAT(names, ElementsAre("/Share", "/Share/sub", "/Share/sub/f.txt", "/.fuselock"));
    struct stat attributes {};
    ASSERT_EQ(::stat(path("Share/sub/F.TXT").c_str(), &attributes), 0) << "names have no letter case";
    EXPECT_EQ(attributes.st_mode, S_IFREG | 0640u);
    EXPECT_EQ(attributes.st_size, 5);
    EXPECT_EQ(attributes.st_blocks, 1);
    EXPECT_EQ(attributes.st_uid, ::getuid());
    EXPECT_EQ(dateWithTicks(kUnixEpochTicks + attributes.st_mtim.tv_sec * 10'000'000 +
                            attributes.st_mtim.tv_nsec / 100),
              world.clock.now());
    struct statvfs drive {
    }, disk{};
    ASSERT_EQ(::statvfs(path().c_str(), &drive), 0);
    ASSERT_EQ(::statvfs(world.layout.filesCachePath().c_str(), &disk), 0);
    EXPECT_EQ(drive.f_blocks * drive.f_frsize, disk.f_blocks * disk.f_frsize / 4096 * 4096);
    EXPECT_EQ(::access(path("Share/sub/f.txt").c_str(), R_OK), 0);
    EXPECT_EQ(::access(path("Share/sub/f.txt").c_str(), X_OK), -1);
}

TEST_F(FuseMountTest, readsByteForByte) {
    const auto bytes = randomBytes((3u << 20) + 12345);
    world.addCached("S", "cached", bytes);
    world.addRemote("S", "remote", bytes);
    world.addRemote("S", "empty", "");
    EXPECT_TRUE(contentsOf(path("Share/cached")) == bytes);
    EXPECT_TRUE(contentsOf(path("Share/remote")) == bytes);
    EXPECT_EQ(contentsOf(path("Share/empty")), "");

    const int descriptor = ::open(path("Share/cached").c_str(), O_RDONLY);
    std::string piece(5000, '\0');
    for (const std::size_t offset : {0u, 1u, 4095u, (1u << 20) - 1, (3u << 20) + 12000u, 5u << 20}) {
        const auto count = ::pread(descriptor, piece.data(), piece.size(), static_cast<off_t>(offset));
        ASSERT_GE(count, 0);
        EXPECT_EQ(piece.substr(0, static_cast<std::size_t>(count)),
                  offset < bytes.size() ? bytes.substr(offset, piece.size()) : "")
            << offset;
    }
    void* map = ::mmap(nullptr, bytes.size(), PROT_READ, MAP_PRIVATE, descriptor, 0);
    ASSERT_NE(map, MAP_FAILED);
    EXPECT_EQ(std::memcmp(map, bytes.data(), bytes.size()), 0);
    ::munmap(map, bytes.size());
    ::close(descriptor);
}

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

TEST_F(FuseMountTest, showsRemoteChangesAtOnce) {
    const auto file = world.addCached("S", "a", "one");
    const int descriptor = ::open(path("Share/a").c_str(), O_RDONLY);
    struct stat before {
    }, after{};
    ASSERT_EQ(::fstat(descriptor, &before), 0);
    world.rename(file, "b");
    EXPECT_FALSE(fs::exists(path("Share/a")));
    ASSERT_EQ(::stat(path("Share/b").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino) << "the item is what it was";
    {
        const auto lock = world.store.beginWriteStorage();
        std::ofstream(world.layout.cachePathForFile(*file)) << "other text";
        file->AllocationSize = 10;
    }
    char text[20];
    EXPECT_EQ(::pread(descriptor, text, sizeof text, 0), 10) << "an open file follows its item";
    EXPECT_EQ(contentsOf(path("Share/b")), "other text");
    ::close(descriptor);
}

TEST_F(FuseMountTest, extendedAttributesWithAndWithoutPrefix) {
    const auto file = world.addCached("S", "f", "x");
    std::ofstream(world.layout.extendedAttrsPathForFile(*file))
        << R"(<plist version="1.0"><dict><key>color</key><data>cmVk</data></dict></plist>)";
    const auto name = path("Share/f");
    char value[16] = {};
    EXPECT_EQ(::getxattr(name.c_str(), "user.color", nullptr, 0), 3);
    EXPECT_EQ(::getxattr(name.c_str(), "user.color", value, sizeof value), 3);
    EXPECT_STREQ(value, "red");
    EXPECT_EQ(::getxattr(name.c_str(), "user.color", value, 2), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(::getxattr(name.c_str(), "user.none", value, sizeof value), -1);
    EXPECT_EQ(errno, ENODATA);
    EXPECT_EQ(::getxattr(name.c_str(), "com.tarnwell.ferndisk-osx.filestatus", value, sizeof value), 1);
    EXPECT_EQ(value[0], 1);
    char names[64] = {};
    EXPECT_EQ(::listxattr(name.c_str(), names, sizeof names), 11);
    EXPECT_STREQ(names, "user.color");
    EXPECT_EQ(::listxattr(path(".fuselock").c_str(), names, sizeof names), 0);
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

TEST_F(FuseMountTest, noticesThatOthersUnmount) {
    ASSERT_EQ(::umount2(path().c_str(), 0), 0) << std::strerror(errno);
    ASSERT_TRUE(waitFor(didUnmount, 1));
    mountDrive();
    EXPECT_TRUE(fs::exists(path("Share")));
    mount->unmount(false);
    EXPECT_TRUE(waitFor(didUnmount, 2));
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

TEST_F(FuseMountTest, aCutConnectionIsCleanedUp) {
    const auto device = mountpoint::deviceAt(path());
    ASSERT_TRUE(device);
    ASSERT_EQ(::umount2(path().c_str(), MNT_FORCE), 0) << std::strerror(errno);
    ASSERT_TRUE(waitFor(didUnmount, 1));
    EXPECT_FALSE(mountpoint::deviceAt(path()));
}

TEST_F(FuseMountTest, saysWhyAMountFailed) {
    FuseMount other(world.drive, {nullptr, [this](const auto& why) { failure = why; }, nullptr});
    other.mount(world.folder.path("nowhere"), kOptions);
    EXPECT_THAT(failure, HasSubstr("No such file or directory"));
    EXPECT_FALSE(other.isMounted());
}

TEST_F(FuseMountTest, takesADeadMountAway) {
    const auto dead = world.folder.path("dead");
    ::mkdir(dead.c_str(), 0700);
    const int device = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    const auto data = "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0";
    if (::mount("dead", dead.c_str(), "fuse", 0, data.c_str()) != 0) GTEST_SKIP() << "may not mount";
    ::close(device);
    ASSERT_TRUE(mountpoint::isDead(dead));
    LogCapture log;
    FuseMount::checkForOldMountAtPath(dead);
    FuseMount::checkForOldMountAtPath(path());
    EXPECT_EQ(
        log.count("Warning! Found dead filesystem on mountpoint " + dead + ". Unmounted using our force."),
        1u);
    EXPECT_EQ(log.count("Error!"), 0u);
    EXPECT_FALSE(mountpoint::deviceAt(dead));
    EXPECT_TRUE(mountpoint::deviceAt(path())) << "a living mount is left alone";
}

}  // namespace
}  // namespace tarnwell::testing
