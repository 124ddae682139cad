#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "store/TWVirtualFile.h"
#include "util/Date.h"

namespace tarnwell {

/// One queued download.
///
/// `file`, `uploadName` and `size` are constant; `taskDate` and `automaticDownload` belong to the queue's
/// lock; the atomics are how other threads talk to the worker that runs the operation.
struct TWDownloadOperation {
    TWVirtualFilePtr file;
    std::string uploadName;  ///< the version that was asked for; the record may have moved on since
    std::int64_t size = 0;   ///< of that version, in bytes
    Date taskDate{};         ///< not before this
    bool automaticDownload = false;

    std::atomic<std::int64_t> downloadedSize{
        0};                            ///< bytes in the partial file; what stands below is readable
    std::atomic<bool> delete_{false};  ///< discard the partial data when the download stops
    std::atomic<bool> cancel{false};   ///< stop after the current chunk
};

}  // namespace tarnwell
