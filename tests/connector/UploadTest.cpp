#include <gmock/gmock.h>

#include <filesystem>

#include "connector/JournalFixture.h"
#include "util/Hash.h"

namespace tarnwell::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::size_t kChunk = 1'048'576;

class UploadTest : public JournalFixture {};

TEST_F(UploadTest, cutsAtChunksOfOneMebibyte) {
    const struct {
        std::size_t size;
        std::vector<std::string> requests;
    } cases[] = {
        {0, {"create f0"}},
        {kChunk, {"create f1", "chunk 0+1048576"}},
        {kChunk + 1, {"create f2", "chunk 0+1048576", "chunk 1048576+1"}},
        {2 * kChunk, {"create f3", "chunk 0+1048576", "chunk 1048576+1048576"}},
    };
    for (int i = 0; const auto& [size, requests] : cases) {
        const auto contents = pattern(size);
        const auto file = create("f" + std::to_string(i++), contents);
        pass(std::chrono::seconds(size == 0 ? 151 : 6));
        auto expected = requests;
        expected.emplace_back("catchup s1");
        auto came = takeRequests();
        std::erase_if(came, [n = 0](const std::string& text) mutable {
            return text == "catchup s1" && n++ > 0;  // the refresh timer's
        });
        EXPECT_THAT(came, ::testing::UnorderedElementsAreArray(expected));
        EXPECT_EQ(sent["T"], contents);
        EXPECT_EQ(lastEvent.TwVirtualFile->FilehHash, hashText(contents));
        EXPECT_THAT(journal(), IsEmpty());
    }
}

