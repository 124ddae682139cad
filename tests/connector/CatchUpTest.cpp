#include <gmock/gmock.h>

#include "connector/ConnectorWorld.h"
#include "connector/OSXCatchUpResponse.h"
#include "util/RecordMapping.h"

namespace tarnwell::testing {
namespace {

using ::testing::ElementsAre;

/// A page of `count` files with the ticks `first`, `first` + 1, ...
std::string page(int count, int first) {
    OSXCatchUpResponse response;
    for (int tick = first; tick < first + count; ++tick) {
        auto& file = *response.TwVirtualFiles.emplace_back(std::make_shared<TWVirtualFile>());
        const std::string id = std::to_string(tick);
        file.ShareId = file.ParrentId = "s1";
        file.InternalName = "F" + id;
        file.PublicName = "f" + id;
        file.UploadName = file.UploadUrl = "U" + id;
        file.IsFile = true;
        file.AllocationSize = 1;
        file.Tick = response.LargestTick = response.ShareTick = tick;
    }
    return toJsonText(response);
}

std::vector<std::string> ticksAsked(const ConnectorWorld& world) {
    std::vector<std::string> ticks;
    for (const auto& request : world.loader.requests(urlContains("CatchUp7"))) {
        ticks.push_back(header(request, "share").value() + " " + header(request, "tickfrom").value());
    }
    return ticks;
}

class CatchUpTest : public ::testing::Test {
  protected:
    CatchUpTest() {
        world.pretendLoggedIn(1);
        share = world.addShare("s1", 5);
    }
    auto answer(std::string body) {
        return world.loader.when(urlContains("CatchUp7")).reply(200, std::move(body));
    }
    std::size_t fileCount() {
        const auto lock = world.store.beginReadStorage();
        return world.store.fileCount();
    }

    ConnectorWorld world;
    ManagedSharePtr share;
};

TEST_F(CatchUpTest, asksFromTheLastAppliedTick) {
    answer(page(2, 6));
    world.catchUps.catchUp(share);
    world.settle();
    ASSERT_EQ(world.loader.requests().size(), 1u);
    const auto request = world.loader.requests().front();
    EXPECT_EQ(request.method + " " + request.url, "POST https://clientgateway.d0.test/CatchUp7.aspx");
    EXPECT_EQ(request.body, "");
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"share", "s1"},   {"token", "acl%2Bs1"}, {"vshareId", "v-s1"},
        {"tickfrom", "5"}, {"tickstart", "5"},    {"ticktake", "10000"}};
    EXPECT_EQ(request.headers, expected);
    EXPECT_EQ(fileCount(), 2u);
    EXPECT_EQ(share->LastApplyedJournalTick, 7);
    EXPECT_FALSE(world.catchUps.failed("s1"));

    share->LastApplyedJournalTick = 0;
    world.catchUps.catchUp(share);
    EXPECT_EQ(ticksAsked(world).back(), "s1 -1") << "never caught up";
}

TEST_F(CatchUpTest, aPageOnItsWayServesLaterTicksAndYieldsToEarlierOnes) {
    auto held = answer(page(1, 6)).hold();
    world.catchUps.sendCatchupRequest(share, 10);
    EXPECT_FALSE(world.catchUps.sendCatchupRequest(share, 10));
    EXPECT_FALSE(world.catchUps.sendCatchupRequest(share, 11));
    EXPECT_TRUE(world.catchUps.sendCatchupRequest(share, 9));
    EXPECT_THAT(ticksAsked(world), ElementsAre("s1 10", "s1 9"));
    EXPECT_EQ(world.log.count("sendCatchupRequest: share Share s1 is already being catched up from tick 10."),
              2u);
    held.releaseOne();
    world.settle();
    EXPECT_FALSE(world.catchUps.sendCatchupRequest(share, 9)) << "the page from 9 is still on its way";
    held.release();
    world.settle();
    EXPECT_TRUE(world.catchUps.sendCatchupRequest(share, 9));
}

