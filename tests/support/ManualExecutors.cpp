#include "support/ManualExecutors.h"

#include <utility>

namespace tarnwell::testing {

void ManualExecutor::async(std::function<void()> task) {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    posted_.notify_all();
}

bool ManualExecutor::runOne() {
    std::function<void()> task;
    {
        std::lock_guard lock(mutex_);
        if (tasks_.empty()) return false;
        task = std::move(tasks_.front());
        tasks_.pop_front();
    }
    task();
    return true;
}

std::size_t ManualExecutor::runAll() {
    std::size_t count = 0;
    while (runOne())
        ++count;
    return count;
}

void ManualExecutor::clear() {
    std::deque<std::function<void()>> dropped;
    std::lock_guard lock(mutex_);
    dropped.swap(tasks_);
}

std::size_t ManualExecutor::size() const {
    std::lock_guard lock(mutex_);
    return tasks_.size();
}

bool ManualExecutor::waitForTask(std::chrono::milliseconds deadline) {
    std::unique_lock lock(mutex_);
    return posted_.wait_for(lock, deadline, [this] { return !tasks_.empty(); });
}

}  // namespace tarnwell::testing