TEST_F(UploadTest, endsAsTheAnswerSays) {
    enum { kAgain, kAgainFresh, kGoesOn, kGone };
    const std::string second = "chunk 1048576+1";
    const struct {
        std::string step;
        UrlReply reply;
        int ending;
        std::string line;
    } cases[] = {
        {"create", {0, "connection refused", {}}, kAgainFresh, "Warning! Failing upload: cannot receive"},
        {"create", {500, {}, "oops"}, kAgainFresh, "invalid HTTP status code: 500"},
        {"create", {200, "cut", R"({"Resp)"}, kAgainFresh, "No responce body for the file API request."},
        {"create", {200, {}, "<html>"}, kAgainFresh, "Warning! Cannot parse clientfileapi responce"},
        {"create", code(7), kAgainFresh, "Failed to initiate upload for the file f : responce code 7."},
        {"create", {200, {}, R"({"ResponseCode":1})"}, kAgainFresh, "Failed to initiate upload"},
        {"create", code(2), kGone, "Warning! cancelling upload of f: got conflicted copy."},
        {second, {503, {}, "busy"}, kGoesOn, "Retransmitting later. Responce : HTTP status 503"},
        {second, {0, "reset by peer", {}}, kGoesOn, "Upload request error 0 (reset by peer)."},
        {second, {200, {}, "{}"}, kGoesOn, "Warning! Cannot parse clientfileapi chunk upload responce"},
        {second, code(9), kGoesOn, "Warning! Unknown chunk upload responce code: 9."},
        {second, code(1), kAgainFresh, "Warning! File chunk upload failed. Resetting upload"},
        {second, code(3), kAgainFresh, "Warning! File being uploaded corrupted remotely."},
    };
    const auto contents = pattern(kChunk + 1);
    for (const auto& [step, reply, ending, line] : cases) {
        SCOPED_TRACE(line);
        const auto file = create("f", contents);
        bool faulty = true;
        fault = [&, step = step, reply = reply](const std::string& text) -> std::optional<UrlReply> {
            if (faulty && text.starts_with(step)) return reply;
            return std::nullopt;
        };
        passDelay();
        EXPECT_TRUE(world.log.contains(line)) << world.log.text();
        EXPECT_EQ(share->TransmitCounter, 0);
        EXPECT_EQ(world.takeEvents().back(), "UploadFinished: error");
        if (ending == kGone) {
            EXPECT_THAT(journal(), IsEmpty());
            EXPECT_EQ(KeptFiles::count(world.layout), 1u) << "the user's only copy";
            EXPECT_FALSE(world.store.fileWithId(file->InternalName.view())) << "the service never had it";
            EXPECT_EQ(takeRequests().back(), "catchup s1");
        } else {
            EXPECT_THAT(journal(), ElementsAre(ending == kGoesOn ? "create f*+30" : "create f+30"));
            faulty = false;
            takeRequests();
            pass(std::chrono::seconds(31));
            EXPECT_EQ(takeRequests().front(), ending == kGoesOn ? second : "create f");
            EXPECT_EQ(sent["T"], contents);
            EXPECT_THAT(journal(), IsEmpty());
        }
        world.store.deleteFileMetadata(file);
        world.takeEvents();
    }
}

TEST_F(UploadTest, timeOutsAreWaitedForLongerAndThenStartAnew) {
    create("f", pattern(kChunk + 1));
    int left = 5;
    fault = [&](const std::string& text) -> std::optional<UrlReply> {
        if (!text.starts_with("chunk") || left == 0) return std::nullopt;
        --left;
        return UrlReply{0, kTimedOut, {}};
    };
    passDelay();
    pass(std::chrono::seconds(2));
    EXPECT_THAT(timeouts, ElementsAre("60", "90", "120", "150", "150", "150", "150"));
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_EQ(sent["T"], pattern(kChunk + 1));

    left = 20;
    timeouts.clear();
    takeRequests();
    create("g", "short");
    passDelay();
    pass(std::chrono::seconds(3));
    EXPECT_EQ(timeouts.size(), 20u);
    EXPECT_THAT(journal(), ElementsAre(::testing::StartsWith("create g+")));
    EXPECT_TRUE(world.log.contains("Too many retransmits for the file g."));
}

TEST_F(UploadTest, goesOnAfterTheRestartWhereItWas) {
    const auto contents = pattern(2 * kChunk + 5);
    const auto file = create("f", contents);
    auto held = world.loader.when(
        [](const UrlRequest& request) { return header(request, "position") == std::to_string(2 * kChunk); });
    held.hold();
    passDelay();
    EXPECT_THAT(journal(), ElementsAre("create f*"));
    EXPECT_EQ(firstEntry()->UploadedSize, 2 * kChunk);
    EXPECT_EQ(share->TransmitCounter, 1);
    world.store.beginTermination();
    held.fail("cancelled").release();
    world.settle();
    EXPECT_TRUE(world.log.contains("Upload interrupted due to the application termination."));
    EXPECT_THAT(journal(), ElementsAre("create f*"));
    EXPECT_EQ(uploadCopies().size(), 1u);

    std::vector<JournalText> texts;
    {
        const auto lock = world.store.beginReadJournal();
        texts = world.store.journal().journalSnapshot()();
    }
    ConnectorWorld next;
    next.pretendLoggedIn();
    next.addShare("s1");
    std::filesystem::copy(world.layout.uploadsCachePath(), next.layout.uploadsCachePath(),
                          std::filesystem::copy_options::recursive);
    {
        const auto lock = next.store.beginWriteJournal();
        next.store.journal().loadJournals(texts);
    }
    next.loader.when(urlContains("CatchUp7")).reply(500, "");
    next.loader.when(urlContains("clientfileapi")).answer([](const auto&) { return code(2); });
    next.loop.advance(std::chrono::seconds(10));
    next.replay.checkJournal();
    next.settle();
    const auto requests = next.loader.requests(urlContains("clientfileapi"));
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(header(requests[0], "position"), std::to_string(2 * kChunk));
    EXPECT_EQ(header(requests[0], "token"), "T");
    EXPECT_EQ(requests[0].body, contents.substr(2 * kChunk));
}

TEST_F(UploadTest, aCopyThatIsGoneIsMadeAgainOrGivenUp) {
    enum { kCached, kEvicted, kOverwritten, kRecordGone };
    for (const int state : {kCached, kEvicted, kOverwritten, kRecordGone}) {
        SCOPED_TRACE(state);
        const auto file = create("f", "the bytes");
        world.settle();
        std::filesystem::remove(world.layout.cachePathForUpload(*file));
        if (state == kEvicted) std::filesystem::remove(world.cachePath(file));
        if (state == kOverwritten) {
            file->Tick = 99;
            file->UploadName = "Uother";
        }
        if (state == kRecordGone) world.store.deleteFileMetadata(file);
        sent.clear();
        passDelay();
        EXPECT_THAT(journal(), IsEmpty());
        EXPECT_EQ(sent["T"], state == kCached ? "the bytes" : "");
        EXPECT_EQ(world.log.count("Deleting journal entry."), static_cast<std::size_t>(state));
        EXPECT_THAT(uploadCopies(), IsEmpty());
        world.store.deleteFileMetadata(file);
    }
}

TEST_F(UploadTest, takesTheNameThatTheServiceGives) {
    const struct {
        std::string given, shown;
    } cases[] = {{"f (2).txt", "/Share s1/f (2).txt"},
                 {"../up", "/Share s1/f.txt"},
                 {".hidden", "/Share s1/f.txt"},
                 {"", "/Share s1/f.txt"}};
    for (const auto& [given, shown] : cases) {
        const auto file = create("f.txt", "bytes");
        fault = [&, given = given](const std::string& text) -> std::optional<UrlReply> {
            if (text.starts_with("create")) return code(3, given);
            return std::nullopt;
        };
        sent.clear();
        passDelay();
        EXPECT_EQ(file->FullPath, shown);
        EXPECT_EQ(world.store.fileWithPath(shown), file);
        EXPECT_EQ(sent["T"], "bytes");
        EXPECT_THAT(journal(), IsEmpty());
        world.store.deleteFileMetadata(file);
    }
}

TEST_F(UploadTest, anotherRecordOfThatNameIsNotLost) {
    const auto other = create("f (2).txt", "other");
    const auto file = create("f.txt", "bytes");
    fault = [&](const std::string& text) -> std::optional<UrlReply> {
        if (text == "create f.txt") return code(3, "f (2).txt");
        return std::nullopt;
    };
    passDelay();
    const auto lock = world.store.beginReadStorage();
    EXPECT_EQ(world.store.fileWithPath("/Share s1/f (2).txt"), file);
    world.store.deleteFileMetadata(file);
    EXPECT_EQ(world.store.fileWithPath("/Share s1/f (2).txt"), other) << "waited behind it";
}

TEST_F(UploadTest, newerContentsAreAVersionOfThoseThatArrived) {
    const auto file = create("f", "one");
    auto held = world.loader.when([](const UrlRequest& request) { return request.body == "one"; });
    held.hold();
    passDelay();
    const SharedString first = file->UploadName;
    write(file, "second");
    world.settle();
    held.answer([](const auto&) { return code(2); }).release();
    world.settle();
    EXPECT_THAT(journal(), ElementsAre("update f+5", "catchup f"));
    passDelay();
    EXPECT_EQ(lastEvent.TwVirtualFile->LastUploadName, first);
    EXPECT_EQ(sent["T"], "second");
    EXPECT_EQ(contentsOf(world.cachePath(file)), "second");
    EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(UploadTest, endsWithTheConnector) {
    create("f", pattern(kChunk + 1));
    auto held = world.loader.when(requestTo("POST", "clientfileapi"));
    held.hold();
    passDelay();
    ASSERT_TRUE(held.waitForHeld(1));
    EXPECT_TRUE(world.connector.stop(std::chrono::seconds(5)));
    world.settle();
    EXPECT_EQ(world.loop.pending(), 0u);
    EXPECT_THAT(journal(), ElementsAre("create f"));
}

TEST_F(UploadTest, ofWhatWentAwayStops) {
    const auto file = create("f", pattern(2 * kChunk));
    auto held =
        world.loader.when([](const UrlRequest& request) { return header(request, "position") == "0"; });
    held.answer([](const auto&) { return code(0); }).hold();
    passDelay();
    world.store.deleteShareData(share);
    EXPECT_EQ(world.store.shares().size(), 0u);
    takeRequests();
    held.release();
    world.settle();
    EXPECT_THAT(takeRequests(), IsEmpty());
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_THAT(uploadCopies(), IsEmpty());
}

}  // namespace
}  // namespace tarnwell::testing
