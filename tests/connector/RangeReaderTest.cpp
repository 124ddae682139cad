#include <filesystem>
#include <thread>

#include "connector/RangeReadAhead.h"
#include "connector/ReadFixture.h"

namespace tarnwell::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::int64_t kLarge = 1'000'000;

class RangeReaderTest : public ReadFixture {
  protected:
    std::vector<std::string> downloadsFolder() {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(world.layout.downloadsCachePath())) {
            names.push_back(entry.path().filename());
        }
        return names;
    }
};

TEST_F(RangeReaderTest, fetchesExactlyTheRangeOfALargeFile) {
    const auto contents = pattern(kLarge);
    onRead().answer(serving(contents));
    const auto file = world.addFile("F1", kLarge);
    EXPECT_EQ(world.downloads.downloadFileChunk(file, 1000, 4096), contents.substr(1000, 4096));
    const auto request = world.loader.requests().front();
    EXPECT_EQ(request.method + " " + request.url, "GET https://filecache01.d0.test/read.aspx");
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"Token", "acl%2Bs1"}, {"fileName", "UF1"}, {"position", "1000"}, {"chunk", "4096"}};
    EXPECT_EQ(request.headers, expected);
    EXPECT_EQ(request.idleTimeout, std::chrono::seconds(10));

    EXPECT_EQ(world.downloads.downloadFileChunk(file, kLarge - 10, 4096), contents.substr(kLarge - 10));
    EXPECT_EQ(world.downloads.downloadFileChunk(file, kLarge, 4096), "");
    EXPECT_EQ(world.downloads.downloadFileChunk(file, kLarge + 1, 4096), "");
    EXPECT_EQ(world.downloads.downloadFileChunk(file, -1, 4096), std::nullopt);
    EXPECT_EQ(world.downloads.downloadFileChunk(world.addFile("F0", 0), 0, 4096), "");
    EXPECT_THAT(ranges(), ElementsAre("1000+4096", std::to_string(kLarge - 10) + "+10"));
    EXPECT_TRUE(world.downloads.isFileInDownloadQueue(*file)) << "the rest follows in the background";
    EXPECT_FALSE(world.downloads.isFileDownloaded(*file));
}

TEST_F(RangeReaderTest, aReplyThatIsNotTheRangeIsNeverTakenForIt) {
    const auto file = world.addFile("F1", kLarge);
    const auto contents = pattern(kLarge);
    onRead().answer([&](const UrlRequest& request) {
        auto reply = serving(contents)(request);
        reply.body.resize(std::min<std::size_t>(reply.body.size(), 1500));
        return reply;
    });
    EXPECT_EQ(world.downloads.downloadFileChunk(file, 0, 4096), contents.substr(0, 4096)) << "in pieces";
    EXPECT_THAT(ranges(), ElementsAre("0+4096", "1500+2596", "3000+1096"));

    onRead().reply(200, contents.substr(0, 5000));
    EXPECT_EQ(world.downloads.downloadFileChunk(file, 0, 4096), contents.substr(0, 4096)) << "too long";
    onRead().reply(200, "");
    EXPECT_EQ(world.downloads.downloadFileChunk(file, 0, 4096), std::nullopt) << "no bytes";
    onRead().reply(404, std::string(4096, 'x'));
    EXPECT_EQ(world.downloads.downloadFileChunk(file, 0, 4096), std::nullopt) << "an error page";
    onRead().answer([&](const auto&) { return UrlReply{200, "cut", contents.substr(0, 4096)}; });
    EXPECT_EQ(world.downloads.downloadFileChunk(file, 0, 4096), std::nullopt) << "cut off";
    EXPECT_FALSE(contentsOf(world.cachePath(file)));
}

