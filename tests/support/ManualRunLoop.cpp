#include "support/ManualRunLoop.h"

#include <algorithm>

namespace tarnwell::testing {

using std::chrono::milliseconds;

struct ManualRunLoop::Entry {
    milliseconds interval;  // zero: runs once
    std::shared_ptr<std::function<void()>> task;
    std::uint64_t id;
};

struct ManualRunLoop::State {
    mutable std::mutex mutex;
    std::condition_variable posted;
    milliseconds now{0};
    std::uint64_t lastId = 0;
    // By due time, then posting order.
    std::map<std::pair<milliseconds, std::uint64_t>, Entry> entries;
};

class ManualRunLoop::Handle final : public Timer::Handle {
  public:
    Handle(std::weak_ptr<State> state, std::uint64_t id) : state_(std::move(state)), id_(id) {}
    void cancel() noexcept override {
        const auto state = state_.lock();
        if (!state) return;
        Entry dropped;
        std::lock_guard lock(state->mutex);
        const auto entry = std::find_if(state->entries.begin(), state->entries.end(),
                                        [this](const auto& each) { return each.second.id == id_; });
        if (entry == state->entries.end()) return;
        dropped = std::move(entry->second);
        state->entries.erase(entry);
    }

  private:
    std::weak_ptr<State> state_;
    std::uint64_t id_;
};

ManualRunLoop::ManualRunLoop(FakeClock* clock) : state_(std::make_shared<State>()), clock_(clock) {}
ManualRunLoop::~ManualRunLoop() = default;

std::shared_ptr<Timer::Handle> ManualRunLoop::add(milliseconds delay, milliseconds interval,
                                                  std::function<void()> task) {
    std::lock_guard lock(state_->mutex);
    const auto id = ++state_->lastId;
    const std::pair key(state_->now + std::max(delay, milliseconds(0)), id);
    state_->entries.emplace(key,
                            Entry{interval, std::make_shared<std::function<void()>>(std::move(task)), id});
    state_->posted.notify_all();
    return std::make_shared<Handle>(state_, id);
}

void ManualRunLoop::async(std::function<void()> task) {
    add(milliseconds(0), milliseconds(0), std::move(task));
}

Timer ManualRunLoop::postAfter(milliseconds delay, std::function<void()> task) {
    return Timer(add(delay, milliseconds(0), std::move(task)));
}

Timer ManualRunLoop::repeat(milliseconds interval, std::function<void()> task) {
    const auto beat = std::max(interval, milliseconds(1));
    return Timer(add(beat, beat, std::move(task)));
}

bool ManualRunLoop::runNext(milliseconds until) {
    std::shared_ptr<std::function<void()>> task;
    milliseconds moved{0};
    {
        std::lock_guard lock(state_->mutex);
        const auto first = state_->entries.begin();
        if (first == state_->entries.end() || first->first.first > until) return false;
        const auto due = std::max(first->first.first, state_->now);
        moved = due - state_->now;
        state_->now = due;
        Entry entry = std::move(first->second);
        state_->entries.erase(first);
        task = entry.task;
        if (entry.interval.count() > 0)
            state_->entries.emplace(std::pair(due + entry.interval, ++state_->lastId), std::move(entry));
    }
    if (clock_) clock_->advance(moved);
    (*task)();
    return true;
}

std::size_t ManualRunLoop::runPending() {
    return advance(milliseconds(0));
}

std::size_t ManualRunLoop::advance(milliseconds by) {
    milliseconds until, rest{0};
    {
        std::lock_guard lock(state_->mutex);
        until = state_->now + by;
    }
    std::size_t count = 0;
    while (runNext(until))
        ++count;
    {
        std::lock_guard lock(state_->mutex);
        rest = std::max(until - state_->now, milliseconds(0));
        state_->now += rest;
    }
    if (clock_) clock_->advance(rest);
    return count;
}

bool ManualRunLoop::waitUntil(const std::function<bool()>& done, milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        runPending();
        if (done()) return true;
        if (std::chrono::steady_clock::now() >= end) return false;
        std::unique_lock lock(state_->mutex);
        // What done() looks at may change without a task: look again every few milliseconds.
        state_->posted.wait_for(lock, milliseconds(5), [this] {
            return !state_->entries.empty() && state_->entries.begin()->first.first <= state_->now;
        });
    }
}

std::size_t ManualRunLoop::pending() const {
    std::lock_guard lock(state_->mutex);
    return state_->entries.size();
}

}  // namespace tarnwell::testing
