// The states that the disk writes are those that its rules allow: each of them, and no others.

#include "disk/ForgetfulDisk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>

#include "e2e/ChildProcess.h"
#include "support/TemporaryFolder.h"

namespace tarnwell::testing {
namespace {

namespace fs = std::filesystem;
using Mode = ForgetfulDisk::Mode;
constexpr auto kRoot = ForgetfulDisk::kRoot;

class ForgetfulDiskTest : public ::testing::Test {
  protected:
    /// What `describe` says of the states of many cuts.
    std::set<std::string> states(const std::function<std::string(const TemporaryFolder&)>& describe) const {
        std::set<std::string> found;
        for (std::uint64_t seed = 0; seed < 150; ++seed) {
            const TemporaryFolder folder;
            disk.writeCut(seed, folder.path());
            found.insert(describe(folder));
        }
        return found;
    }
    std::set<std::string> names() const {
        return states([](const TemporaryFolder& folder) {
            std::set<std::string> sorted;
            for (const auto& item : fs::recursive_directory_iterator(folder.path("state")))
                sorted.insert(fs::relative(item.path(), folder.path("state")).string());
            std::string text;
            for (const auto& name : sorted)
                text += (text.empty() ? "" : " ") + name;
            return text;
        });
    }
    std::set<std::string> contents(const std::string& name) const {
        return states([&](const TemporaryFolder& folder) {
            return folder.exists("state/" + name) ? folder.read("state/" + name) : "missing";
        });
    }
    ForgetfulDisk::Id create(const std::string& name, const std::string& bytes, bool synced,
                             ForgetfulDisk::Id folder = kRoot) {
        int error = 0;
        const auto id = disk.create(folder, name, S_IFREG | 0600, error);
        EXPECT_EQ(disk.write(id, 0, bytes), 0);
        if (synced) disk.sync(id, false);
        return id;
    }

