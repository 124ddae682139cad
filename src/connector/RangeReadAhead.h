#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "connector/ConnectorEnvironment.h"
#include "connector/DownloadFiles.h"
#include "platform/RunLoop.h"
#include "util/Date.h"

namespace tarnwell {

class TaskGate;

/// Asks for what a sequential reader of an uncached file will want next, so that a link with latency is busy
/// while the reader is.
///
/// A file version that is read piece after piece is a stream. The stream asks ahead as much as was read in
/// one go so far, up to a window: a reader that stops costs at most as much again as it read, and one that
/// jumps about costs nothing. Contents never change under an upload name, so bytes that were fetched ahead
/// are never stale.
///
/// The window follows the link: what is asked ahead shares it with what the reader waits for, so no more is
/// asked than arrives in a few seconds, and nothing at all where one block would take longer.
///
/// Invariants:
/// 1. The blocks of a stream are contiguous and in order.
/// 2. At most kMaximumStreams streams hold at most kWindow bytes each, and none longer than kIdle after its
/// last read.
///
/// Threads: any. Own small lock; requests are sent without it. Errors: a block that failed ends its stream;
/// the reader then asks for itself.
class RangeReadAhead {
  public:
    static constexpr std::int64_t kBlock = 1 << 20;
    static constexpr std::int64_t kWindow = 8 * kBlock;
    /// Asked ahead at most; the rest of the window is what the reader is at.
    static constexpr std::int64_t kLargestAhead = kWindow - 3 * kBlock;
    static constexpr std::size_t kMaximumStreams = 8;
    /// Contiguous bytes that make a reader a sequential one.
    static constexpr std::int64_t kSequential = 256 << 10;
    static constexpr std::chrono::seconds kIdle{30};

    RangeReadAhead(const ConnectorEnvironment& environment, TaskGate& gate);

    struct Result {
        std::optional<std::string> bytes;  ///< none: the reader asks for itself,
        bool unanswered = false;           ///< unless nobody answers: it has waited long enough
    };
    /// Takes note of a read, wherever its bytes come from. True when it goes on sequentially.
    bool note(const std::string& uploadName, std::int64_t position, std::int64_t size);
    /// The bytes of a read that was noted, when they were asked for already; blocks until they arrive. Asks
    /// ahead for a sequential reader if it `mayAsk`. REQUIRES: the range lies within the file; `source.share`
    /// is set.
    [[nodiscard]] Result read(const DownloadSource& source, std::int64_t position, std::int64_t size,
                              bool mayAsk);
    /// Takes note of how long the reader's own request took.
    void noteAnswer(const std::string& uploadName, std::int64_t bytes, TickDuration took);
    /// Lets go those who wait. Later reads find nothing.
    void stop();

  private:
    struct Block {
        std::int64_t position = 0;
        std::int64_t size = 0;
        bool done = false;
        bool failed = false;
        bool unanswered = false;
        std::string bytes;

        [[nodiscard]] std::int64_t end() const { return position + size; }
    };
    using BlockPtr = std::shared_ptr<Block>;
    struct Stream {
        std::int64_t next = 0;        // where a sequential reader goes on
        std::int64_t contiguous = 0;  // bytes read in one go so far
        std::int64_t window = kLargestAhead;
        Date lastRead{};
        std::deque<BlockPtr> blocks;
    };

    static void dropRead(Stream& stream);
    static std::vector<BlockPtr> extend(Stream& stream, std::int64_t fileSize);
    static std::vector<BlockPtr> covering(const Stream& stream, std::int64_t position, std::int64_t size);
    void send(const DownloadSource& source, const BlockPtr& block);
    void adaptWindow(const std::string& uploadName, std::int64_t bytes, TickDuration took);
    void sweep();
    void scheduleSweep();

    const ConnectorEnvironment& environment_;
    TaskGate& gate_;

    std::mutex mutex_;
    std::condition_variable arrived_;
    // Guarded by mutex_, the blocks included.
    std::map<std::string, Stream> streams_;  // by upload name
    Timer sweepTimer_;
    bool sweepScheduled_ = false;
    bool stopped_ = false;
};

}  // namespace tarnwell
