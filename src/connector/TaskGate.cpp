#include "connector/TaskGate.h"

#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace tarnwell {

struct TaskGate::State {
    std::mutex mutex;
    std::condition_variable left;
    std::size_t inside = 0;  // guarded by mutex
    bool shut = false;       // guarded by mutex
};

TaskGate::TaskGate() : state_(std::make_shared<State>()) {}

TaskGate::Pass::~Pass() {
    if (!state_) return;
    const std::lock_guard lock(state_->mutex);
    if (--state_->inside == 0) state_->left.notify_all();
}

TaskGate::Pass TaskGate::enter(const std::shared_ptr<State>& state) {
    const std::lock_guard lock(state->mutex);
    if (state->shut) return Pass(nullptr);
    ++state->inside;
    return Pass(state);
}

bool TaskGate::closed() const {
    const std::lock_guard lock(state_->mutex);
    return state_->shut;
}

void TaskGate::shut() {
    const std::lock_guard lock(state_->mutex);
    state_->shut = true;
}

bool TaskGate::close(std::chrono::milliseconds deadline) {
    std::unique_lock lock(state_->mutex);
    state_->shut = true;
    return state_->left.wait_for(lock, deadline, [this] { return state_->inside == 0; });
}

}  // namespace tarnwell
