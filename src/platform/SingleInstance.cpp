#include "platform/SingleInstance.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

#include "platform/SystemInformation.h"

namespace tarnwell {

namespace {

pid_t pidIn(int file) {
    char text[32];
    const auto length = ::pread(file, text, sizeof text, 0);
    pid_t pid = 0;
    if (length > 0) std::from_chars(text, text + length, pid);
    return pid > 0 ? pid : 0;
}

}  // namespace

std::variant<SingleInstance, SingleInstance::Other, SingleInstance::Failure> SingleInstance::acquire(
    const std::string& path) {
    OwnedDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) return Failure{errno};
    if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) return Failure{errno};
        const auto pid = pidIn(file.get());
        return Other{pid, processExecutable(pid).value_or("")};
    }
    const auto text = std::to_string(::getpid()) + "\n";
    // Who holds it is told to others only; on a full disk they do without.
    if (::ftruncate(file.get(), 0) == 0) (void)!::pwrite(file.get(), text.data(), text.size(), 0);
    return SingleInstance(std::move(file));
}

}  // namespace tarnwell
