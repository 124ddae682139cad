#include "store/DelayedSave.h"

#include <atomic>
#include <chrono>
#include <utility>

#include "platform/RunLoop.h"
#include "store/StorePersistence.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

constexpr std::chrono::seconds kQuiet{5};
constexpr std::chrono::seconds kLatest{60};

}  // namespace

/// Shared with the tasks, which may come when the owner is gone.
struct DelayedSave::State : std::enable_shared_from_this<State> {
    State(TWMetadataStorage& theStore, RunLoop& loop, Executor& queue)
        : store(theStore), mainLoop(loop), background(queue) {}

    void arm();
    void fire();
    void saved(bool whole);

    TWMetadataStorage& store;
    RunLoop& mainLoop;
    Executor& background;
    std::atomic<bool> posted{false};  ///< arm() is on its way to the main thread

    // Main thread only.
    Timer quiet, latest;
    bool running = false;  ///< a save is in the background
    bool ended = false;
};

DelayedSave::DelayedSave(TWMetadataStorage& store, RunLoop& mainLoop, Executor& background)
    : state_(std::make_shared<State>(store, mainLoop, background)) {}

DelayedSave::~DelayedSave() {
    cancel();
    state_->ended = true;
}

void DelayedSave::request() {
    if (state_->store.terminating()) return state_->store.persistence().saveOrJoin();
    // One task stands for all requests until it runs.
    if (state_->posted.exchange(true)) return;
    state_->mainLoop.async([weak = std::weak_ptr(state_)] {
        if (const auto state = weak.lock()) {
            state->posted = false;
            state->arm();
        }
    });
}

void DelayedSave::cancel() {
    state_->quiet.cancel();
    state_->latest.cancel();
}

void DelayedSave::State::arm() {
    if (ended) return;
    const auto task = [weak = weak_from_this()] {
        if (const auto state = weak.lock()) state->fire();
    };
    quiet = mainLoop.postAfter(store.persistence().takeHaste() ? std::chrono::seconds(0) : kQuiet, task);
    if (!latest) latest = mainLoop.postAfter(kLatest, task);
}

void DelayedSave::State::fire() {
    if (running) return arm();
    quiet.cancel();
    latest.cancel();
    // After a log-out there is nothing to keep, and the files are gone for good.
    if (store.storageEmpty() || store.terminating()) return;
    running = true;
    // Shared: a task that is dropped unrun lets the program end all the same.
    auto block = std::make_shared<ShutdownBlock>(store);
    background.async([self = shared_from_this(), block = std::move(block)]() mutable {
        bool whole = false;
        try {
            whole = self->store.persistence().save();
        } catch (const std::exception& error) {
            TWLog(kLogMain, "Error! Saving file metadata failed: %@", error.what());
        }
        self->mainLoop.async([self, whole] { self->saved(whole); });
        block.reset();
    });
}

void DelayedSave::State::saved(bool whole) {
    running = false;
    const auto again = [weak = weak_from_this()] {
        if (const auto state = weak.lock()) state->fire();
    };
    if (!whole && !ended && !latest) latest = mainLoop.postAfter(kLatest, again);
}

}  // namespace tarnwell
