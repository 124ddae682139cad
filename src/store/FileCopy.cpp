#include "store/FileCopy.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "platform/LocalSocket.h"

namespace tarnwell {

namespace {

/// Between two questions whether the copy is still wanted.
constexpr std::int64_t kPiece = std::int64_t{16} << 20U;
constexpr std::size_t kBuffer = std::size_t{1} << 20U;
/// Up to here a read and a write cost less than asking the kernel to share or move blocks.
constexpr std::int64_t kSmall = std::int64_t{64} << 10U;

std::error_code systemError(int code) {
    return {code, std::generic_category()};
}

bool sameVersion(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec && a.st_ctim.tv_sec == b.st_ctim.tv_sec &&
           a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

/// Kernel and disk cannot copy between these two descriptors themselves.
bool needsPlainCopy(int code) {
    return code == EXDEV || code == EINVAL || code == ENOSYS || code == EOPNOTSUPP || code == EPERM ||
           code == EBADF || code == ETXTBSY;
}

class Copy {
  public:
    Copy(int source, int target, const std::function<bool()>& cancelled)
        : source_(source), target_(target), cancelled_(cancelled) {}

    /// 0 or errno.
    int run(std::int64_t size) {
        if (size <= kSmall) {
            plain_ = true;
            return copyRange(0, size);
        }
        if (::ioctl(target_, FICLONE, source_) == 0) return 0;
        for (std::int64_t at = 0; at < size;) {
            const std::int64_t data = ::lseek(source_, at, SEEK_DATA);
            if (data < 0 && errno == ENXIO) break;
            // A disk that knows no holes has data everywhere.
            const std::int64_t from = data < 0 ? at : data;
            const std::int64_t hole = data < 0 ? size : ::lseek(source_, from, SEEK_HOLE);
            const std::int64_t to = hole < 0 ? size : std::min(hole, size);
            if (const int code = copyRange(from, to)) return code;
            at = std::max(to, from + 1);
        }
        return ::ftruncate(target_, size) == 0 ? 0 : errno;
    }

  private:
    int copyRange(std::int64_t from, std::int64_t to) {
        while (from < to) {
            if (cancelled_()) return ECANCELED;
            const auto piece = static_cast<std::size_t>(std::min(kPiece, to - from));
            const ssize_t copied = plain_ ? copyPlain(from, piece) : copyInKernel(from, piece);
            if (copied < 0 && errno == EINTR) continue;
            if (copied < 0 && !plain_ && needsPlainCopy(errno)) {
                plain_ = true;
                continue;
            }
            if (copied < 0) return errno;
            // The source became shorter; the caller sees that it changed.
            if (copied == 0) return 0;
            from += copied;
        }
        return 0;
    }

    ssize_t copyInKernel(std::int64_t at, std::size_t size) const {
        loff_t in = at;
        loff_t out = at;
        return ::copy_file_range(source_, &in, target_, &out, size, 0);
    }

    ssize_t copyPlain(std::int64_t at, std::size_t size) {
        buffer_.resize(std::min(size, kBuffer));
        const ssize_t count = ::pread(source_, buffer_.data(), buffer_.size(), at);
        if (count <= 0) return count;
        return ::pwrite(target_, buffer_.data(), static_cast<std::size_t>(count), at);
    }

    const int source_, target_;
    const std::function<bool()>& cancelled_;
    bool plain_ = false;
    std::vector<char> buffer_;
};

}  // namespace

FileCopyResult copyFileContents(int source, const std::string& target,
                                const std::function<bool()>& cancelled) {
    FileCopyResult result;
    struct stat before {};
    if (::fstat(source, &before) != 0) {
        result.error = systemError(errno);
        return result;
    }
    if (!S_ISREG(before.st_mode)) {
        result.error = systemError(S_ISDIR(before.st_mode) ? EISDIR : EINVAL);
        return result;
    }
    const OwnedDescriptor out(
        ::open(target.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (out.get() < 0) {
        result.error = systemError(errno);
        return result;
    }
    int code = Copy(source, out.get(), cancelled).run(before.st_size);
    struct stat after {};
    struct stat made {};
    if (code == 0 && (::fstat(source, &after) != 0 || ::fstat(out.get(), &made) != 0)) code = errno;
    if (code == 0 && made.st_size >= kSyncedCopy && ::fsync(out.get()) != 0) code = errno;
    if (code != 0) {
        ::unlink(target.c_str());
        result.error = systemError(code);
        return result;
    }
    result.size = made.st_size;
    result.sourceChanged = !sameVersion(before, after);
    return result;
}

void syncFolder(const std::string& path) {
    const OwnedDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() >= 0) ::fsync(folder.get());
}

}  // namespace tarnwell
