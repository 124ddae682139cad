#pragma once

#include <memory>

namespace tarnwell {

class Executor;
class RunLoop;
class TWMetadataStorage;

/// Turns the many requests of a burst of changes into one save: five seconds after the last of them, but at
/// most a minute after the first, so that a steady stream of changes cannot put it off for ever. The save
/// runs on the background queue. A save that failed is tried again a minute later.
///
/// While the program ends a request saves at once, on the calling thread.
class DelayedSave {
  public:
    /// All outlive this object and its tasks.
    DelayedSave(TWMetadataStorage& store, RunLoop& mainLoop, Executor& background);
    /// Main thread. Forgets what is asked for; a save that runs goes on.
    ~DelayedSave();
    DelayedSave(const DelayedSave&) = delete;
    DelayedSave& operator=(const DelayedSave&) = delete;

    /// Any thread, with or without the store's lock.
    void request();
    /// Main thread. A save that was asked for is done by the caller instead.
    void cancel();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace tarnwell
