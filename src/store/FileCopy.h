#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <system_error>

namespace tarnwell {

struct FileCopyResult {
    std::error_code error;       ///< operation_canceled when `cancelled` said so
    std::int64_t size = 0;       ///< of the copy
    bool sourceChanged = false;  ///< while it was copied: the copy may hold old bytes beside new ones
};

/// Bytes from which on a copy is synced. A smaller one is cheaper made again than waited for: after a loss of
/// power it may have the right size and not the bytes, so whoever finds one of an earlier run does not trust
/// it.
constexpr std::int64_t kSyncedCopy = std::int64_t{1} << 20U;

/// Copies the regular file that is open at `source` to `target`, which must not exist, and syncs it from
/// kSyncedCopy on. Shares blocks where the disk can, copies within the kernel otherwise; holes stay holes.
/// `cancelled` is asked every few megabytes. Nothing is left at `target` after an error. Any thread; blocks.
FileCopyResult copyFileContents(int source, const std::string& target,
                                const std::function<bool()>& cancelled);

/// Makes what was created, renamed or removed in a folder last.
void syncFolder(const std::string& path);

}  // namespace tarnwell