TEST_F(RangeReaderTest, aSmallFileIsFetchedWholeOnceAndKept) {
    const auto contents = pattern(100 * 1024);
    onRead().answer(serving(contents));
    const auto file = world.addFile("F1", static_cast<std::int64_t>(contents.size()));
    EXPECT_EQ(world.downloads.downloadFileChunk(file, 8192, 4096), contents.substr(8192, 4096));
    EXPECT_EQ(world.downloads.downloadFileChunk(file, 0, 4096), contents.substr(0, 4096))
        << "not on disk yet";
    world.settle();
    EXPECT_TRUE(world.downloads.isFileDownloaded(*file));
    EXPECT_EQ(contentsOf(world.cachePath(file)), contents);
    EXPECT_EQ(file->DownloadDate, world.clock.now());
    EXPECT_FALSE(world.downloads.hasDownloads());
    EXPECT_THAT(downloadsFolder(), IsEmpty());
    EXPECT_EQ(world.downloads.downloadFileChunk(file, 0, 4096), contents.substr(0, 4096))
        << "looked a moment ago";
    EXPECT_THAT(ranges(), ElementsAre("0+102400"));
}

TEST_F(RangeReaderTest, onlyWholeContentsOfThePresentVersionAreKept) {
    const auto contents = pattern(5000);
    const auto read = [&](const TWVirtualFilePtr& file) {
        return world.downloads.downloadFileChunk(file, 0, 100);
    };

    const auto shorter = world.addFile("Fshort", 6000);
    onRead().answer(serving(contents));
    EXPECT_EQ(read(shorter), contents.substr(0, 100)) << "what came is right as far as it goes";
    EXPECT_EQ(world.downloads.downloadFileChunk(shorter, 4950, 100), std::nullopt);

    // While the reply is on its way.
    TWVirtualFilePtr asked;
    std::function<void()> change;
    onRead().answer([&](const UrlRequest& request) {
        const auto lock = world.store.beginWriteStorage();
        change();
        return serving(contents)(request);
    });
    const auto updated = asked = world.addFile("Fupdated", 5000);
    change = [&] { asked->UploadName = "Unew"; };
    EXPECT_TRUE(read(updated));
    const auto written = asked = world.addFile("Fwritten", 5000);
    change = [&] { asked->LocallyUpdated = true; };
    EXPECT_TRUE(read(written));
    const auto deleted = asked = world.addFile("Fdeleted", 5000);
    change = [&] { world.store.deleteFileMetadata(asked); };
    EXPECT_TRUE(read(deleted));
    world.settle();
    for (const auto& file : {shorter, updated, written, deleted}) {
        EXPECT_FALSE(contentsOf(world.cachePath(file))) << file->PublicName;
        EXPECT_FALSE(file->DownloadDate) << file->PublicName;
    }
    EXPECT_THAT(downloadsFolder(), IsEmpty());

    // Contents are here when the reader is answered; what was there and is nobody's goes, the user's stays.
    const auto plain = asked = world.addFile("Fplain", 5000);
    change = [&] { writeAt(world.cachePath(asked), "whose?"); };
    EXPECT_TRUE(read(plain));
    EXPECT_EQ(contentsOf(world.cachePath(plain)), contents);
    EXPECT_TRUE(world.downloads.isFileDownloaded(*plain));
    EXPECT_NE(ContentVersion::of(world.cachePath(plain)), ContentVersion::clean("UFplain")) << "not synced";
    world.settle();
    EXPECT_EQ(ContentVersion::of(world.cachePath(plain)), ContentVersion::clean("UFplain"));
    const auto own = asked = world.addFile("Fown", 5000);
    change = [&] {
        writeAt(world.cachePath(asked), "mine");
        ASSERT_EQ(ContentVersion::edited("UFold").set(world.cachePath(asked)), 0);
    };
    EXPECT_TRUE(read(own));
    EXPECT_EQ(KeptFiles::count(world.layout), 1U) << "unsent bytes that no record stands for";
    EXPECT_EQ(contentsOf(world.cachePath(own)), contents);
}

TEST_F(RangeReaderTest, namesFromTheWireNeverLeaveTheCache) {
    onRead().reply(200, "12345");
    for (const char* name : {"../../escaped", "/tmp/escaped", "..", ".", ""}) {
        const auto file = world.addFile("F1", 5);
        file->UploadName = name;
        EXPECT_EQ(world.downloads.downloadFileChunk(file, 0, 5), std::nullopt) << name;
        world.downloads.addFileDownloadTask(file, false);
        EXPECT_FALSE(world.downloads.hasDownloads()) << name;
    }
    EXPECT_THAT(ranges(), IsEmpty());
}

