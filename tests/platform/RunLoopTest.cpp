#include <QCoreApplication>
#include <stdexcept>
#include <thread>

#include "platform/QtRunLoop.h"
#include "support/LogCapture.h"

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
using testing::LogCapture;

class QtRunLoopTest : public ::testing::Test {
  public:
    void runFor(std::chrono::milliseconds time) {
        const auto end = loop.postAfter(time, [this] { loop.quit(0); });
        loop.exec();
    }
    int argc = 0;
    QtRunLoop loop{argc, nullptr};
};

TEST_F(QtRunLoopTest, runsTasksInOrderAndNeverInsideThePost) {
    std::string order;
    const auto late = loop.postAfter(30ms, [&] { order += "d"; });
    const auto early = loop.postAfter(10ms, [&] { order += "c"; });
    loop.async([&] {
        order += "a";
        loop.async([&] { order += "b"; });
        order += "-";
    });
    EXPECT_EQ(order, "");
    runFor(150ms);
    EXPECT_EQ(order, "a-bcd");
}

TEST_F(QtRunLoopTest, cancelledTimersDoNotRun) {
    std::string ran;
    Timer sibling;
    {
        auto scoped = loop.postAfter(5ms, [&] { ran += "scoped "; });
    }
    auto first = loop.postAfter(10ms, [&] { sibling.cancel(); });
    sibling = loop.postAfter(10ms, [&] { ran += "sibling "; });
    int beats = 0;
    Timer ownEnd = loop.repeat(5ms, [&] {
        if (++beats == 3) ownEnd = loop.postAfter(5ms, [&] { ran += "replaced"; });
    });
    runFor(300ms);
    EXPECT_EQ(ran, "replaced");
    EXPECT_EQ(beats, 3);
}

TEST_F(QtRunLoopTest, takesTasksAndCancelsFromOtherThreads) {
    std::atomic<int> ran = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 100; ++n) {
                loop.async([&] { ++ran; });
                auto dropped = loop.postAfter(1h, [&] { ran += 1000; });
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    runFor(20ms);
    EXPECT_EQ(ran, 400);
}

TEST_F(QtRunLoopTest, survivesTasksThatThrowAndLogsThem) {
    LogCapture log;
    loop.async([] { throw std::runtime_error("lost disk"); });
    const auto timer = loop.postAfter(1ms, [] { throw 7; });
    const auto end = loop.postAfter(5ms, [&] { loop.quit(3); });
    EXPECT_EQ(loop.exec(), 3);
    EXPECT_TRUE(log.contains("lost disk") && log.contains("unknown type")) << log.text();
}

TEST(QtRunLoopEndTest, handlesOutliveTheLoopAndLeftTasksAreDropped) {
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

TEST_F(QtRunLoopTest, lateLoopSkipsBeats) {
    int beats = 0;
    const auto beat = loop.repeat(10ms, [&] {
        if (++beats == 1) std::this_thread::sleep_for(65ms);  // holds the main thread up
    });
    runFor(200ms);
    EXPECT_GE(beats, 2);
    EXPECT_LE(beats, 15) << "missed beats were made up for";
}

}  // namespace
}  // namespace tarnwell
