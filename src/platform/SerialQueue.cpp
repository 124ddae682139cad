#include <deque>
#include <mutex>

#include "platform/BackgroundQueue.h"
#include "platform/GuardedTask.h"

namespace tarnwell {

struct SerialQueue::State : std::enable_shared_from_this<State> {
    explicit State(Executor& executor) : target(executor) {}

    /// One turn on the target: runs one task. Dropped unrun (the target stopped), it takes the waiting tasks
    /// along.
    struct Turn {
        explicit Turn(std::shared_ptr<State> owner) : state(std::move(owner)) {}
        ~Turn() {
            if (!taken) state->drop();
        }
        std::shared_ptr<State> state;
        bool taken = false;
    };

    void schedule() {
        target.async([turn = std::make_shared<Turn>(shared_from_this())] {
            turn->taken = true;
            turn->state->runOne();
        });
    }

    void runOne() {
        std::function<void()> task;
        {
            std::lock_guard lock(mutex);
            if (tasks.empty()) {
                scheduled = false;
                return;
            }
            task = std::move(tasks.front());
            tasks.pop_front();
        }
        runGuarded("Queued task", task);
        runGuarded("Queued task's end", [&] { task = nullptr; });
        {
            std::lock_guard lock(mutex);
            scheduled = !tasks.empty();
            if (!scheduled) return;
        }
        // One task a turn, so that a long queue shares the target with others.
        schedule();
    }

    void drop() {
        std::deque<std::function<void()>> dropped;
        std::lock_guard lock(mutex);
        scheduled = false;
        dropped.swap(tasks);
    }

    Executor& target;
    std::mutex mutex;
    std::deque<std::function<void()>> tasks;  // guarded by mutex
    bool scheduled = false;                   // guarded by mutex: a turn is on its way or runs
    bool closed = false;                      // guarded by mutex
};

SerialQueue::SerialQueue(Executor& target) : state_(std::make_shared<State>(target)) {}

SerialQueue::~SerialQueue() {
    std::deque<std::function<void()>> dropped;
    std::lock_guard lock(state_->mutex);
    state_->closed = true;
    dropped.swap(state_->tasks);
}

void SerialQueue::async(std::function<void()> task) {
    {
        std::lock_guard lock(state_->mutex);
        if (state_->closed) return;
        state_->tasks.push_back(std::move(task));
        if (state_->scheduled) return;
        state_->scheduled = true;
    }
    state_->schedule();
}

}  // namespace tarnwell
