#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "connector/DownloadFiles.h"
#include "platform/UrlLoader.h"

namespace tarnwell {

/// The requests of one download that are on their way at once, answered in the order of their asking, so that
/// the link is not idle for a round trip between two chunks.
///
/// Threads: one, blocking in next(). Owns the replies that nobody took yet: the chunks asked for, at most.
/// What is on its way when it is destroyed or drops it arrives at nobody.
class ChunkPipeline {
  public:
    struct Chunk {
        std::int64_t position = 0;
        std::uint32_t size = 0;
        UrlReply reply;
    };

    /// REQUIRES: `source.share` is set; both outlive this.
    ChunkPipeline(UrlLoader& loader, const DownloadSource& source) : loader_(loader), source_(source) {}

    void ask(std::int64_t position, std::uint32_t size);
    [[nodiscard]] std::size_t inFlight() const { return chunks_.size(); }
    /// Waits for the oldest. The loader answers every request, so the wait has an end.
    /// REQUIRES: one is in flight.
    [[nodiscard]] Chunk next();
    void drop() { chunks_.clear(); }

  private:
    struct Slot {
        std::mutex mutex;
        std::condition_variable filled;
        bool done = false;  // guarded by mutex, as the reply until then
        Chunk chunk;
    };

    UrlLoader& loader_;
    const DownloadSource& source_;
    std::deque<std::shared_ptr<Slot>> chunks_;
};

}  // namespace tarnwell
