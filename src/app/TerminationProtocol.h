#pragma once

#include <functional>
#include <vector>

#include "platform/RunLoop.h"

namespace tarnwell {

/// The way out: asks whether the program may end, takes the drive down, saves the store, waits for work that
/// must be whole, records the clean shutdown, ends. A save that fails is tried again for some seconds; where
/// that does not help, the user is told and the end is no clean one. Main thread only; the loop runs on while
/// it waits.
class TerminationProtocol {
  public:
    /// What it needs from the rest of the application. Called on the main thread.
    class Mediator {
      public:
        virtual ~Mediator() = default;
        [[nodiscard]] virtual bool isFinishedInitialization() = 0;
        /// Calls `answer` once, now or later: false keeps everything running.
        virtual void checkIfExitAllowed(std::function<void(bool allowed)> answer) = 0;
        /// No new work starts from here on.
        virtual void beginTermination() = 0;
        virtual void stopFuse() = 0;
        virtual void stopObserving() = 0;
        [[nodiscard]] virtual bool storageEmpty() = 0;
        /// False when something could not be saved.
        virtual bool saveStore() = 0;
        /// The last try failed: says so, and has the program end with a status other than 0.
        virtual void saveFailed() = 0;
        [[nodiscard]] virtual bool shutdownBlocked() = 0;
        virtual void setCleanShutdown() = 0;
        /// Ends the main loop; the last call.
        virtual void terminateNow() = 0;
    };

    enum class Outcome { kTerminating, kCanceled };
    using Answer = std::function<void(Outcome)>;

    TerminationProtocol(Mediator& mediator, RunLoop& loop) : mediator_(mediator), loop_(loop) {}

    /// Runs the protocol. `answered` hears kCanceled when the user wants to go on, kTerminating once the
    /// process is about to end. A request while one runs joins it.
    void applicationShouldTerminate(Answer answered = {});
    /// As above, but without the question for open files: the request was repeated or cannot be refused.
    /// Never cuts short the wait for work that must be whole.
    void terminateWithoutQuestion();

    /// Step 3 of the protocol was reached: nothing brings the application back.
    [[nodiscard]] bool terminating() const { return stage_ > Stage::kAsking; }

  private:
    enum class Stage { kRunning, kAsking, kWaiting, kEnded };

    void exitAnswered(bool allowed);
    void takeDown();
    void saveAndLeave();
    void leaveWhenUnblocked();
    void checkForTermination();
    void leave();
    void answerAll(Outcome outcome);

    Mediator& mediator_;
    RunLoop& loop_;
    Stage stage_ = Stage::kRunning;
    std::vector<Answer> answers_;
    Timer wait_;
    int failedSaves_ = 0;
    bool saveFailed_ = false;
};

}  // namespace tarnwell
