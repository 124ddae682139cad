// A file that two sides change at once: no version vanishes behind another, and no program ever sees two
// mixed.

#include <functional>
#include <vector>

#include "e2e/Hostile.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr std::size_t kSize = 5000;

std::string version(char name, std::size_t count = kSize) {
    return std::string(count, name);
}

struct HostileVersionsE2eTest : HostileTest {
    /// A folder for each case, with a file that the service has.
    template <class Cases>
    void prepare(const Cases& cases) {
        for (const auto& each : cases) {
            ASSERT_EQ(errorOf(mkdir(papers(each.name).c_str(), 0755)), 0);
            ASSERT_EQ(writeFile(fileOf(each.name), version('o')), 0);
        }
        ASSERT_TRUE(client().waitForUploads());
    }
    std::string fileOf(const char* name) { return papers(std::string(name) + "/file"); }
};

TEST_F(HostileVersionsE2eTest, aForeignChangeBetweenTwoOfTheUsersStaysOnTheService) {
    struct Case {
        const char* name;
        std::function<int(const std::string& path)> second;
        std::multiset<std::string> left;
    };
    const std::vector<Case> cases{
        {"saved again",
         [](const auto& path) { return writeFile(path, version('s')); },
         {version('e'), version('s')}},
        {"saved by rename",
         [](const auto& path) {
             const int error = writeFile(path + ".new", version('s'));
             return error ? error : errorOf(rename((path + ".new").c_str(), path.c_str()));
         },
         {version('e'), version('s')}},
        {"moved and saved",
         [](const auto& path) {
             const int error = errorOf(rename(path.c_str(), (path + " moved").c_str()));
             return error ? error : writeFile(path + " moved", version('s'));
         },
         {version('e'), version('s')}},
        {"deleted", [](const auto& path) { return errorOf(unlink(path.c_str())); }, {version('e')}}};
    begin();
    prepare(cases);
    for (const auto& each : cases)
        ASSERT_EQ(writeFile(fileOf(each.name), version('f')), 0);
    // Less than the five seconds for which the first save waits.
    for (const auto& each : cases)
        changeElsewhere(std::string(each.name) + "/file", version('e'));
    for (const auto& each : cases)
        EXPECT_EQ(each.second(fileOf(each.name)), 0) << each.name;
    expectDriveIsService();
    const Tree service = exported();
    for (const auto& each : cases)
        EXPECT_EQ(shown(contentsBelow(service, std::string("/") + each.name)), shown(each.left)) << each.name;
}

TEST_F(HostileVersionsE2eTest, aWriteThroughAnOldHandleIsSomewhereOrRefused) {
    struct Case {
        const char* name;
        std::function<int(int file)> write;
        int file = -1;
        int error = 0;
    };
    std::vector<Case> cases{
        {"truncated and written",
         [](int file) {
             const int error = errorOf(ftruncate(file, 0));
             return error ? error : errorOf(pwrite(file, "sssss", 5, 0));
         }},
        {"written whole", [](int file) { return errorOf(pwrite(file, version('s').data(), kSize, 0)); }},
        {"in the middle", [](int file) { return errorOf(pwrite(file, "sssss", 5, 1000)); }},
        {"at the end", [](int file) { return errorOf(pwrite(file, "sssss", 5, kSize)); }}};
    begin();
    prepare(cases);
    for (auto& each : cases) {
        each.file = open(fileOf(each.name).c_str(), O_RDWR | O_CLOEXEC);
        char byte = 0;
        ASSERT_EQ(pread(each.file, &byte, 1, 0), 1) << each.name;
        changeElsewhere(std::string(each.name) + "/file", version('e'));
    }
    for (auto& each : cases) {
        each.error = each.write(each.file);
        const int syncing = errorOf(fsync(each.file)), closing = errorOf(close(each.file));
        if (each.error == 0) each.error = syncing != 0 ? syncing : closing;
    }
    expectDriveIsService();
    const Tree service = exported();
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        const auto found = contentsBelow(service, std::string("/") + each.name);
        EXPECT_TRUE(found.contains(version('e'))) << shown(found);
        int with = 0;
        for (const auto& contents : found) {
            with += contents.find('s') != std::string::npos;
            EXPECT_TRUE(contents.find('e') == std::string::npos || contents == version('e')) << shown(found);
        }
        if (each.error == 0) {
            EXPECT_EQ(with, 1) << "what was written is nowhere: " << shown(found);
        } else {
            EXPECT_TRUE(each.error == ESTALE || each.error == EIO) << each.error;
        }
        EXPECT_FALSE(readFile(fileOf(each.name)).starts_with("errno"));
    }
}

