#pragma once

#include <sys/uio.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "drive/Errno.h"

namespace tarnwell {

/// Writes all of it. The number of bytes that were written before an error, or the error of the first. With
/// `append` at the end of the file, as one step against every other writer.
inline ErrnoOr<std::size_t> writeAll(int descriptor, const char* buffer, std::size_t size,
                                     std::int64_t offset, bool append) {
    std::size_t done = 0;
    while (done < size) {
        iovec piece{const_cast<char*>(buffer) + done, size - done};  // NOLINT: writev reads only
        const auto count =
            ::pwritev2(descriptor, &piece, 1, offset + static_cast<off_t>(done), append ? RWF_APPEND : 0);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && done == 0) return Errno{errno};
        if (count <= 0) break;
        done += static_cast<std::size_t>(count);
    }
    return done;
}

}  // namespace tarnwell
