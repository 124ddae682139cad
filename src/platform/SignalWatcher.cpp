#include "platform/SignalWatcher.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <QSocketNotifier>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "platform/LocalSocket.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

sigset_t endingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&signals, signal);
    return signals;
}

}  // namespace

struct SignalWatcher::State {
    OwnedDescriptor descriptor;
    std::unique_ptr<QSocketNotifier> readable;
    std::function<void(int)> ended;
};

void SignalWatcher::blockSignals() {
    const sigset_t signals = endingSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

SignalWatcher::SignalWatcher(std::function<void(int)> ended) : state_(std::make_unique<State>()) {
    const sigset_t signals = endingSignals();
    state_->ended = std::move(ended);
    state_->descriptor = OwnedDescriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!state_->descriptor) {
        // Better to be ended without ceremony than not at all.
        TWLog(kLogMain, "Warning! Cannot watch for signals: %@", std::strerror(errno));
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        return;
    }
    state_->readable = std::make_unique<QSocketNotifier>(state_->descriptor.get(), QSocketNotifier::Read);
    QObject::connect(state_->readable.get(), &QSocketNotifier::activated, [state = state_.get()] {
        signalfd_siginfo information{};
        while (read(state->descriptor.get(), &information, sizeof information) ==
               static_cast<ssize_t>(sizeof information)) {
            state->ended(static_cast<int>(information.ssi_signo));
        }
    });
}

SignalWatcher::~SignalWatcher() {
    state_->readable.reset();
}

}  // namespace tarnwell
