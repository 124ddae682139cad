// forgetful-disk MOUNTPOINT SOCKET [--from FOLDER] [--hostile]
//
// Mounts a disk that can lose what was not synced. FOLDER, as a cut writes it, is what the disk holds at the
// beginning, as durable. SOCKET takes lines and answers each with one line, "ok ..." or "error ...":
//
//   cut SEED FOLDER              writes one state that a power cut may leave now: FOLDER/state, FOLDER/files
//   with
//                                the numbers of the files, and the moment as FOLDER/time
//   keep FOLDER                  the same with nothing lost
//   syncs FOLDER EVERY SEED MOST writes FOLDER/0, FOLDER/1 ... so, before each EVERYth sync from now
//   syncs off                    answers how many were written
//   fail CALL NTH ERRNO [COUNT [PATHPART]]   COUNT 0: all from then on
//   fail off
//   full BYTES | full off        what is free from now
//   stats                        calls so far, those that were failed, operations that were not synced
//
// CALL: write, fsync (fdatasync and folders as well), rename, create, mkdir, unlink, rmdir, link, truncate,
// setattr, setxattr, fallocate, open, read ...

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <sstream>
#include <thread>

#include "disk/DiskMount.h"

namespace tarnwell::testing {

namespace {

std::string statsOf(const DiskMount& mount) {
    std::string text = "ok failed=" + std::to_string(mount.faults.failed()) +
                       " pending=" + std::to_string(mount.disk.pendingOperations()) +
                       " used=" + std::to_string(mount.disk.space().used);
    for (const auto& [call, count] : mount.faults.calls())
        text += " " + call + "=" + std::to_string(count);
    return text;
}

std::string perform(DiskMount& mount, const std::string& line) {
    std::istringstream words(line);
    std::string command, word;
    words >> command;
    const std::lock_guard lock(mount.mutex());
    if (command == "cut") {
        std::uint64_t seed = 0;
        if (words >> seed >> word) return "ok " + std::to_string(mount.writeCut(seed, word));
    } else if (command == "keep") {
        if (words >> word) return "ok " + std::to_string(mount.writeNow(word));
    } else if (command == "syncs") {
        const auto written = mount.syncCuts.written;
        DiskMount::SyncCuts cuts;
        words >> cuts.folder;
        if (cuts.folder == "off") {
            mount.syncCuts = {};
            return "ok " + std::to_string(written);
        }
        if (words >> cuts.every >> cuts.seed >> cuts.most && cuts.every > 0) {
            mount.syncCuts = cuts;
            return "ok";
        }
    } else if (command == "fail") {
        DiskFaults::Rule rule;
        words >> rule.call;
        if (rule.call == "off") {
            mount.faults.clear();
            return "ok";
        }
        if (words >> rule.first >> rule.error) {
            words >> rule.count >> rule.pathPart;
            mount.faults.add(rule);
            return "ok";
        }
    } else if (command == "full") {
        std::int64_t bytes = 0;
        if (words >> bytes) {
            mount.disk.limitFreeSpace(bytes);
        } else {
            mount.disk.limitFreeSpace(std::nullopt);
        }
        return "ok";
    } else if (command == "stats") {
        return statsOf(mount);
    }
    return "error: not understood: " + line;
}

/// One connection after the other, until the program ends.
void control(DiskMount& mount, int listening) {
    for (int connection = 0; (connection = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;
         close(connection)) {
        std::string line;
        for (char byte = 0; read(connection, &byte, 1) == 1;) {
            if (byte != '\n') {
                line += byte;
                continue;
            }
            std::string answer;
            try {
                answer = perform(mount, line);
            } catch (const std::exception& problem) {
                answer = std::string("error: ") + problem.what();
            }
            answer += '\n';
            if (send(connection, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) break;
            line.clear();
        }
    }
}

int listenAt(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return -1;
    std::memcpy(address.sun_path, path.data(), path.size());
    const int listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listening, 4) != 0)
        return -1;
    return listening;
}

int run(int count, char** arguments) {
    std::string from;
    auto mode = ForgetfulDisk::Mode::kOrdered;
    for (int at = 3; at < count; ++at) {
        const std::string argument = arguments[at];
        if (argument == "--hostile") mode = ForgetfulDisk::Mode::kHostile;
        if (argument == "--from" && at + 1 < count) from = arguments[++at];
    }
    if (count < 3) {
        std::fprintf(stderr, "usage: forgetful-disk MOUNTPOINT SOCKET [--from FOLDER] [--hostile]\n");
        return 2;
    }
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    DiskMount mount(mode);
    if (!from.empty()) mount.disk.takeOver(from);
    const int listening = listenAt(arguments[2]);
    if (listening < 0 || !mount.mount(arguments[1])) {
        std::fprintf(stderr, "forgetful-disk: cannot mount %s: %s\n", arguments[1], std::strerror(errno));
        return 1;
    }
    // The signal that ends the program interrupts the thread that serves.
    sigset_t ending;
    sigfillset(&ending);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    std::thread commands([&] { control(mount, listening); });
    pthread_sigmask(SIG_UNBLOCK, &ending, nullptr);
    mount.run();
    shutdown(listening, SHUT_RDWR);
    // A command that waits for its next line is cut off with the program.
    commands.detach();
    unlink(arguments[2]);
    return 0;
}

}  // namespace
}  // namespace tarnwell::testing

int main(int count, char** arguments) {
    try {
        const int status = tarnwell::testing::run(count, arguments);
        std::fflush(nullptr);
        _exit(status);
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "forgetful-disk: %s\n", problem.what());
        return 1;
    }
}
