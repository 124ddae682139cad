#include "app/TerminationProtocol.h"

#include <utility>

#include "util/TWLogger.h"

namespace tarnwell {

namespace {

constexpr std::chrono::seconds kBlockedCheckInterval{1};
/// A full disk may have room again, a disk that is away may come back.
constexpr std::chrono::seconds kSaveRetryInterval{2};
constexpr int kSaveTries = 5;

}  // namespace

void TerminationProtocol::applicationShouldTerminate(Answer answered) {
    if (answered) answers_.push_back(std::move(answered));
    if (stage_ != Stage::kRunning) return;
    if (!mediator_.isFinishedInitialization()) {
        TWLog(kLogMain, "Terminating application : right now, no initialization finished.");
        return leave();
    }
    stage_ = Stage::kAsking;
    mediator_.checkIfExitAllowed([this](bool allowed) { exitAnswered(allowed); });
}

void TerminationProtocol::terminateWithoutQuestion() {
    if (stage_ == Stage::kAsking) return takeDown();
    if (stage_ != Stage::kRunning) return;
    if (!mediator_.isFinishedInitialization()) return applicationShouldTerminate();
    takeDown();
}

void TerminationProtocol::exitAnswered(bool allowed) {
    if (stage_ != Stage::kAsking) return;  // a repeated request went ahead while the question was open
    if (allowed) return takeDown();
    TWLog(kLogMain, "Terminating application : canceled, no exit allowed.");
    stage_ = Stage::kRunning;
    answerAll(Outcome::kCanceled);
}

void TerminationProtocol::takeDown() {
    stage_ = Stage::kWaiting;
    mediator_.beginTermination();
    mediator_.stopFuse();
    mediator_.stopObserving();
    saveAndLeave();
}

void TerminationProtocol::saveAndLeave() {
    saveFailed_ = false;
    if (mediator_.storageEmpty()) {
        TWLog(kLogMain, "Terminating application : do not save database.");
    } else if (mediator_.saveStore()) {
        TWLog(kLogMain, "Terminating application : saved database.");
    } else if (++failedSaves_ < kSaveTries) {
        TWLog(kLogMain, "Terminating application : the database could not be saved, trying again.");
        wait_ = loop_.postAfter(kSaveRetryInterval, [this] { saveAndLeave(); });
        return;
    } else {
        TWLog(kLogMain, "Error! Terminating application : the database could not be saved.");
        saveFailed_ = true;
    }
    leaveWhenUnblocked();
}

void TerminationProtocol::leaveWhenUnblocked() {
    if (mediator_.shutdownBlocked()) {
        TWLog(kLogMain, "Terminating application : shutdown is blocked, waiting.");
        wait_ = loop_.repeat(kBlockedCheckInterval, [this] { checkForTermination(); });
        return;
    }
    TWLog(kLogMain, "Terminating application : now.");
    if (saveFailed_) mediator_.saveFailed();
    leave();
}

void TerminationProtocol::checkForTermination() {
    if (mediator_.shutdownBlocked()) return;
    wait_.cancel();
    TWLog(kLogMain, "Terminating application : shutdown no longer blocked, exiting.");
    if (!saveFailed_) mediator_.setCleanShutdown();
    // The work that was waited for changed the store: it is saved once more.
    saveAndLeave();
}

void TerminationProtocol::leave() {
    stage_ = Stage::kEnded;
    if (!saveFailed_) mediator_.setCleanShutdown();
    answerAll(Outcome::kTerminating);
    mediator_.terminateNow();
}

void TerminationProtocol::answerAll(Outcome outcome) {
    for (const auto& answer : std::exchange(answers_, {}))
        answer(outcome);
}

}  // namespace tarnwell
