#pragma once

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "service/FileDescriptor.h"

namespace tarnwell::service::testing {

/// The program in a process of its own, serving until the end of the scope.
class ServingProcess {
  public:
    /// `kind` is the resource that `bound` is the limit of.
    explicit ServingProcess(const std::string& folder, int kind = RLIMIT_NOFILE,
                            std::optional<rlim_t> bound = std::nullopt) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return;
        out_ = FileDescriptor(ends[0]);
        const FileDescriptor in(ends[1]);
        child_ = ::fork();
        if (child_ == 0) {
            ::dup2(in.get(), STDOUT_FILENO);
            if (bound) {
                const rlimit limit{*bound, *bound};
                ::setrlimit(static_cast<__rlimit_resource>(kind), &limit);
                // A file beyond the limit is an error of the write then, as on a full disk.
                ::signal(SIGXFSZ, SIG_IGN);
            }
            ::execl(TARNWELL_BIN "/tarnwell-service", "tarnwell-service", "--data", folder.c_str(), "serve",
                    "--port", "0", "--quiet", nullptr);
            ::_exit(127);
        }
    }
    ~ServingProcess() {
        if (child_ > 0) stop(SIGKILL);
    }
    /// Waits for the line that tells it; 0 when the process ends before.
    std::uint16_t port() {
        std::string text;
        char c = 0;
        while (::read(out_.get(), &c, 1) == 1) {
            text += c;
            const auto at = text.find("listening on 127.0.0.1:");
            if (c == '\n' && at != std::string::npos) {
                return static_cast<std::uint16_t>(std::stoi(text.substr(text.rfind(':') + 1)));
            }
        }
        return 0;
    }
    /// From any thread; wait() has to follow.
    void kill() const { ::kill(child_, SIGKILL); }
    int stop(int signal) {
        ::kill(child_, signal);
        return wait();
    }
    int wait() {
        int status = -1;
        ::waitpid(std::exchange(child_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    pid_t child_ = -1;
    FileDescriptor out_;
};

}  // namespace tarnwell::service::testing
