#include <QCoreApplication>
#include <stdexcept>
#include <thread>

#include "platform/QtRunLoop.h"
#include "support/LogCapture.h"
#include "support/ManualRunLoop.h"

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
using testing::LogCapture;
using testing::ManualRunLoop;

/// Both loops, run until the given time passed (virtual or real).
class RunLoopContract : public ::testing::TestWithParam<bool> {
  public:
    RunLoopContract() {
        if (GetParam())
            loop_ = std::make_unique<QtRunLoop>(argc_, argv_);
        else
            loop_ = std::make_unique<ManualRunLoop>();
    }
    RunLoop& loop() { return *loop_; }
    void runFor(std::chrono::milliseconds time) {
        if (auto* manual = dynamic_cast<ManualRunLoop*>(loop_.get())) {
            manual->advance(time);
            return;
        }
        auto& real = dynamic_cast<QtRunLoop&>(*loop_);
        const auto end = real.postAfter(time, [&real] { real.quit(0); });
        real.exec();
    }

  private:
    int argc_ = 1;
    char name_[5] = "test";
    char* argv_[2] = {name_, nullptr};
    std::unique_ptr<RunLoop> loop_;
};

INSTANTIATE_TEST_SUITE_P(Loops, RunLoopContract, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Qt" : "Manual"; });

TEST_P(RunLoopContract, runsTasksInOrderAndNeverInsideThePost) {
    std::string order;
    const auto late = loop().postAfter(30ms, [&] { order += "d"; });
    const auto early = loop().postAfter(10ms, [&] { order += "c"; });
    loop().async([&] {
        order += "a";
        loop().async([&] { order += "b"; });
        order += "-";
    });
    EXPECT_EQ(order, "");
    runFor(150ms);
    EXPECT_EQ(order, "a-bcd");
}

TEST_P(RunLoopContract, cancelledTimersDoNotRun) {
    std::string ran;
    Timer sibling;
    {
        auto scoped = loop().postAfter(5ms, [&] { ran += "scoped "; });
    }
    auto first = loop().postAfter(10ms, [&] { sibling.cancel(); });
    sibling = loop().postAfter(10ms, [&] { ran += "sibling "; });
    Timer ownEnd;
    int beats = 0;
    ownEnd = loop().repeat(5ms, [&] {
        if (++beats == 3) ownEnd.cancel();
    });
    Timer assigned = loop().postAfter(5ms, [&] { ran += "replaced "; });
    assigned = loop().postAfter(5ms, [&] { ran += "kept"; });
    runFor(300ms);
    EXPECT_EQ(ran, "kept");
    EXPECT_EQ(beats, 3);
}

TEST_P(RunLoopContract, takesTasksAndCancelsFromOtherThreads) {
    std::atomic<int> ran = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 100; ++n) {
                loop().async([&] { ++ran; });
                auto dropped = loop().postAfter(1h, [&] { ran += 1000; });
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    runFor(20ms);
    EXPECT_EQ(ran, 400);
}

TEST(QtRunLoopTest, survivesTasksThatThrowAndLogsThem) {
    LogCapture log;
    int argc = 0;
    QtRunLoop loop(argc, nullptr);
    bool later = false;
    loop.async([] { throw std::runtime_error("lost disk"); });
    const auto timer = loop.postAfter(1ms, [] { throw 7; });
    const auto end = loop.postAfter(5ms, [&] {
        later = true;
        loop.quit(3);
    });
    EXPECT_EQ(loop.exec(), 3);
    EXPECT_TRUE(later);
    EXPECT_TRUE(log.contains("lost disk")) << log.text();
    EXPECT_TRUE(log.contains("unknown type")) << log.text();
}

TEST(QtRunLoopTest, handlesOutliveTheLoopAndLeftTasksAreDropped) {
    Timer timer;
    auto owned = std::make_shared<int>();
    {
        int argc = 0;
        QtRunLoop loop(argc, nullptr);
        timer = loop.postAfter(1h, [owned] {});
        loop.async([owned] {});
    }
    EXPECT_EQ(owned.use_count(), 1);
    timer.cancel();
}

TEST(QtRunLoopTest, lateLoopSkipsBeats) {
    int argc = 0;
    QtRunLoop loop(argc, nullptr);
    int beats = 0;
    const auto beat = loop.repeat(10ms, [&] {
        // The first beat holds the main thread up.
        const auto until = std::chrono::steady_clock::now() + 65ms;
        if (++beats == 1) {
            while (std::chrono::steady_clock::now() < until)
                std::this_thread::yield();
        }
    });
    const auto end = loop.postAfter(100ms, [&] { loop.quit(0); });
    loop.exec();
    EXPECT_GE(beats, 2);
    EXPECT_LE(beats, 5) << "missed beats were made up for";
}

}  // namespace
}  // namespace tarnwell
