#include "app/TerminationProtocol.h"

#include <optional>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/ManualRunLoop.h"

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
using testing::LogCapture;
using testing::ManualRunLoop;
using Calls = std::vector<std::string>;
using Outcome = TerminationProtocol::Outcome;

struct FakeMediator : TerminationProtocol::Mediator {
    bool isFinishedInitialization() override { return finished; }
    void checkIfExitAllowed(std::function<void(bool)> answer) override {
        calls.emplace_back("ask");
        if (allowed) return answer(*allowed);
        pendingAnswer = std::move(answer);
    }
    void beginTermination() override { calls.emplace_back("begin"); }
    void stopFuse() override { calls.emplace_back("unmount"); }
    void stopObserving() override { calls.emplace_back("stopObserving"); }
    bool storageEmpty() override { return empty; }
    bool saveStore() override {
        calls.emplace_back("save");
        return saved;
    }
    bool shutdownBlocked() override { return blocked; }
    void setCleanShutdown() override { calls.emplace_back("clean"); }
    void terminateNow() override { calls.emplace_back("end"); }

    Calls take() { return std::exchange(calls, {}); }

    bool finished = true, empty = false, blocked = false, saved = true;
    std::optional<bool> allowed = true;  ///< none: the question stays open
    std::function<void(bool)> pendingAnswer;
    Calls calls;
};

struct TerminationProtocolTest : ::testing::Test {
    LogCapture log;
    ManualRunLoop loop;
    FakeMediator mediator;
    TerminationProtocol termination{mediator, loop};
    std::vector<Outcome> answers;

    void request() {
        termination.applicationShouldTerminate([this](Outcome outcome) { answers.push_back(outcome); });
    }
};

TEST_F(TerminationProtocolTest, takesDownSavesRecordsEnds) {
    request();
    EXPECT_EQ(mediator.calls, (Calls{"ask", "begin", "unmount", "stopObserving", "save", "clean", "end"}));
    EXPECT_EQ(answers, std::vector{Outcome::kTerminating});
    EXPECT_TRUE(log.contains("Terminating application : saved database."));
    EXPECT_TRUE(log.contains("Terminating application : now."));
}

TEST_F(TerminationProtocolTest, anEmptyStoreNeverOverwritesASavedOne) {
    mediator.empty = true;
    request();
    EXPECT_EQ(mediator.calls, (Calls{"ask", "begin", "unmount", "stopObserving", "clean", "end"}));
    EXPECT_TRUE(log.contains("Terminating application : do not save database."));
}

TEST_F(TerminationProtocolTest, aSaveThatFailedIsNotCalledOne) {
    mediator.saved = false;
    request();
    EXPECT_FALSE(log.contains("saved database"));
    EXPECT_EQ(mediator.calls.back(), "end");
}

TEST_F(TerminationProtocolTest, beforeTheStartIsOverThereIsNothingToTakeDown) {
    mediator.finished = false;
    request();
    EXPECT_EQ(mediator.calls, (Calls{"clean", "end"}));
    EXPECT_TRUE(log.contains("Terminating application : right now, no initialization finished."));
}

TEST_F(TerminationProtocolTest, aRefusalKeepsEverythingAndALaterRequestAsksAgain) {
    mediator.allowed = false;
    request();
    EXPECT_EQ(mediator.take(), Calls{"ask"});
    EXPECT_EQ(answers, std::vector{Outcome::kCanceled});
    EXPECT_FALSE(termination.terminating());
    EXPECT_TRUE(log.contains("Terminating application : canceled, no exit allowed."));

    mediator.allowed = true;
    request();
    EXPECT_EQ(mediator.take().back(), "end");
    EXPECT_EQ(answers, (std::vector{Outcome::kCanceled, Outcome::kTerminating}));
}

TEST_F(TerminationProtocolTest, waitsForBlockedWorkAndSavesWhatItChanged) {
    mediator.blocked = true;
    request();
    EXPECT_EQ(mediator.take(), (Calls{"ask", "begin", "unmount", "stopObserving", "save"}));
    EXPECT_TRUE(log.contains("Terminating application : shutdown is blocked, waiting."));
    request();                               // joins
    termination.terminateWithoutQuestion();  // never cuts the wait short
    loop.advance(5min);
    EXPECT_EQ(mediator.take(), Calls{});
    EXPECT_TRUE(answers.empty());

    mediator.blocked = false;
    loop.advance(1s);
    EXPECT_EQ(mediator.take(), (Calls{"clean", "save", "clean", "end"}));
    EXPECT_EQ(answers, (std::vector{Outcome::kTerminating, Outcome::kTerminating}));
    EXPECT_TRUE(log.contains("Terminating application : shutdown no longer blocked, exiting."));
    loop.advance(1min);
    EXPECT_EQ(mediator.take(), Calls{}) << "ends once";
}

TEST_F(TerminationProtocolTest, insistingPassesTheOpenQuestion) {
    mediator.allowed.reset();
    request();
    termination.terminateWithoutQuestion();
    EXPECT_EQ(mediator.take(), (Calls{"ask", "begin", "unmount", "stopObserving", "save", "clean", "end"}));
    mediator.pendingAnswer(false);
    EXPECT_EQ(answers, std::vector{Outcome::kTerminating}) << "the late answer changes nothing";
}

}  // namespace
}  // namespace tarnwell
