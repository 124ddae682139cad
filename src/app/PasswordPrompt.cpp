#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "app/ClientCommands.h"

namespace tarnwell {

namespace {

constexpr std::size_t kPasswordLimit = 4096;

volatile std::sig_atomic_t interrupted = 0;

/// Turns the terminal's echo off; on again at the end of the scope, also after an interruption.
class HiddenInput {
  public:
    HiddenInput() {
        shown_ = tcgetattr(STDIN_FILENO, &before_) == 0;
        if (!shown_) return;
        struct sigaction noted {};
        noted.sa_handler = [](int) { interrupted = 1; };  // without SA_RESTART: the read ends
        sigaction(SIGINT, &noted, &oldInterrupt_);
        sigaction(SIGTERM, &noted, &oldTerminate_);
        termios hidden = before_;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    }
    ~HiddenInput() {
        if (!shown_) return;
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
        sigaction(SIGINT, &oldInterrupt_, nullptr);
        sigaction(SIGTERM, &oldTerminate_, nullptr);
        std::fputc('\n', stderr);
    }
    HiddenInput(const HiddenInput&) = delete;
    HiddenInput& operator=(const HiddenInput&) = delete;

  private:
    termios before_{};
    struct sigaction oldInterrupt_ {};
    struct sigaction oldTerminate_ {};
    bool shown_ = false;
};

/// One line of standard input without its line break; none at its end, on an error or an interruption.
std::optional<std::string> readLine() {
    std::string line;
    for (char next = 0;;) {
        const ssize_t got = read(STDIN_FILENO, &next, 1);
        if (got < 0 && errno == EINTR && interrupted == 0) continue;
        if (got < 0 || (got == 0 && line.empty())) return std::nullopt;
        if (got == 0 || next == '\n') break;
        if (line.size() == kPasswordLimit) return std::nullopt;
        line.push_back(next);
    }
    if (line.ends_with('\r')) line.pop_back();
    return line;
}

}  // namespace

std::optional<std::string> readPassword(const std::string& user, bool fromStandardInput) {
    std::optional<std::string> password;
    if (fromStandardInput) {
        password = readLine();
    } else {
        std::fprintf(stderr, "Password of %s: ", user.c_str());
        const HiddenInput hidden;
        password = readLine();
    }
    if (!password || password->empty()) {
        std::fputs("tarnwell: no password given\n", stderr);
        return std::nullopt;
    }
    return password;
}

}  // namespace tarnwell
