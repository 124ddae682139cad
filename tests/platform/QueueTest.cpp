#include <future>
#include <stdexcept>
#include <thread>

#include "platform/BackgroundQueue.h"
#include "platform/NotificationCenter.h"
#include "support/LogCapture.h"
#include "support/ManualExecutors.h"

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
using testing::LogCapture;
using testing::ManualExecutor;

TEST(BackgroundQueueTest, runsEveryTaskAlsoAfterOneThrew) {
    LogCapture log;
    BackgroundQueue queue(3);
    std::atomic<int> ran = 0;
    std::promise<void> done;
    for (int i = 0; i < 300; ++i) {
        queue.async([&, i] {
            if (++ran == 300) done.set_value();
            if (i % 100 == 0) throw std::runtime_error("task failed");
        });
    }
    EXPECT_EQ(done.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(queue.stop(10s));
    EXPECT_EQ(log.count("task failed"), 3u);
}

TEST(BackgroundQueueTest, stopDropsWaitingTasksAndReportsAStuckOne) {
    BackgroundQueue queue(1);
    std::promise<void> entered;
    auto release = std::make_shared<std::promise<void>>();
    auto left = std::make_shared<std::promise<void>>();
    bool dropped = true;
    queue.async([&entered, left, released = release->get_future().share()] {
        entered.set_value();
        released.wait();
        left->set_value();
    });
    queue.async([&] { dropped = false; });
    entered.get_future().wait();
    EXPECT_FALSE(queue.stop(20ms)) << "a task still ran";
    queue.async([&] { dropped = false; });
    release->set_value();
    EXPECT_EQ(left->get_future().wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(queue.stop(10s));
    EXPECT_TRUE(dropped);
}

TEST(BackgroundQueueTest, canBeStoppedByItsOwnTask) {
    BackgroundQueue queue(2);
    std::promise<bool> stopped;
    queue.async([&] { stopped.set_value(queue.stop(10s)); });
    auto result = stopped.get_future();
    ASSERT_EQ(result.wait_for(20s), std::future_status::ready);
    EXPECT_TRUE(result.get());
}

TEST(SerialQueueTest, keepsOrderAndExclusionOnAPool) {
    BackgroundQueue pool(4);
    std::vector<int> order;
    std::promise<void> done;
    std::atomic<int> inside = 0;
    bool overlapped = false;
    SerialQueue queue(pool);
    for (int i = 0; i < 200; ++i) {
        queue.async([&, i] {
            overlapped = overlapped || ++inside != 1;
            order.push_back(i);
            --inside;
            if (i == 199) done.set_value();
            if (i == 50) throw std::runtime_error("one of many");
        });
    }
    ASSERT_EQ(done.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_FALSE(overlapped);
    EXPECT_TRUE(order.size() == 200 && std::is_sorted(order.begin(), order.end()));
}

TEST(SerialQueueTest, endedQueueAndStoppedTargetDropTheirTasks) {
    ManualExecutor target;
    auto owned = std::make_shared<int>();
    {
        SerialQueue queue(target);
        queue.async([owned] { ++*owned; });
        queue.async([owned] { ++*owned; });
    }
    target.runAll();
    EXPECT_EQ(*owned, 0);
    EXPECT_EQ(owned.use_count(), 1);

    SerialQueue queue(target);
    queue.async([owned] { ++*owned; });
    target.clear();  // as a pool that stops
    EXPECT_EQ(owned.use_count(), 1);
    queue.async([owned] { ++*owned; });
    target.runAll();
    EXPECT_EQ(*owned, 1) << "the queue goes on when the target does";
}

struct Saved {};
struct Closed {};

TEST(NotificationCenterTest, subscriptionsEndDuringDeliveryAndAfterTheCentre) {
    LogCapture log;
    auto center = std::make_unique<NotificationCenter>();
    std::string seen;
    Subscription own, later, added;
    const auto other = center->observe<Saved>([&](const Saved&) { seen += "saved"; });
    const auto throwing =
        center->observe<Closed>([&](const Closed&) { throw std::runtime_error("observer failed"); });
    own = center->observe<Closed>([&](const Closed&) {
        seen += "a";
        own.reset();
        later.reset();
        added = center->observe<Closed>([&](const Closed&) { seen += "c"; });
    });
    later = center->observe<Closed>([&](const Closed&) { seen += "b"; });
    center->post(Closed{});
    EXPECT_TRUE(log.contains("observer failed"));
    EXPECT_EQ(seen, "a") << "an ended observer ran, or one that was added during the delivery";
    center->post(Closed{});
    EXPECT_EQ(seen, "ac");
    center.reset();
    added.reset();
}

TEST(NotificationCenterTest, manyThreadsPostWhileOthersSubscribe) {
    NotificationCenter center;
    std::atomic<int> seen = 0;
    const auto fixed = center.observe<Saved>([&](const Saved&) { ++seen; });
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 200; ++n) {
                const auto brief = center.observe<Saved>([](const Saved&) {});
                center.post(Saved{});
            }
        });
    }
    threads.clear();
    EXPECT_EQ(seen, 800);
}

}  // namespace
}  // namespace tarnwell
