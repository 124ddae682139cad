#include "app/TerminationProtocol.h"

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
        if (allowed) return answer(true);
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

    bool finished = true, empty = false, blocked = false, saved = true, allowed = true;
    std::function<void(bool)> pendingAnswer;  ///< of a question that is not allowed at once
    Calls calls;
};

struct TerminationProtocolTest : ::testing::Test {
    ManualRunLoop loop;
    FakeMediator mediator;
    TerminationProtocol termination{mediator, loop};
    std::vector<Outcome> answers;

    void request() {
        termination.applicationShouldTerminate([this](Outcome outcome) { answers.push_back(outcome); });
    }
};

TEST_F(TerminationProtocolTest, takesDownWhatThereIsAndEnds) {
    const struct {
        bool finished, empty, saved;
        Calls calls;
    } cases[] = {
        {true, false, true, {"ask", "begin", "unmount", "stopObserving", "save", "clean", "end"}},
        // An empty store never overwrites a saved one.
        {true, true, true, {"ask", "begin", "unmount", "stopObserving", "clean", "end"}},
        {false, false, true, {"clean", "end"}},
        {true, false, false, {"ask", "begin", "unmount", "stopObserving", "save", "clean", "end"}},
    };
    for (const auto& [finished, empty, saved, calls] : cases) {
        LogCapture log;
        FakeMediator one;
        one.finished = finished, one.empty = empty, one.saved = saved;
        TerminationProtocol(one, loop).applicationShouldTerminate(
            [](Outcome outcome) { EXPECT_EQ(outcome, Outcome::kTerminating); });
        EXPECT_EQ(one.calls, calls);
        EXPECT_EQ(log.contains("saved database."), finished && !empty && saved);
    }
}

TEST_F(TerminationProtocolTest, waitsForBlockedWorkAndSavesWhatItChanged) {
    mediator.blocked = true;
    request();
    EXPECT_EQ(mediator.take(), (Calls{"ask", "begin", "unmount", "stopObserving", "save"}));
    request();                               // joins
    termination.terminateWithoutQuestion();  // never cuts the wait short
    loop.advance(5min);
    EXPECT_EQ(mediator.take(), Calls{});
    EXPECT_TRUE(answers.empty());

    mediator.blocked = false;
    loop.advance(1s);
    EXPECT_EQ(mediator.take(), (Calls{"clean", "save", "clean", "end"}));
    EXPECT_EQ(answers, (std::vector{Outcome::kTerminating, Outcome::kTerminating}));
    loop.advance(1min);
    EXPECT_EQ(mediator.take(), Calls{}) << "ends once";
}

TEST_F(TerminationProtocolTest, insistingPassesTheOpenQuestion) {
    mediator.allowed = false;
    request();
    termination.terminateWithoutQuestion();
    EXPECT_EQ(mediator.take(), (Calls{"ask", "begin", "unmount", "stopObserving", "save", "clean", "end"}));
    mediator.pendingAnswer(false);
    EXPECT_EQ(answers, std::vector{Outcome::kTerminating}) << "the late answer changes nothing";
}

}  // namespace
}  // namespace tarnwell
