#include "store/DelayedSave.h"

#include "store/SavedWorld.h"
#include "support/LogCapture.h"
#include "support/ManualRunLoop.h"

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
using testing::LogCapture;
using testing::ManualRunLoop;
using testing::SavedWorld;

struct DelayedSaveTest : ::testing::Test {
    DelayedSaveTest() { world.background.clear(); }
    [[nodiscard]] std::size_t saves() const { return log.count("Saving file metadata..."); }
    /// The main loop goes on for that long, the background keeps up with it.
    void run(std::chrono::seconds time) {
        for (; time > 0s; time -= 1s) {
            loop.advance(1s);
            world.background.runAll();
            loop.runPending();
        }
    }

    LogCapture log;
    SavedWorld world;
    ManualRunLoop loop;
    DelayedSave delayed{world.store, loop, world.background};
};

TEST_F(DelayedSaveTest, aBurstIsOneSaveFiveSecondsAfterItsEnd) {
    for (int i = 0; i < 10; ++i) {
        delayed.request();
        delayed.request();
        run(1s);
    }
    run(3s);
    EXPECT_EQ(saves(), 0U);
    run(1s);
    EXPECT_EQ(saves(), 1U);
    run(120s);
    EXPECT_EQ(saves(), 1U);
    EXPECT_TRUE(world.has("shares.db"));
}

TEST_F(DelayedSaveTest, aSteadyStreamIsSavedEveryMinute) {
    for (int i = 0; i < 190; ++i) {
        delayed.request();
        run(1s);
    }
    EXPECT_EQ(saves(), 3U);
}

TEST_F(DelayedSaveTest, aFailedSaveIsTriedAgainAfterAMinute) {
    world.blockFile("shares.db");
    delayed.request();
    run(6s);
    EXPECT_FALSE(world.has("shares.db"));
    world.unblockFile("shares.db");
    run(58s);
    EXPECT_FALSE(world.has("shares.db"));
    run(4s);
    EXPECT_TRUE(world.has("shares.db"));
    run(120s);
    EXPECT_EQ(saves(), 2U);
}

TEST_F(DelayedSaveTest, theProgramWaitsForASaveThatIsUnderWay) {
    delayed.request();
    loop.advance(6s);
    EXPECT_TRUE(world.store.shutdownBlocked());
    delayed.request();
    loop.advance(6s);
    EXPECT_EQ(world.background.size(), 1U) << "one at a time";
    world.background.runAll();
    EXPECT_FALSE(world.store.shutdownBlocked());
    run(6s);
    EXPECT_EQ(saves(), 2U);
}

TEST_F(DelayedSaveTest, whileTheProgramEndsARequestSavesAtOnce) {
    world.store.beginTermination();
    {
        const auto lock = world.store.beginWriteStorage();
        delayed.request();
    }
    EXPECT_EQ(saves(), 1U);
    EXPECT_TRUE(world.has("shares.db"));
}

TEST_F(DelayedSaveTest, anEmptyStoreIsNotSaved) {
    delayed.request();
    world.store.persistence().clear();
    run(10s);
    EXPECT_EQ(saves(), 0U);
    EXPECT_FALSE(world.has("shares.db")) << "a log-out leaves nothing";
}

}  // namespace
}  // namespace tarnwell
