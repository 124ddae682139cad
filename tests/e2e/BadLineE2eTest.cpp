// Connections that are cut, stalled or slow, and processes killed in the middle of it: nothing half is ever
// taken for whole, nobody waits for ever, and what is missing arrives once it can.

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <future>
#include <thread>

#include "e2e/E2eTest.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;

const std::string kError = "errno " + std::to_string(EIO);

struct BadLineE2eTest : E2eTest {
    BadLineE2eTest() : E2eTest({.relayed = true}) {}
    TcpRelay& relay() { return world->relay(); }
    /// Logged in, so that the next bytes are those that the test asks for.
    void startOnline(const std::string& shown) {
        start(shown);
        ASSERT_TRUE(client().waitForState("online"));
    }
    void importAndStart(const std::string& name, const std::string& bytes) {
        import({{ name, bytes }});
        startOnline(name);
    }
    void killAndRestartService() {
        world->stopService();
        relay().cut();
        relay().heal();
        world->startService();
    }
    /// Files of the cache that hold anything, by folder.
    std::vector<fs::path> cached(const std::string& folder) {
        std::vector<fs::path> found;
        std::error_code error;
        for (fs::recursive_directory_iterator item(world->client().cacheFolder(folder), error), end;
             !error && item != end; item.increment(error)) {
            if (item->is_regular_file(error)) found.push_back(item->path());
        }
        return found;
    }
    std::uintmax_t downloaded() {
        std::uintmax_t bytes = 0;
        for (const auto& file : cached("Downloads")) {
            std::error_code error;
            if (const auto size = fs::file_size(file, error); !error) bytes += size;
        }
        return bytes;
    }
    /// Reads a byte now and then, which queues the file "big", until so much of it came.
    void downloadUntil(std::uintmax_t bytes) {
        ASSERT_TRUE(eventually([&] {
            readRange(papers("big"), 0, 1);
            return downloaded() > bytes;
        })) << bytes;
    }
    /// Until the whole of it is in the cache; there it must be the contents, at first sight.
    void expectDownload(const std::string& expected) {
        ASSERT_TRUE(eventually([&] {
            readRange(papers("big"), 0, 1);
            return !cached("Files").empty();
        }));
        EXPECT_TRUE(readRange(cached("Files").front(), 0, expected.size() + 1) == expected);
        EXPECT_TRUE(contents("big") == expected);
    }
};