TEST_F(CatchUpTest, aFailedPageChangesNothingAndIsAskedAgain) {
    const auto page3 = page(3, 6);
    const UrlReply replies[] = {
        {0, "timed out", {}},
        {403, {}, page3},
        {200, {}, R"({"TwVirtualFiles":{},"ShareTick":1,"LargestTick":9})"},
        {200, {}, std::string(page3).replace(40, 0, "\xFF")},
        {200, {}, R"({"TwVirtualFiles":[],"ShareTick":1,"LargestTick":99999999999})"},
        {200, {}, "<html>" + std::string(100000, 'x')},
    };
    for (const auto& reply : replies) {
        SCOPED_TRACE(reply.body.substr(0, 100));
        world.loader.when(urlContains("CatchUp7")).times(1).answer([reply](const auto&) { return reply; });
        world.catchUps.catchUp(share);
        world.settle();
        EXPECT_TRUE(world.catchUps.failed("s1"));
        EXPECT_EQ(fileCount(), 0u);
        EXPECT_EQ(share->LastApplyedJournalTick, 5);
    }
    EXPECT_TRUE(world.log.contains("responce for share Share s1: error TwVirtualFiles: expected a list."));
    for (const auto& line : world.log.lines())
        EXPECT_LT(line.size(), 4096u);

    answer(page(1, 6));
    world.catchUps.refresh();
    world.settle();
    EXPECT_FALSE(world.catchUps.failed("s1"));
    EXPECT_EQ(fileCount(), 1u);
}

TEST_F(CatchUpTest, aPageBelongsToTheShareAsItIsThen) {
    // A gateway login put a new record in the share's place while the page was on its way.
    auto held = answer(page(1, 6)).hold();
    world.catchUps.catchUp(share);
    const auto replacement = world.addShare("s1", 5);
    held.releaseOne();
    world.settle();
    EXPECT_EQ(replacement->LastApplyedJournalTick, 6);

    // The share is gone, or the user is.
    world.catchUps.catchUp(replacement);
    world.store.deleteShareData(replacement);
    held.releaseOne();
    world.settle();
    EXPECT_EQ(fileCount(), 0u);

    const auto again = world.addShare("s1", 5);
    world.catchUps.catchUp(again);
    world.login.logout();
    held.releaseOne();
    world.settle();
    EXPECT_EQ(fileCount(), 0u);
    EXPECT_EQ(again->LastApplyedJournalTick, 5);
}

class FullRefreshTest : public CatchUpTest {
  protected:
    FullRefreshTest() {
        world.session.setNeedsFullRefresh(true);
        world.defaults.set("needsFullRefresh", "true");
        world.addShare("s2", 8, "d1");
        world.addFile("F1", 1);
        local = world.addFile("Flocal", 1);
        other = world.addFile("Fother", 1, "s2");
    }
    TWVirtualFilePtr local, other;
};

TEST_F(FullRefreshTest, asksEveryShareFromItsFirstTickAndKnowsWhatIsOnlyHere) {
    answer(page(1, 1));
    world.loader.when([](const UrlRequest& request) { return header(request, "share") == "s2"; })
        .reply(500, "");
    world.catchUps.refresh();
    EXPECT_TRUE(world.catchUps.inFullRefresh());
    world.catchUps.catchUp(share);  // postponed
    world.catchUps.refresh();       // runs already
    EXPECT_THAT(ticksAsked(world), ::testing::UnorderedElementsAre("s1 0", "s2 0"));
    world.settle();

    EXPECT_FALSE(world.catchUps.inFullRefresh());
    EXPECT_FALSE(world.session.needsFullRefresh());
    EXPECT_FALSE(world.defaults.stored().contains("needsFullRefresh"));
    EXPECT_EQ(world.log.count("Found only local file "), 1u) << world.log.text();
    EXPECT_TRUE(world.log.contains("Found only local file /Share s1/Flocal.bin : adding it to journal."));
    EXPECT_FALSE(local->OnlyLocal);
    EXPECT_EQ(other->OnlyLocal, true) << "the listing of its share failed";
}

TEST_F(FullRefreshTest, endsWhenADomainGoesAwayBetweenPages) {
    answer(page(10000, 1));
    world.loader.when([](const UrlRequest& request) { return header(request, "share") == "s2"; })
        .reply(200, page(0, 0));
    world.catchUps.refresh();
    world.reachability.setReachable("clientgateway.d0.test", false);
    world.settle();
    EXPECT_FALSE(world.catchUps.inFullRefresh());
    EXPECT_TRUE(world.catchUps.failed("s1"));
}

}  // namespace
}  // namespace tarnwell::testing
