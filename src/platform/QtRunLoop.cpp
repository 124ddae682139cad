#include "platform/QtRunLoop.h"

#include <QCoreApplication>
#include <QObject>
#include <QTimer>
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <utility>

#include "platform/GuardedTask.h"

namespace tarnwell {

using std::chrono::milliseconds;
using SteadyTime = std::chrono::steady_clock::time_point;

namespace {

// Far less than what Qt's timers can hold; a longer wait is waited for in pieces.
constexpr milliseconds kLongestWait = std::chrono::hours(1);
constexpr milliseconds kLongestDelay = std::chrono::hours(24 * 3650);

}  // namespace

struct QtRunLoop::Entry {
    std::uint64_t id;
    milliseconds interval;  // zero: runs once
    std::function<void()> task;
    std::atomic<bool> cancelled = false;
};

/// Shared with the timers' handles, which may outlive the loop.
struct QtRunLoop::State : std::enable_shared_from_this<State> {
    std::unique_ptr<QCoreApplication> application;  // before the objects that need it
    std::unique_ptr<QObject> context;               // lives on the main thread; null once the loop ended
    std::unique_ptr<QTimer> alarm;                  // main thread only

    std::mutex mutex;  // guards what follows, and the pointer `context` against use after the end
    std::uint64_t lastId = 0;
    std::map<std::pair<SteadyTime, std::uint64_t>, std::shared_ptr<Entry>> entries;

    /// Any thread.
    void post(std::function<void()> task) {
        std::lock_guard lock(mutex);
        if (!context) return;
        QMetaObject::invokeMethod(
            context.get(), [task = std::move(task)] { runGuarded("Main loop task", task); },
            Qt::QueuedConnection);
    }

    void insert(std::shared_ptr<Entry> entry, SteadyTime due) {
        bool first = false;
        {
            std::lock_guard lock(mutex);
            if (!context) return;
            const auto place = entries.emplace(std::pair(due, entry->id), std::move(entry)).first;
            first = place == entries.begin();
        }
        if (first) {
            post([weak = weak_from_this()] {
                if (const auto state = weak.lock()) state->arm();
            });
        }
    }

    void erase(const std::shared_ptr<Entry>& entry) {
        std::shared_ptr<Entry> dropped;
        std::lock_guard lock(mutex);
        const auto place = std::find_if(entries.begin(), entries.end(),
                                        [&](const auto& candidate) { return candidate.second == entry; });
        if (place == entries.end()) return;
        dropped = std::move(place->second);
        entries.erase(place);
    }

    /// Main thread. Sets the alarm to the next entry.
    void arm() {
        std::lock_guard lock(mutex);
        if (!alarm) return;
        if (entries.empty()) {
            alarm->stop();
            return;
        }
        const auto wait =
            std::chrono::ceil<milliseconds>(entries.begin()->first.first - std::chrono::steady_clock::now());
        alarm->start(std::clamp(wait, milliseconds(0), kLongestWait));
    }

    /// Main thread. Runs one due entry; the alarm is set before, for loops nested in the task.
    void fire() {
        std::shared_ptr<Entry> entry;
        SteadyTime due;
        {
            std::lock_guard lock(mutex);
            if (!entries.empty() && entries.begin()->first.first <= std::chrono::steady_clock::now()) {
                due = entries.begin()->first.first;
                entry = std::move(entries.begin()->second);
                entries.erase(entries.begin());
            }
        }
        arm();
        if (!entry || entry->cancelled) return;
        runGuarded("Main loop timer", entry->task);
        if (entry->interval.count() == 0 || entry->cancelled) return;
        // Beats that passed meanwhile are skipped.
        const auto now = std::chrono::steady_clock::now();
        const auto missed = std::max<std::int64_t>((now - due) / entry->interval, 0);
        insert(entry, due + (missed + 1) * entry->interval);
    }
};

/// Does not own the entry: what a dropped task holds goes at once, however long the timer is kept.
class QtRunLoop::TimerHandle final : public Timer::Handle {
  public:
    TimerHandle(std::weak_ptr<State> state, std::weak_ptr<Entry> entry)
        : state_(std::move(state)), entry_(std::move(entry)) {}
    void cancel() noexcept override {
        const auto entry = entry_.lock();
        if (!entry) return;
        entry->cancelled = true;
        if (const auto state = state_.lock()) state->erase(entry);
    }

  private:
    std::weak_ptr<State> state_;
    std::weak_ptr<Entry> entry_;
};

QtRunLoop::QtRunLoop(int& argc, char** argv) : state_(std::make_shared<State>()) {
    if (!QCoreApplication::instance()) state_->application = std::make_unique<QCoreApplication>(argc, argv);
    state_->context = std::make_unique<QObject>();
    state_->alarm = std::make_unique<QTimer>();
    state_->alarm->setSingleShot(true);
    state_->alarm->setTimerType(Qt::PreciseTimer);
    QObject::connect(state_->alarm.get(), &QTimer::timeout, state_->context.get(),
                     [state = state_.get()] { state->fire(); });
}

QtRunLoop::~QtRunLoop() {
    // Dropped outside the lock: what the tasks own may cancel timers in its destructor.
    std::unique_ptr<QObject> context;
    std::unique_ptr<QTimer> alarm;
    decltype(State::entries) entries;
    {
        std::lock_guard lock(state_->mutex);
        context = std::move(state_->context);
        alarm = std::move(state_->alarm);
        entries.swap(state_->entries);
    }
    entries.clear();
    context.reset();
    alarm.reset();
    state_->application.reset();
}

void QtRunLoop::async(std::function<void()> task) {
    state_->post(std::move(task));
}

Timer QtRunLoop::add(milliseconds delay, milliseconds interval, std::function<void()> task) {
    auto entry = std::make_shared<Entry>();
    entry->interval = interval;
    entry->task = std::move(task);
    {
        std::lock_guard lock(state_->mutex);
        entry->id = ++state_->lastId;
    }
    const auto wait = std::clamp(delay, milliseconds(0), kLongestDelay);
    state_->insert(entry, std::chrono::steady_clock::now() + wait);
    return Timer(std::make_shared<TimerHandle>(state_, entry));
}

Timer QtRunLoop::postAfter(milliseconds delay, std::function<void()> task) {
    return add(delay, milliseconds(0), std::move(task));
}

Timer QtRunLoop::repeat(milliseconds interval, std::function<void()> task) {
    const auto beat = std::clamp(interval, milliseconds(1), kLongestDelay);
    return add(beat, beat, std::move(task));
}

int QtRunLoop::exec() {
    return QCoreApplication::exec();
}

void QtRunLoop::quit(int status) {
    async([status] { QCoreApplication::exit(status); });
}

}  // namespace tarnwell