TEST_F(HostileVersionsE2eTest, aReaderInTheMiddleNeverGetsTheRestOfAnotherVersion) {
    constexpr std::size_t kLarge = 3'000'000;
    for (const bool cached : {false, true}) {
        SCOPED_TRACE(cached ? "cached" : "fetched by ranges");
        begin();
        world->service({"put", "Papers", world->folder().write("o", version('o', kLarge)), "/file"});
        client().refresh();
        ASSERT_TRUE(client().waitForPath("/Papers/file"));
        if (cached) {
            // Read until the whole of it is on the disk here.
            ASSERT_TRUE(eventually([&] {
                readRange(papers("file"), 0, kLarge);
                std::error_code error;
                for (const auto& item :
                     fs::recursive_directory_iterator(client().cacheFolder("Files"), error))
                    if (item.is_regular_file() && item.file_size() == kLarge) return true;
                return false;
            }));
        }
        const int file = open(papers("file").c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(file, 0);
        std::string bytes(kLarge, '\0');
        ASSERT_EQ(pread(file, bytes.data(), kLarge / 2, 0), static_cast<ssize_t>(kLarge / 2));
        changeElsewhere("file", version('e', kLarge));
        EXPECT_EQ(shown(readFile(papers("file"))), shown(version('e', kLarge))) << "whoever opens it now";
        int error = 0;
        std::size_t at = kLarge / 2;
        while (at < kLarge) {
            const ssize_t count = pread(file, bytes.data() + at, kLarge - at, static_cast<off_t>(at));
            if (count <= 0) {
                error = count < 0 ? errno : -1;
                break;
            }
            at += static_cast<std::size_t>(count);
        }
        close(file);
        if (error == 0) {
            EXPECT_EQ(shown(bytes), shown(version('o', kLarge)));
        } else {
            EXPECT_TRUE(error == ESTALE || error == EIO) << error;
        }
        world.reset();
    }
}

TEST_F(HostileVersionsE2eTest, anEditorsBackupLeavesTheIdentityWithTheName) {
    struct Case {
        const char* name;
        std::size_t size;
        bool fromHere, read;  ///< written on this machine; read just before
        ino_t number = 0;     ///< on the other machine
        int held = -1;
    };
    // Contents that are not here leave with the backup: see docs/durability.md.
    std::vector<Case> cases{{"just read", kSize, false, true},
                            {"large and just read", 2'500'000, false, true},
                            {"written here", kSize, true, false}};
    begin();
    for (const auto& each : cases) {
        const std::string folder = each.name;
        if (each.fromHere) {
            ASSERT_EQ(errorOf(mkdir(papers(folder).c_str(), 0755)), 0);
            ASSERT_EQ(writeFile(fileOf(each.name), version('o', each.size)), 0);
        } else {
            world->source(folder + "/file", version('o', each.size));
        }
    }
    world->import();
    ASSERT_TRUE(client().waitForUploads());
    // Who has the identity shows on another machine: its open file follows it.
    auto& other = world->otherClient();
    start(other);
    const auto there = [&](const Case& each, const char* name) {
        return other.path(std::string("/Papers/") + each.name + "/" + name);
    };
    const auto numberOf = [](const std::string& path) {
        struct stat status {};
        return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
    };
    for (auto& each : cases) {
        ASSERT_TRUE(eventually([&] { return numberOf(there(each, "file")) != 0; }));
        each.held = open(there(each, "file").c_str(), O_RDONLY | O_CLOEXEC);
        each.number = numberOf(there(each, "file"));
    }
    client().refresh();
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        const std::string file = fileOf(each.name);
        ASSERT_TRUE(eventually([&] { return numberOf(file) != 0; }));
        if (each.read) {
            EXPECT_EQ(shown(readFile(file)), shown(version('o', each.size)));
        }
        ASSERT_EQ(errorOf(rename(file.c_str(), (file + "~").c_str())), 0);
        ASSERT_EQ(writeFile(file, version('s', each.size), O_CREAT | O_EXCL), 0);
    }
    expectDriveIsService();
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        EXPECT_EQ(shown(readFile(fileOf(each.name))), shown(version('s', each.size)));
        EXPECT_EQ(shown(readFile(fileOf(each.name) + "~")), shown(version('o', each.size)));
        EXPECT_TRUE(eventually([&] {
            other.refresh();
            return numberOf(there(each, "file~")) != 0 &&
                   readFile(there(each, "file")) == version('s', each.size);
        }));
        EXPECT_EQ(numberOf(there(each, "file")), each.number) << "the item went with the backup";
        EXPECT_NE(numberOf(there(each, "file~")), each.number);
        close(each.held);
    }
}

}  // namespace
}  // namespace tarnwell::testing
