// What happens on the service while the client runs: it shows after a refresh, whole.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "e2e/World.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

struct RemoteChangesE2eTest : ::testing::Test {
    void SetUp() override {
        if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE on this machine";
        world.emplace();
    }
    void start() {
        world->client().start();
        ASSERT_TRUE(world->client().waitForState("online"));
    }
    /// What the drive has to show of a share after its changes were made on `sourceFolder` as well.
    void expectSources() {
        world->client().refresh();
        const Tree expected = readTree(world->sourceFolder());
        EXPECT_TRUE(world->client().waitForTree("/Papers", expected));
    }
    void move(const std::string& from, const std::string& to) {
        world->service({"mv", "Papers", from, to});
        fs::rename(world->sourceFolder() + from, world->sourceFolder() + to);
    }
    /// A folder with so many in it. Records are records: folders need no contents to be made. In memory,
    /// since a disk may take minutes to remove them.
    void importMany(const std::string& share, const std::string& folder, int count) {
        std::string name =
            access("/dev/shm", W_OK) == 0 ? "/dev/shm/tarnwell-test-XXXXXX" : world->folder().path("XXXXXX");
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        fs::create_directory(name + "/" + folder);
        for (int i = 0; i < count; ++i)
            fs::create_directory(name + "/" + folder + "/" + std::to_string(i));
        world->service({"share", "import", share, name});
        fs::remove_all(name);
    }
    std::size_t entries(const std::string& drivePath) {
        std::error_code error;
        const fs::directory_iterator items(world->client().path(drivePath), error);
        return error ? 0 : static_cast<std::size_t>(std::distance(begin(items), end(items)));
    }
    bool waitForEntries(const std::string& drivePath, std::size_t count) {
        return eventually([&] { return entries(drivePath) == count; });
    }

    std::optional<World> world;
};

