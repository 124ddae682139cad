#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "connector/ChunkPipeline.h"
#include "connector/ConnectorEnvironment.h"
#include "connector/DownloadFiles.h"
#include "connector/DownloadQueue.h"

namespace tarnwell {

class ConnectorSession;
class FileDescriptor;

/// The one thread that works off the download queue: a file at a time, chunk by chunk, into the partial file,
/// which then moves to its place in the cache. An interrupted download goes on where its partial file ends.
/// A few chunks are on their way at once; they are written in order, so that what stands in the partial file
/// has no gaps.
///
/// Threads: start() and stop() from the main thread; the rest is the worker's own. It sleeps until a task is
/// due.
class DownloadWorker {
  public:
    static constexpr std::uint32_t kSmallestChunk = 131072;  ///< and the first one
    static constexpr std::uint32_t kLargestChunk = 2097152;

    DownloadWorker(const ConnectorEnvironment& environment, ConnectorSession& session, DownloadQueue& queue);
    ~DownloadWorker();

    void start();
    /// False when the thread was still at work at the deadline. Idempotent.
    bool stop(std::chrono::milliseconds deadline);

    /// Works off one due operation on the calling thread. False when none is due.
    /// REQUIRES: the worker's thread does not run.
    bool runOne();

    /// The chunk that follows one of `chunk` bytes at `speed` bytes per second: about a second's worth.
    [[nodiscard]] static std::uint32_t nextChunkSize(std::uint32_t chunk, double speed);

  private:
    void downloadFilesTaskWorker();
    bool downloadFileForOperation(TWDownloadOperation& operation);
    [[nodiscard]] bool isCurrent(const TWDownloadOperation& operation) const;
    [[nodiscard]] bool isHere(const TWDownloadOperation& operation) const;
    bool fetchChunks(TWDownloadOperation& operation, const DownloadSource& source,
                     const FileDescriptor& partial);
    bool keepChunk(TWDownloadOperation& operation, const DownloadSource& source,
                   const FileDescriptor& partial, const ChunkPipeline::Chunk& chunk);
    bool cancelled(TWDownloadOperation& operation, const DownloadSource& source);
    bool complete(TWDownloadOperation& operation, const DownloadSource& source,
                  const FileDescriptor& partial);
    void finished(const TWDownloadOperation& operation, std::optional<std::string> error);
    template <class Notification>
    void post(Notification notification);

    const ConnectorEnvironment& environment_;
    ConnectorSession& session_;
    DownloadQueue& queue_;

    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable ended_;
    bool running_ = false;  // guarded by mutex_
};

}  // namespace tarnwell
