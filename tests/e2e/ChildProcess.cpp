#include "e2e/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

extern char** environ;

namespace tarnwell::testing {

namespace {

std::vector<std::string> mergedEnvironment(const ChildProcess::Environment& added) {
    std::vector<std::string> merged;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text(*entry);
        bool replaced = false;
        for (const auto& [name, value] : added)
            replaced = replaced || text.starts_with(name + "=");
        if (!replaced) merged.push_back(text);
    }
    for (const auto& [name, value] : added)
        merged.push_back(name + "=" + value);
    return merged;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> list;
    for (auto& text : texts)
        list.push_back(text.data());
    list.push_back(nullptr);
    return list;
}

}  // namespace

ChildProcess::ChildProcess(const Options& options) {
    int input[2];
    if (pipe2(input, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    const auto written = write(input[1], options.input.data(), options.input.size());
    close(input[1]);

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, input[0], STDIN_FILENO);
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, options.outputFile.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&files, STDOUT_FILENO, STDERR_FILENO);
    auto command = options.command;
    auto environment = mergedEnvironment(options.environment);
    const int error = posix_spawn(&pid_, command[0].c_str(), &files, nullptr, pointers(command).data(),
                                  pointers(environment).data());
    posix_spawn_file_actions_destroy(&files);
    close(input[0]);
    if (error != 0 || written < 0) throw std::runtime_error("cannot start " + options.command[0]);
}

ChildProcess::~ChildProcess() {
    if (status_) return;
    kill(pid_, SIGKILL);
    wait(std::chrono::seconds(10));
}

void ChildProcess::signal(int number) const {
    if (!status_) kill(pid_, number);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds deadline) {
    if (status_) return status_;
    const int descriptor = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    if (descriptor < 0) return std::nullopt;
    pollfd ended{descriptor, POLLIN, 0};
    const int ready = poll(&ended, 1, static_cast<int>(deadline.count()));
    close(descriptor);
    int status = 0;
    if (ready <= 0 || waitpid(pid_, &status, 0) != pid_) return std::nullopt;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return status_;
}

}  // namespace tarnwell::testing
