#include "service/TestDisk.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace {

enum Mode { real, skip, failing };
std::atomic<Mode> mode = real;

int synced(long call, int file) {
    if (mode == skip) return 0;
    if (mode == failing) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(::syscall(call, file));
}

}  // namespace

// In place of the library's, for everything in the process.
extern "C" int fsync(int file) {
    return synced(SYS_fsync, file);
}
extern "C" int fdatasync(int file) {
    return synced(SYS_fdatasync, file);
}
extern "C" int syncfs(int file) noexcept {
    return synced(SYS_syncfs, file);
}

namespace tarnwell::service::testing {

TestDisk::TestDisk(Sync sync) {
    mode = sync == Sync::skip ? skip : failing;
}
TestDisk::~TestDisk() {
    mode = real;
}

}  // namespace tarnwell::service::testing
