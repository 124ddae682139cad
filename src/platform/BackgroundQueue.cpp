#include "platform/BackgroundQueue.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/GuardedTask.h"

namespace tarnwell {

using Task = std::function<void()>;

/// Shared with the workers, so that one that is left to itself still has it.
struct BackgroundQueue::State {
    std::mutex mutex;
    std::condition_variable work;   // a task came, or the end
    std::condition_variable ended;  // a worker left
    std::deque<Task> tasks;         // guarded by mutex, as all below
    bool stopping = false;
    std::size_t living = 0;
    std::vector<std::thread> workers;

    /// The queue whose worker the calling thread is.
    static thread_local const State* current;

    void run() {
        current = this;
        std::unique_lock lock(mutex);
        for (;;) {
            work.wait(lock, [this] { return stopping || !tasks.empty(); });
            if (stopping) break;
            auto task = std::move(tasks.front());
            tasks.pop_front();
            lock.unlock();
            runGuarded("Background task", task);
            // What the task owns may post or stop in its destructor.
            runGuarded("Background task's end", [&] { task = nullptr; });
            lock.lock();
        }
        --living;
        ended.notify_all();
    }
};

thread_local const BackgroundQueue::State* BackgroundQueue::State::current = nullptr;

BackgroundQueue::BackgroundQueue(std::size_t threads, std::string_view namePrefix)
    : state_(std::make_shared<State>()) {
    const auto count = std::max<std::size_t>(threads, 1);
    state_->workers.reserve(count);
    for (std::size_t i = 1; i <= count; ++i) {
        {
            std::lock_guard lock(state_->mutex);
            ++state_->living;
        }
        state_->workers.emplace_back(
            [state = state_, name = std::string(namePrefix) + "-" + std::to_string(i)] {
                nameThisThread(name.c_str());
                state->run();
            });
    }
}

BackgroundQueue::~BackgroundQueue() {
    stop(std::chrono::seconds(10));
}

void BackgroundQueue::async(std::function<void()> task) {
    std::lock_guard lock(state_->mutex);
    if (state_->stopping) return;
    state_->tasks.push_back(std::move(task));
    state_->work.notify_one();
}

bool BackgroundQueue::stop(std::chrono::milliseconds deadline) {
    std::deque<Task> dropped;
    std::vector<std::thread> workers;
    bool ended = false;
    {
        std::unique_lock lock(state_->mutex);
        state_->stopping = true;
        dropped.swap(state_->tasks);
        workers.swap(state_->workers);
        state_->work.notify_all();
        const bool self = State::current == state_.get();
        ended = state_->ended.wait_for(lock, deadline, [&] { return state_->living == (self ? 1u : 0u); });
    }
    for (auto& worker : workers) {
        if (ended && worker.get_id() != std::this_thread::get_id())
            worker.join();
        else
            worker.detach();
    }
    return ended;
}

}  // namespace tarnwell