TEST_F(RemoteChangesE2eTest, everyKindOfChangeShowsAndOldHandlesAnswer) {
    for (const char* name : {"keep", "goes", "away/with/all", "away/too", "file", "folder/a", "folder/in/b"})
        world->source(name, std::string("contents of ") + name);
    world->source("grows", randomBytes(300'000));
    world->source("shrinks", randomBytes(700'000));
    world->import();
    start();
    auto& client = world->client();
    ASSERT_TRUE(client.waitForTree("/Papers", readTree(world->sourceFolder())));
    std::map<std::string, int> handles;
    for (const std::string name : {"goes", "away/too", "folder/in/b", "grows", "shrinks"})
        handles[name] = open(client.path("/Papers/" + name).c_str(), O_RDONLY | O_CLOEXEC);

    world->service({"rm", "Papers", "/goes"});
    world->service({"rm", "Papers", "/away"});
    fs::remove(world->sourceFolder() + "/goes");
    fs::remove_all(world->sourceFolder() + "/away");
    move("/file", "/FILE");  // the letters' case only
    move("/folder", "/moved");
    move("/moved/in", "/out");
    move("/keep", "/out/kept");
    for (const auto& [name, size] : {std::pair{"grows", 900'000}, std::pair{"shrinks", 10}}) {
        world->source(name, randomBytes(static_cast<std::size_t>(size)));
        world->service({"put", "Papers", world->sourceFolder() + "/" + name, name});
    }
    world->source("new/one", "new");
    world->service({"put", "Papers", world->folder().write("empty", ""), "first"});
    world->service({"rm", "Papers", "first"});
    const std::string added = world->folder().path("added");
    fs::create_directories(added);
    fs::copy(world->sourceFolder() + "/new", added + "/new", fs::copy_options::recursive);
    fs::last_write_time(added + "/new/one", fs::last_write_time(world->sourceFolder() + "/new/one"));
    world->service({"share", "import", "Papers", added});
    expectSources();

    const auto began = std::chrono::steady_clock::now();
    for (const auto& [name, handle] : handles) {
        char bytes[3] = {};
        ASSERT_GE(handle, 0);
        const auto count = pread(handle, bytes, sizeof bytes, 0);
        const std::string got(bytes, count < 0 ? 0 : static_cast<std::size_t>(count));
        const auto isVersion = [&](std::size_t size) { return got == randomBytes(size).substr(0, 3); };
        if (count < 0)
            EXPECT_NE(name, "folder/in/b") << "moved, not gone: " << errno;
        else if (name == "grows")
            EXPECT_TRUE(isVersion(300'000) || isVersion(900'000));
        else if (name == "shrinks")
            EXPECT_TRUE(isVersion(700'000) || isVersion(10));
        else
            EXPECT_EQ(got, "con") << name;
        close(handle);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - began, 5s);
    EXPECT_FALSE(fs::exists(client.path("/Papers/away/too")));
}

TEST_F(RemoteChangesE2eTest, pagesOfAnySizeAndSpacingArriveWhole) {
    // Shares of exactly a page, one record more, and several pages; their folder counts as well.
    const std::pair<const char*, int> shares[] = {
        {"Page", 9'999}, {"Page and one", 10'000}, {"Pages", 24'999}};
    for (const auto& [share, files] : shares) {
        world->service({"share", "add", share, "--domain", "home"});
        importMany(share, "f", files);
        world->service({"share", "grant", share, "ann@example.org"});
    }
    // Ticks far apart: what stood in front was deleted, so its records have the highest ticks, and the folder
    // of the rest comes after what is in it.
    importMany("Papers", "gone", 12'000);
    importMany("Papers", "left", 500);
    world->service({"rm", "Papers", "/gone"});
    world->service({"mv", "Papers", "/left", "/moved"});
    start();
    for (const auto& [share, files] : shares)
        EXPECT_TRUE(waitForEntries(std::string("/") + share + "/f", static_cast<std::size_t>(files)))
            << share;
    EXPECT_TRUE(waitForEntries("/Papers/moved", 500));
    EXPECT_EQ(entries("/Papers"), 1u);

    // What comes after a page of several is found from where the client is.
    world->service({"mv", "Pages", "/f/77", "/seventy-seven"});
    world->service({"rm", "Pages", "/f/78"});
    world->client().refresh();
    EXPECT_TRUE(world->client().waitForPath("/Pages/seventy-seven"));
    EXPECT_TRUE(waitForEntries("/Pages/f", 24'997));
}

TEST_F(RemoteChangesE2eTest, sharesComeGoAndAreRenamed) {
    world->source("a.txt", "Papers");
    world->import();
    start();
    auto& client = world->client();
    ASSERT_TRUE(client.waitForPath("/Papers/a.txt"));
    EXPECT_EQ(readRange(client.path("/Papers/a.txt"), 0, 100), "Papers");

    // A second domain, whose share differs from the first one's in case only.
    const std::string address = "away.localhost:" + std::to_string(world->clientPort());
    world->service({"domain", "add", "away", "--address", address});
    world->service({"share", "add", "papers", "--domain", "away"});
    world->service({"put", "papers", "--domain", "away", world->folder().write("b", "papers"), "b.txt"});
    world->service({"share", "grant", "papers", "--domain", "away", "ann@example.org"});
    ASSERT_TRUE(eventually([&] {
        client.refresh();  // the service takes its new certificate within a second
        return fs::exists(client.path("/papers (2)/b.txt"));
    }));
    EXPECT_EQ(readRange(client.path("/papers (2)/b.txt"), 0, 100), "papers");
    EXPECT_EQ(readRange(client.path("/Papers/a.txt"), 0, 100), "Papers");

    world->service({"share", "revoke", "Papers", "--domain", "home", "ann@example.org"});
    client.refresh();
    EXPECT_TRUE(client.waitForPath("/Papers", false));
    EXPECT_EQ(readRange(client.path("/papers (2)/b.txt"), 0, 100), "papers") << "of the other share";
    world->service({"share", "grant", "Papers", "--domain", "home", "ann@example.org"});
    client.refresh();
    ASSERT_TRUE(client.waitForPath("/Papers/a.txt"));
    EXPECT_EQ(readRange(client.path("/Papers/a.txt"), 0, 100), "Papers") << "with a new token";

    world->service({"share", "rename", "Papers", "--domain", "home", "Letters"});
    world->service({"put", "Letters", world->folder().write("c", "after"), "c.txt"});
    client.refresh();
    ASSERT_TRUE(client.waitForPath("/Letters/c.txt"));
    EXPECT_TRUE(client.waitForPath("/Papers", false));
    EXPECT_EQ(readRange(client.path("/Letters/a.txt"), 0, 100), "Papers");
    EXPECT_EQ(readRange(client.path("/Letters/c.txt"), 0, 100), "after");
}

TEST_F(RemoteChangesE2eTest, aDomainThatCannotBeReachedHoldsNobodyUp) {
    world->source("a.txt", "here");
    world->import();
    // Its host listens and never says a word.
    TcpRelay mute(1);
    mute.stallAfter(0);
    world->service({"domain", "add", "away", "--address", "away.localhost:" + std::to_string(mute.port())});
    world->service({"share", "add", "Far", "--domain", "away"});
    world->service({"share", "grant", "Far", "ann@example.org"});
    world->client().start();
    ASSERT_TRUE(world->client().waitForPath("/Papers/a.txt"));
    EXPECT_EQ(readRange(world->client().path("/Papers/a.txt"), 0, 100), "here");
    EXPECT_FALSE(fs::exists(world->client().path("/Far")));
}

}  // namespace
}  // namespace tarnwell::testing