    ForgetfulDisk disk{Mode::kOrdered};
};

class HostileDiskTest : public ForgetfulDiskTest {
  protected:
    HostileDiskTest() { disk = ForgetfulDisk(Mode::kHostile); }
};

TEST_F(ForgetfulDiskTest, keepsAnyVersionOfEachPageAndNothingElse) {
    const std::string page(4096, 'a');
    const auto id = create("file", page + page, true);
    EXPECT_EQ(contents("file"), std::set{page + page});

    disk.write(id, 0, std::string(4096, 'b'));
    disk.write(id, 4096, std::string(4096, 'b'));
    bool older = false, newer = false, torn = false;
    for (const auto& bytes : contents("file")) {
        ASSERT_EQ(bytes.size(), 8192U);
        older = older || (bytes[0] == 'a' && bytes[4096] == 'b');
        newer = newer || (bytes[0] == 'b' && bytes[4096] == 'a');
        for (std::size_t sector = 0; sector < bytes.size(); sector += 512)
            ASSERT_EQ(bytes.substr(sector, 512).find_first_not_of(bytes[sector]), std::string::npos);
        torn = torn || bytes[0] != bytes[4095];
    }
    EXPECT_TRUE(older && newer && torn);
    disk.sync(id, true);
    EXPECT_EQ(contents("file"), std::set{std::string(8192, 'b')});

    // A truncation is there or not; what is written after it comes only with it.
    disk.truncate(id, 0);
    disk.write(id, 0, "new");
    EXPECT_EQ(contents("file"),
              (std::set<std::string>{std::string(8192, 'b'), "", "new", std::string(3, '\0')}));
}

TEST_F(ForgetfulDiskTest, keepsABeginningOfTheJournal) {
    create("1", "x", false);
    const auto second = create("2", "x", false);
    create("3", "x", false);
    EXPECT_EQ(names(), (std::set<std::string>{"", "1", "1 2", "1 2 3"}));
    disk.sync(second, true);
    EXPECT_EQ(names(), (std::set<std::string>{"1 2 3"})) << "its size was the latest operation";

    // The usual save without a sync: the new name is never missing, its contents may be.
    disk.rename(kRoot, "3", kRoot, "2", 0);
    EXPECT_EQ(names(), (std::set<std::string>{"1 2 3", "1 2"}));
    EXPECT_EQ(contents("2"), (std::set<std::string>{"x", "", std::string(1, '\0')}));
}

TEST_F(ForgetfulDiskTest, growsNoFileBeforeOlderOperations) {
    const auto log = create("log", "", true);
    create("item", "", false);
    disk.write(log, 0, "item was made");
    for (const auto& state : states([](const TemporaryFolder& folder) {
             return (folder.exists("state/item") ? "made " : "") + folder.read("state/log");
         }))
        EXPECT_TRUE(state.starts_with("made ") || state.empty()) << state;
}

TEST_F(ForgetfulDiskTest, forgetsAfterAFailedSync) {
    const auto id = create("file", "old", true);
    disk.write(id, 0, "new");
    disk.failSync(id);
    disk.sync(id, false);
    EXPECT_EQ(contents("file"), std::set<std::string>{"old"});
    disk.write(id, 2, "w");
    disk.sync(id, false);
    EXPECT_EQ(contents("file"), std::set<std::string>{"new"});
}

TEST_F(HostileDiskTest, keepsNamesOnlyWithTheirFolder) {
    int error = 0;
    const auto folder = disk.create(kRoot, "d", S_IFDIR | 0700, error);
    create("f", "x", true, folder);
    create("g", "x", true);
    EXPECT_EQ(names(), (std::set<std::string>{"", "d", "d d/f", "g", "d g", "d d/f g"}));
    disk.sync(folder, false);
    EXPECT_EQ(names(), (std::set<std::string>{"d d/f", "d d/f g"}));
    disk.rename(folder, "f", kRoot, "g", 0);
    EXPECT_EQ(names(), (std::set<std::string>{"d d/f", "d d/f g", "d g"})) << "a file has one of its names";
}

/// Only what a real mount shows: that the calls arrive, shared mappings included, and fail on demand.
TEST(MountedDiskTest, servesWhatProgramsDo) {
    if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE on this machine";
    const TemporaryFolder folder;
    const std::string top = folder.path("disk");
    fs::create_directory(top);
    ChildProcess program(
        {.command = {std::string(TARNWELL_BIN) + "/forgetful-disk", top, folder.path("control")},
         .outputFile = folder.path("out")});
    const int control = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    folder.path("control").copy(address.sun_path, sizeof address.sun_path - 1);
    struct statvfs space {};
    for (int tries = 0; tries < 500 && (statvfs(top.c_str(), &space) != 0 || space.f_files != 1'000'000);
         ++tries)
        usleep(10'000);
    ASSERT_EQ(connect(control, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const auto tell = [control](const std::string& line) {
        if (write(control, (line + "\n").data(), line.size() + 1) < 0) return std::string("cannot write");
        std::string answer;
        for (char byte = 0; read(control, &byte, 1) == 1 && byte != '\n';)
            answer += byte;
        return answer;
    };

    const int file = open((top + "/file").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    ASSERT_EQ(ftruncate(file, 8192), 0);
    auto* mapped = static_cast<char*>(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    ASSERT_NE(mapped, MAP_FAILED);
    mapped[5000] = 'm';
    EXPECT_EQ(fsetxattr(file, "user.tw", "v1", 2, 0), 0);
    ASSERT_EQ(msync(mapped, 8192, MS_SYNC), 0);
    ASSERT_EQ(fsync(file), 0);
    ASSERT_EQ(pwrite(file, "unsynced", 8, 0), 8);
    EXPECT_EQ(mapped[0], 'u');
    ASSERT_EQ(link((top + "/file").c_str(), (top + "/second").c_str()), 0);
    ASSERT_EQ(mkdir((top + "/folder").c_str(), 0700), 0);
    EXPECT_EQ(
        renameat2(AT_FDCWD, (top + "/folder").c_str(), AT_FDCWD, (top + "/second").c_str(), RENAME_EXCHANGE),
        0);

    // The cut whose seed loses everything that was not synced.
    for (int seed = 0;; ++seed) {
        ASSERT_LT(seed, 100);
        const std::string cut = folder.path("cut" + std::to_string(seed));
        ASSERT_TRUE(tell("cut " + std::to_string(seed) + " " + cut).starts_with("ok"));
        const std::string bytes = folder.read("cut" + std::to_string(seed) + "/state/file");
        ASSERT_EQ(bytes.substr(8, 4999), std::string(4992, '\0') + "m" + std::string(6, '\0'));
        char version[8] = {};
        EXPECT_EQ(lgetxattr((cut + "/state/file").c_str(), "user.tw", version, sizeof version), 2);
        if (bytes[0] == '\0' && !fs::exists(cut + "/state/folder")) break;
    }
    ASSERT_TRUE(tell("keep " + folder.path("kept")).starts_with("ok"));
    EXPECT_EQ(folder.read("kept/state/folder").substr(0, 8), "unsynced");

    tell("fail fsync 2 5");
    EXPECT_EQ(fsync(file), 0);
    EXPECT_EQ(fsync(file), -1);
    EXPECT_EQ(errno, EIO);
    tell("full 8192");
    EXPECT_EQ(posix_fallocate(file, 8192, 1 << 20), ENOSPC);
    ASSERT_EQ(statvfs(top.c_str(), &space), 0);
    EXPECT_EQ(space.f_bavail, 2U);
    munmap(mapped, 8192);
    close(file);
    close(control);
    program.signal(SIGTERM);
    EXPECT_EQ(program.wait(std::chrono::seconds(10)), 0);
    umount2(top.c_str(), MNT_DETACH);
}

}  // namespace
}  // namespace tarnwell::testing