TEST_F(RangeReaderTest, aSilentServiceIsNotWaitedForAtEveryBlock) {
    const auto file = world.addFile("F1", kLarge);
    auto silent = onRead().answer([&](const UrlRequest&) {
        world.clock.advance(std::chrono::seconds(10));
        return UrlReply{.status = 0, .error = "timed out", .body = {}};
    });
    for (int block = 0; block < 5; ++block) {
        EXPECT_EQ(world.downloads.downloadFileChunk(file, block * 4096, 4096), std::nullopt);
    }
    EXPECT_EQ(silent.count(), 1u);
    world.clock.advance(std::chrono::seconds(5));
    EXPECT_EQ(world.downloads.downloadFileChunk(file, 0, 4096), std::nullopt);
    EXPECT_EQ(silent.count(), 2u);

    // One that refuses at once is asked each time.
    world.clock.advance(std::chrono::seconds(5));
    auto refusing = onRead().fail("connection refused");
    EXPECT_EQ(world.downloads.downloadFileChunk(file, 0, 4096), std::nullopt);
    EXPECT_EQ(world.downloads.downloadFileChunk(file, 0, 4096), std::nullopt);
    EXPECT_EQ(refusing.count(), 2u);
}

TEST_F(RangeReaderTest, aSequentialReaderFollowsTheWorker) {
    constexpr std::int64_t kSize = 3'000'000;
    constexpr std::uint32_t kOwn = 1 << 19;
    const auto contents = pattern(kSize);
    const auto file = world.addFile("F1", kSize);
    std::optional<std::string> bytes;
    std::thread reader;
    onRead().answer([&](const UrlRequest& request) {
        const auto position = std::stoll(header(request, "position").value());
        // The worker has its first chunk when it asks for the second, and the reader's bytes well before the
        // last: whenever the reader comes in between, they come from the worker.
        if (position == 131072)
            reader = std::thread([&] { bytes = world.downloads.downloadFileChunk(file, 0, kOwn); });
        if (position >= 2 * kOwn && reader.joinable()) reader.join();
        return serving(contents)(request);
    });
    world.downloads.downloadFile(file);
    EXPECT_TRUE(world.downloads.runOneDownload());
    EXPECT_TRUE(bytes == contents.substr(0, kOwn));
    EXPECT_THAT(ranges(), ::testing::Not(::testing::Contains("0+524288")));
    EXPECT_EQ(contentsOf(world.cachePath(file)), contents);
}

TEST_F(RangeReaderTest, aReaderIsAnsweredWhenTheWorkerThatItFollowsIsCancelled) {
    const auto contents = pattern(kLarge);
    const auto file = world.addFile("F1", kLarge);
    auto held = onRead().hold();
    const auto isOwn = [](const UrlRequest& request) { return header(request, "chunk") == "262144"; };
    world.loader.when(isOwn).answer(serving(contents));
    world.downloads.downloadFile(file);
    std::thread worker([&] { EXPECT_TRUE(world.downloads.runOneDownload()); });
    EXPECT_TRUE(held.waitForHeld(1));
    std::optional<std::string> bytes;
    std::thread reader([&] { bytes = world.downloads.downloadFileChunk(file, 0, 262144); });
    world.downloads.cancelFileDownload(file);
    reader.join();
    EXPECT_GE(held.held(), 1u) << "the worker itself still waits";
    held.release();
    worker.join();
    EXPECT_TRUE(bytes == contents.substr(0, 262144));
}