TEST_F(BadLineE2eTest, aCatchUpThatIsCutShowsNothingHalfAndIsMadeUpFor) {
    for (int i = 0; i < 3000; ++i)
        world->source("folder/" + std::to_string(i), "");
    world->import();
    startOnline("folder/2999");
    for (int i = 3000; i < 6000; ++i)
        world->folder().write("more/second/" + std::to_string(i), "");
    world->service({"share", "import", "Papers", world->folder().path("more")});

    relay().stallAfter(100'000);
    client().refresh();
    ASSERT_TRUE(relay().waitForFault());
    EXPECT_FALSE(fs::exists(papers("second")));
    killAndRestartService();
    EXPECT_TRUE(client().waitForPath("/Papers/folder/2999"));
    EXPECT_FALSE(fs::exists(papers("second")));
    client().refresh();
    EXPECT_TRUE(client().waitForPath("/Papers/second/5999"));
    EXPECT_EQ(readTree(papers("second")).size(), 3000u);
}

TEST_F(BadLineE2eTest, aRangeReadThatIsCutIsNeverTakenForWhole) {
    const std::string big = randomBytes(6'000'000);
    const std::string small = randomBytes(200'000);
    import({{"big", big}, { "small", small }});
    startOnline("small");
    const auto bytes = [&] { return readRange(papers("big"), 3'000'000, 1'000'000); };
    for (const std::int64_t after : {0, 1'000, 50'000, 150'000}) {
        relay().cutAfter(after);
        const auto got = contents("small");
        EXPECT_TRUE(got == kError || got == small) << after << ": " << got.size();
        relay().cutAfter(after);
        const auto range = bytes();
        EXPECT_TRUE(range == kError || range == big.substr(3'000'000, 1'000'000)) << after;
        relay().heal();
    }
    relay().stallAfter(100'000);
    auto reader = std::async(std::launch::async, bytes);
    ASSERT_TRUE(relay().waitForFault());
    killAndRestartService();
    const auto cut = reader.get();
    EXPECT_TRUE(cut == kError || cut == big.substr(3'000'000, 1'000'000)) << cut.size();
    EXPECT_TRUE(eventually([&] { return bytes() == big.substr(3'000'000, 1'000'000); }));
    EXPECT_TRUE(eventually([&] { return contents("small") == small; }));
}

TEST_F(BadLineE2eTest, aDownloadGoesOnWhereItWasCut) {
    const std::string big = randomBytes(8'000'000);
    importAndStart("big", big);
    relay().setBytesPerSecond(4'000'000);
    downloadUntil(1'000'000);
    killAndRestartService();
    EXPECT_TRUE(cached("Files").empty());
    relay().setBytesPerSecond(4'000'000);

    // And the client in its turn, at three moments.
    for (const std::uintmax_t moment : {2'000'000, 3'000'000, 4'500'000}) {
        downloadUntil(moment);
        client().kill();
        EXPECT_TRUE(cached("Files").empty());
        startOnline("big");
    }
    const auto before = relay().bytesFromServer();
    expectDownload(big);
    EXPECT_LT(relay().bytesFromServer() - before, 5'500'000) << "what was there is not fetched again";
}

TEST_F(BadLineE2eTest, aStalledServiceHoldsNobodyUp) {
    const std::string big = randomBytes(3'000'000);
    for (int i = 0; i < 24; ++i)
        world->source("small " + std::to_string(i), randomBytes(1000));
    importAndStart("big", big);
    ASSERT_TRUE(client().waitForPath("/Papers/small 9"));
    relay().stallAfter(0);
    const auto began = SteadyClock::now();
    std::atomic<int> failed{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 24; ++i) {
        readers.emplace_back([&, name = papers("small " + std::to_string(i))] {
            failed += readRange(name, 0, 1000) == kError;
        });
    }
    readers.emplace_back([&] { failed += readRange(papers("big"), 1'000'000, 1000) == kError; });
    // While they wait, what is known is shown at once.
    ASSERT_TRUE(eventually([&] { return failed == 0 && relay().connections() > 1; }));
    const auto asked = SteadyClock::now();
    EXPECT_EQ(std::distance(fs::directory_iterator(papers("")), {}), 25);
    for (int i = 0; i < 24; ++i)
        EXPECT_EQ(fs::file_size(papers("small " + std::to_string(i))), 1000u);
    EXPECT_TRUE(client().run({"status"}).status == 0);
    EXPECT_LT(SteadyClock::now() - asked, 2s);
    EXPECT_EQ(failed, 0) << "they were still waiting";
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(failed, 25);
    EXPECT_LT(SteadyClock::now() - began, 15s);

    relay().heal();
    EXPECT_TRUE(eventually([&] { return contents("big") == big; }));
    EXPECT_TRUE(eventually([&] { return contents("small 3") == randomBytes(1000); }));
}

TEST_F(BadLineE2eTest, theClientEndsWhileReadsAreStalled) {
    importAndStart("big", randomBytes(3'000'000));
    relay().stallAfter(0);
    auto reader = std::async(std::launch::async, [&] { return readRange(papers("big"), 0, 1000); });
    ASSERT_TRUE(eventually([&] { return client().log().find("Next download range") != std::string::npos; }));
    const auto began = SteadyClock::now();
    client().process().signal(SIGTERM);
    ASSERT_TRUE(eventually([&] { return client().log().find("canceled") != std::string::npos; }));
    EXPECT_EQ(client().stop(), 0) << "asked twice";
    EXPECT_FALSE(client().isMounted());
    EXPECT_TRUE(reader.get().starts_with("errno"));
    EXPECT_LT(SteadyClock::now() - began, 15s);
}

TEST_F(BadLineE2eTest, versionsAreNeverMixed) {
    const std::string before = randomBytes(8'000'000), after = randomBytes(7'900'000);
    import({{"big", before}, { "small", std::string(1000, 'a') }});
    startOnline("big");
    relay().setBytesPerSecond(4'000'000);
    downloadUntil(2'000'000);
    world->service({"put", "Papers", world->folder().write("new", after), "big"});
    world->service({"put", "Papers", world->folder().write("b", std::string(1000, 'b')), "small"});
    client().refresh();
    ASSERT_TRUE(eventually([&] { return fs::file_size(papers("big")) == after.size(); }));
    EXPECT_TRUE(readRange(papers("big"), 1'000'000, 50'000) == after.substr(1'000'000, 50'000));
    relay().setBytesPerSecond(0);
    expectDownload(after);
    EXPECT_TRUE(eventually([&] { return downloaded() == 0; })) << "nothing is left of the old one";
    EXPECT_EQ(contents("small"), std::string(1000, 'b'));
}

TEST_F(BadLineE2eTest, aShareThatIsTakenAwayEndsItsDownload) {
    importAndStart("big", randomBytes(8'000'000));
    relay().setBytesPerSecond(2'000'000);
    downloadUntil(500'000);
    world->service({"share", "revoke", "Papers", "ann@example.org"});
    client().refresh();
    EXPECT_TRUE(client().waitForPath("/Papers", false));
    EXPECT_TRUE(eventually([&] {
        return client().run({"status", "--json"}).output.find("\"downloadQueueLen\":0") != std::string::npos;
    }));
    EXPECT_EQ(downloaded(), 0u) << "what was taken away is not kept";
    EXPECT_TRUE(cached("Files").empty());
}

TEST_F(BadLineE2eTest, aServiceThatRefusesFailsReadsAtOnceAndASlowLineIsSlowAndNothingElse) {
    const std::string big = randomBytes(1'500'000);
    importAndStart("big", big);
    relay().setRefusing(true);
    relay().cut();
    const auto began = SteadyClock::now();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(readRange(papers("big"), i * 1000, 1000), kError);
    EXPECT_LT(SteadyClock::now() - began, 4s);
    relay().heal();
    relay().setBytesPerSecond(250'000);
    ASSERT_TRUE(eventually([&] { return readRange(papers("big"), 0, 1) == big.substr(0, 1); }));
    EXPECT_TRUE(contents("big") == big) << "as long as bytes move, a read goes on";
}

TEST_F(BadLineE2eTest, manyOpensOfOneFileCauseOneRequest) {
    importAndStart("a.txt", "once");
    relay().setDelay(200ms);
    std::atomic<int> right{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 30; ++i)
        readers.emplace_back([&] { right += readRange(papers("a.txt"), 0, 10) == "once"; });
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(right, 30);
    EXPECT_EQ(world->requests("read.aspx"), 1);
}

}  // namespace
}  // namespace tarnwell::testing
