#include "platform/ClipboardProgram.h"

#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QSocketNotifier>
#include <QTimer>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <list>

#include "platform/LocalSocket.h"
#include "platform/SystemInformation.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

constexpr std::chrono::seconds kDeadline{5};
constexpr const char* kProgramName = "tarnwell-clipboard";
/// What the program says when the link is on the clipboard.
constexpr char kDone = '+';
/// Far below what a socket takes without anybody reading it.
constexpr std::size_t kLongestLink = 4096;

bool hasDisplay() {
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) {
        if (const char* value = std::getenv(name); value && *value) return true;
    }
    return false;
}

}  // namespace

/// One attempt: the answer of a program that was started.
struct ClipboardProgram::State {
    struct Attempt {
        Attempt(int descriptor, std::function<void(bool)> given)
            : answer(descriptor), readable(descriptor, QSocketNotifier::Read), done(std::move(given)) {}
        OwnedDescriptor answer;  // outlives its notifier
        QSocketNotifier readable;
        QTimer deadline;
        std::function<void(bool)> done;
    };
    std::list<std::shared_ptr<Attempt>> attempts;
    std::list<pid_t> programs;

    /// A program ends some time after the next was started: each start takes note of the earlier ends.
    void reap() {
        programs.remove_if([](pid_t program) { return waitpid(program, nullptr, WNOHANG) != 0; });
    }

    void end(const std::shared_ptr<Attempt>& attempt, bool succeeded) {
        attempt->readable.setEnabled(false);
        attempt->deadline.stop();
        attempts.remove(attempt);
        // Not from inside a signal of its own notifier.
        QTimer::singleShot(0, [attempt, succeeded] { attempt->done(succeeded); });
    }
};

ClipboardProgram::ClipboardProgram(std::string program)
    : program_(std::move(program)), state_(std::make_unique<State>()) {}

ClipboardProgram::~ClipboardProgram() = default;

void ClipboardProgram::setLink(const std::string& link, std::function<void(bool)> done) {
    const auto later = [&](bool result) { QTimer::singleShot(0, [done, result] { done(result); }); };
    if (program_.empty() || !hasDisplay() || link.size() > kLongestLink) return later(false);
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return later(false);
    OwnedDescriptor ours(ends[0]);
    OwnedDescriptor childs(ends[1]);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, childs.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, childs.get(), STDOUT_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);  // this program reads its signals from a descriptor
    // What ends a terminal's programs does not end this one.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
    std::string path = program_;
    char* arguments[] = {path.data(), nullptr};
    pid_t child = -1;
    const int error = posix_spawn(&child, path.c_str(), &actions, &attributes, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    childs.reset();
    state_->reap();
    if (error != 0) return later(false);
    state_->programs.push_back(child);

    const bool written = send(ours.get(), link.data(), link.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
                         static_cast<ssize_t>(link.size());
    shutdown(ours.get(), SHUT_WR);
    auto attempt = std::make_shared<State::Attempt>(ours.release(), std::move(done));
    state_->attempts.push_back(attempt);
    if (!written) return state_->end(attempt, false);
    const std::weak_ptr<State::Attempt> weak = attempt;
    QObject::connect(&attempt->readable, &QSocketNotifier::activated, [state = state_.get(), weak] {
        const auto live = weak.lock();
        if (!live) return;
        char answer = 0;
        const ssize_t got = read(live->answer.get(), &answer, 1);
        state->end(live, got == 1 && answer == kDone);
    });
    QObject::connect(&attempt->deadline, &QTimer::timeout, [state = state_.get(), weak] {
        if (const auto live = weak.lock()) state->end(live, false);
    });
    attempt->deadline.setSingleShot(true);
    attempt->deadline.start(kDeadline);
}

std::string ClipboardProgram::installedProgram() {
    const std::string folder(deletingLastPathComponent(executablePath()));
    for (const std::string& path : {appendPathComponent(folder, kProgramName),
                                    appendPathComponent(folder, std::string("../libexec/") + kProgramName)}) {
        if (access(path.c_str(), X_OK) == 0) return path;
    }
    return {};
}

}  // namespace tarnwell
