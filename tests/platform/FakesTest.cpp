#include <future>
#include <thread>

#include "support/LogCapture.h"
#include "support/ManualExecutors.h"
#include "support/ManualRunLoop.h"
#include "support/MemoryUserDefaults.h"
#include "support/ScriptedUrlLoader.h"
#include "util/TWLogger.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;

UrlReply get(UrlLoader& loader, const std::string& url) {
    return loader.sendSynchronously({.url = url});
}

TEST(ScriptedUrlLoaderTest, newestUnspentRuleAnswers) {
    ScriptedUrlLoader loader;
    loader.when(urlContains("/read")).reply(200, "always");
    loader.when(urlContains("/read")).times(2).fail("connection reset");
    loader.when(requestTo("POST", "/api", "action=read")).cut(200, "par");
    EXPECT_EQ(get(loader, "https://h/read").error, "connection reset");
    EXPECT_EQ(get(loader, "https://h/read").status, 0);
    EXPECT_EQ(get(loader, "https://h/read").body, "always");
    const auto cut =
        loader.sendSynchronously({.method = "POST", .url = "https://h/api", .body = "action=read&x=1"});
    EXPECT_EQ(cut.status, 200);
    EXPECT_EQ(cut.body, "par");
    EXPECT_FALSE(cut.succeeded());
    EXPECT_EQ(get(loader, "https://h/other").error, "unexpected request");
    EXPECT_THAT(loader.unexpected(), ::testing::ElementsAre("GET https://h/other"));
    EXPECT_EQ(loader.requests(urlContains("/read")).size(), 3u);
}

TEST(ScriptedUrlLoaderTest, heldRequestsAnswerWhenReleasedOrStopped) {
    ScriptedUrlLoader loader;
    ManualExecutor queue;
    std::vector<std::string> replies;
    const auto keep = [&](UrlReply reply) { replies.push_back(reply.error + reply.body); };
    auto rule = loader.when(anyRequest()).reply(200, "first").hold();
    auto blocked = std::async(std::launch::async, [&] { return get(loader, "https://h/1"); });
    ASSERT_TRUE(rule.waitForHeld(1));
    for (int i = 0; i < 2; ++i)
        loader.sendAsynchronously({.url = "https://h/2"}, queue, keep);
    EXPECT_TRUE(rule.releaseOne());
    EXPECT_EQ(blocked.get().body, "first");
    rule.reply(200, "second");
    EXPECT_TRUE(rule.releaseOne());
    loader.stop();
    loader.sendAsynchronously({.url = "https://h/3"}, queue, keep);
    EXPECT_TRUE(replies.empty()) << "completions run on the queue only";
    queue.runAll();
    EXPECT_THAT(replies, ::testing::ElementsAre("second", "cancelled", "cancelled"));
}

TEST(MemoryUserDefaultsTest, keepsDiskAndMemoryApart) {
    MemoryUserDefaults settings(MemoryUserDefaults::Values{{"a", "1"}});
    settings.set("b", "2");
    settings.storeElsewhere("a", "other");
    settings.setDiskFull(true);
    EXPECT_FALSE(settings.synchronize());
    EXPECT_FALSE(settings.stored().contains("b"));
    settings.setDiskFull(false);
    EXPECT_TRUE(settings.synchronize());
    EXPECT_EQ(settings.all(), (MemoryUserDefaults::Values{{"a", "other"}, {"b", "2"}}));
}

TEST(ManualRunLoopTest, waitsForTasksOfRealThreads) {
    ManualRunLoop loop;
    bool arrived = false;
    std::thread worker([&] { loop.async([&] { arrived = true; }); });
    EXPECT_TRUE(loop.waitUntil([&] { return arrived; }));
    worker.join();
    EXPECT_FALSE(loop.waitUntil([] { return false; }, 20ms));
    EXPECT_EQ(loop.elapsed(), 0ms);
}

TEST(LogCaptureTest, seesTheLinesOfItsScopeOnly) {
    {
        LogCapture log;
        TWLog(kLogMain, "first %@", 1);
        EXPECT_TRUE(log.contains("first 1")) << log.text();
    }
    LogCapture log;
    TWLog(kLogFuse, "second");
    EXPECT_FALSE(log.contains("first"));
    EXPECT_EQ(log.count("second"), 1u);
}

}  // namespace
}  // namespace tarnwell::testing