/// Runs the background tasks while a reader waits for one of them.
class Pump {
  public:
    explicit Pump(ManualExecutor& executor)
        : thread_([this, &executor] {
              while (!done_) {
                  executor.waitForTask(std::chrono::milliseconds(20));
                  executor.runAll();
              }
          }) {}
    ~Pump() {
        done_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

constexpr std::int64_t kHuge = 12 * RangeReadAhead::kBlock + 12345;
constexpr std::uint32_t kPiece = 128 << 10;

TEST_F(RangeReaderTest, aSequentialReaderIsAskedAheadFor) {
    const auto contents = pattern(kHuge);
    onRead().answer(serving(contents));
    const auto file = world.addFile("F1", kHuge);
    std::string bytes;
    {
        const Pump pump(world.background);
        for (std::int64_t position = 0; position < kHuge; position += kPiece) {
            bytes += world.downloads.downloadFileChunk(file, position, kPiece).value_or("?");
        }
    }
    EXPECT_TRUE(bytes == contents);
    std::int64_t asked = 0;
    for (const auto& request : world.loader.requests())
        asked += std::stoll(header(request, "chunk").value());
    EXPECT_LT(asked, kHuge + 2 * RangeReadAhead::kBlock) << "hardly anything is fetched twice";
    EXPECT_LT(ranges().size(), 20u) << "blocks, not pieces";
}

TEST_F(RangeReaderTest, onASlowLinkNothingIsAskedAhead) {
    const auto contents = pattern(kHuge);
    const auto file = world.addFile("F1", kHuge);
    onRead().answer([&, serve = serving(contents)](const UrlRequest& request) {
        EXPECT_GT(request.totalTimeout.count(), 0) << "bytes that trickle hold no reader for ever";
        world.clock.advance(std::chrono::seconds(2));
        return serve(request);
    });
    for (int piece = 0; piece < 20; ++piece) {
        const std::int64_t position = std::int64_t{piece} * kPiece;
        EXPECT_TRUE(world.downloads.downloadFileChunk(file, position, kPiece) ==
                    contents.substr(static_cast<std::size_t>(position), kPiece));
    }
    EXPECT_EQ(ranges().size(), 20u) << "what is asked ahead would take the link from the reader";
}

TEST_F(RangeReaderTest, aBlockThatFailsLeavesTheReaderToAskForItself) {
    const auto contents = pattern(kHuge);
    const auto file = world.addFile("F1", kHuge);
    const Pump pump(world.background);
    const auto isBlock = [](const UrlRequest& request) { return header(request, "chunk") == "1048576"; };
    onRead().answer(serving(contents));
    for (const auto& [status, error] : {std::pair{500, ""}, std::pair{200, "cut"}}) {
        world.loader.when(isBlock).answer([status = status, error = error](const auto&) {
            return UrlReply{.status = status, .error = error, .body = "short"};
        });
        for (int piece = 0; piece < 20; ++piece) {
            const auto position = static_cast<std::size_t>(piece) * kPiece;
            EXPECT_TRUE(world.downloads.downloadFileChunk(file, static_cast<std::int64_t>(position),
                                                          kPiece) == contents.substr(position, kPiece));
        }
    }
    // Nobody answers: the reader has waited for the block and does not wait once more.
    world.loader.when(isBlock).fail("timed out");
    std::optional<std::string> bytes = "";
    for (int piece = 0; bytes && piece < 40; ++piece) {
        bytes = world.downloads.downloadFileChunk(file, std::int64_t{piece} * kPiece, kPiece);
    }
    EXPECT_FALSE(bytes);
}

TEST_F(RangeReaderTest, stopAnswersThoseWhoWait) {
    const auto file = world.addFile("F1", kLarge);
    auto held = onRead().hold();
    std::optional<std::string> bytes = "none yet";
    std::thread reader([&] { bytes = world.downloads.downloadFileChunk(file, 0, 4096); });
    EXPECT_TRUE(held.waitForHeld(1));
    EXPECT_TRUE(world.connector.stop(std::chrono::seconds(5)));
    reader.join();
    EXPECT_EQ(bytes, std::nullopt);
    EXPECT_EQ(world.downloads.downloadFileChunk(file, 0, 4096), std::nullopt);
    EXPECT_EQ(held.count(), 1u);
}

}  // namespace
}  // namespace tarnwell::testing
