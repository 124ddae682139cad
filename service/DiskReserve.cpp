#include "service/DiskReserve.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>

#include "service/FileDescriptor.h"
#include "service/ServiceError.h"

namespace tarnwell::service {

namespace {

constexpr std::int64_t kLargest = 32 << 20;
/// What a database needs to be opened: its shared index (32 KiB) and a little more.
constexpr std::int64_t kLeastToOpen = 256 << 10;

}  // namespace

DiskReserve::DiskReserve(const std::filesystem::path& folder) : path_(folder / "reserve") {}

DiskReserve::Disk DiskReserve::disk() const noexcept {
    struct statvfs disk {};
    if (::statvfs(path_.parent_path().c_str(), &disk) != 0) return {0, 0, 0};
    const auto unit = static_cast<std::int64_t>(disk.f_frsize);
    // Also for the superuser: of what the file system keeps back, a part is for nobody.
    struct stat status {};
    const bool there = ::lstat(path_.c_str(), &status) == 0;
    return {static_cast<std::int64_t>(disk.f_bavail) * unit,
            std::min(kLargest, static_cast<std::int64_t>(disk.f_blocks) * unit / 16),
            there ? static_cast<std::int64_t>(status.st_blocks) * 512 : 0};
}

void DiskReserve::adjust() noexcept {
    const auto now = disk();
    const std::int64_t part = now.wanted / 8;
    const bool give = now.held > 0 && now.free < part;
    const bool take = now.held < now.wanted && now.free > 2 * now.wanted;
    if (!give && !take) return;
    const FileDescriptor file(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) return;
    // In parts: whoever filled the disk may take what is freed. Failures leave less reserve, which missing()
    // tells.
    [[maybe_unused]] const int done =
        give ? ::ftruncate(file.get(), static_cast<off_t>(std::max<std::int64_t>(0, now.held - part)))
             : ::fallocate(file.get(), 0, 0, static_cast<off_t>(now.wanted));
}

std::int64_t DiskReserve::missing() const noexcept {
    const auto now = disk();
    return std::max<std::int64_t>(0, now.wanted - now.held);
}

void DiskReserve::needRoomToOpen() const {
    const auto now = disk();
    if (now.free < kLeastToOpen && now.wanted > 4 * kLeastToOpen)
        throw StorageFullError("the disk of " + path_.parent_path().string() +
                               " is full: " + std::to_string(now.free) + " bytes are free, and at least " +
                               std::to_string(kLeastToOpen) + " are needed to open the database");
}

}  // namespace tarnwell::service
