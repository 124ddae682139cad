#include "connector/RangeReadAhead.h"

#include <algorithm>

#include "connector/Endpoints.h"
#include "connector/TaskGate.h"
#include "platform/Clock.h"
#include "platform/UrlLoader.h"

namespace tarnwell {

namespace {

/// A little longer than a request can last.
constexpr std::chrono::seconds kLongestWait = endpoints::kRangeReadLimit + std::chrono::seconds(2);
/// Who waited this long for a block in vain does not wait once more.
constexpr std::chrono::seconds kPatience{5};
/// What the link delivers in this time is asked ahead.
constexpr double kAheadSeconds = 5;
/// A round trip tells nothing of the link's width.
constexpr double kLatencySeconds = 0.2;

}  // namespace

RangeReadAhead::RangeReadAhead(const ConnectorEnvironment& environment, TaskGate& gate)
    : environment_(environment), gate_(gate) {}

RangeReadAhead::Result RangeReadAhead::read(const DownloadSource& source, std::int64_t position,
                                            std::int64_t size, bool mayAsk) {
    std::vector<BlockPtr> wanted;
    std::vector<BlockPtr> asked;
    {
        const std::lock_guard lock(mutex_);
        const auto found = streams_.find(source.uploadName);
        if (stopped_ || found == streams_.end()) return {};
        wanted = covering(found->second, position, size);
        dropRead(found->second);
        if (mayAsk) asked = extend(found->second, source.size);
    }
    for (const auto& block : asked)
        send(source, block);
    if (wanted.empty()) return {};

    std::unique_lock lock(mutex_);
    const auto allDone = [&] {
        return std::ranges::all_of(wanted, [](const auto& block) { return block->done; });
    };
    const bool arrived = arrived_.wait_for(lock, kLongestWait, [&] { return stopped_ || allDone(); });
    if (!arrived || stopped_ ||
        std::ranges::any_of(wanted, [](const auto& block) { return block->failed; })) {
        streams_.erase(source.uploadName);
        const bool answered = arrived && !stopped_ && std::ranges::none_of(wanted, [](const auto& block) {
                                  return block->unanswered;
                              });
        return {.bytes = std::nullopt, .unanswered = !answered};
    }
    std::string bytes;
    bytes.reserve(static_cast<std::size_t>(size));
    for (const auto& block : wanted) {
        const std::int64_t from = std::max(position, block->position);
        const std::int64_t to = std::min(position + size, block->end());
        bytes.append(block->bytes, static_cast<std::size_t>(from - block->position),
                     static_cast<std::size_t>(to - from));
    }
    return {.bytes = std::move(bytes), .unanswered = false};
}

bool RangeReadAhead::note(const std::string& uploadName, std::int64_t position, std::int64_t size) {
    const std::lock_guard lock(mutex_);
    if (stopped_) return false;
    const Date now = environment_.clock.now();
    const bool isNew = !streams_.contains(uploadName);
    if (isNew && streams_.size() >= kMaximumStreams) {
        streams_.erase(
            std::ranges::min_element(streams_, {}, [](const auto& entry) { return entry.second.lastRead; }));
    }
    auto& stream = streams_[uploadName];
    stream.lastRead = now;
    if (position == stream.next) {
        stream.contiguous += size;
        stream.next = position + size;
    } else if (stream.blocks.empty() || position < stream.blocks.front()->position ||
               position >= stream.blocks.back()->end()) {
        // A jump. A read inside the blocks is none: several threads may share out one sequential read.
        stream.blocks.clear();
        stream.contiguous = size;
        stream.next = position + size;
    } else {
        stream.next = std::max(stream.next, position + size);
    }
    scheduleSweep();
    return stream.contiguous >= kSequential;
}

std::vector<RangeReadAhead::BlockPtr> RangeReadAhead::covering(const Stream& stream, std::int64_t position,
                                                               std::int64_t size) {
    if (stream.blocks.empty() || position < stream.blocks.front()->position ||
        position + size > stream.blocks.back()->end()) {
        return {};
    }
    std::vector<BlockPtr> found;
    for (const auto& block : stream.blocks) {
        if (block->end() > position && block->position < position + size) found.push_back(block);
    }
    return found;
}

void RangeReadAhead::dropRead(Stream& stream) {
    // The block before stays for a thread that is a little behind.
    while (!stream.blocks.empty() && stream.blocks.front()->end() + kBlock <= stream.next)
        stream.blocks.pop_front();
}

std::vector<RangeReadAhead::BlockPtr> RangeReadAhead::extend(Stream& stream, std::int64_t fileSize) {
    if (stream.contiguous < kSequential || stream.window < kBlock) return {};
    const std::int64_t ahead = std::min(stream.contiguous, stream.window);
    std::int64_t end =
        stream.blocks.empty() ? stream.next : std::max(stream.next, stream.blocks.back()->end());
    if (!stream.blocks.empty() && end > stream.blocks.back()->end()) stream.blocks.clear();
    std::vector<BlockPtr> asked;
    // Whole blocks only, so that a steady reader causes few requests, each of a good size.
    while (end < fileSize && end < stream.next + ahead) {
        auto block = std::make_shared<Block>();
        block->position = end;
        block->size = std::min(kBlock, fileSize - end);
        end = block->end();
        stream.blocks.push_back(block);
        asked.push_back(std::move(block));
    }
    return asked;
}

void RangeReadAhead::noteAnswer(const std::string& uploadName, std::int64_t bytes, TickDuration took) {
    const std::lock_guard lock(mutex_);
    adaptWindow(uploadName, bytes, took);
}

void RangeReadAhead::adaptWindow(const std::string& uploadName, std::int64_t bytes, TickDuration took) {
    const auto found = streams_.find(uploadName);
    if (found == streams_.end()) return;
    const double seconds = std::chrono::duration<double>(took).count() - kLatencySeconds;
    const double ahead = static_cast<double>(bytes) / std::max(seconds, 1e-6) * kAheadSeconds;
    found->second.window = static_cast<std::int64_t>(std::min(ahead, static_cast<double>(kLargestAhead)));
}

void RangeReadAhead::send(const DownloadSource& source, const BlockPtr& block) {
    environment_.urlLoader.sendAsynchronously(
        endpoints::rangeRead(*source.share, source.uploadName, block->position,
                             static_cast<std::uint32_t>(block->size)),
        environment_.background,
        gate_.guard([this, block, uploadName = source.uploadName,
                     asked = environment_.clock.now()](UrlReply reply) {
            const auto took = environment_.clock.now() - asked;
            const std::lock_guard lock(mutex_);
            adaptWindow(uploadName, static_cast<std::int64_t>(reply.body.size()), took);
            block->failed = !reply.succeeded() || static_cast<std::int64_t>(reply.body.size()) < block->size;
            block->unanswered = reply.status == 0 || (!reply.error.empty() && took >= kPatience);
            if (!block->failed) block->bytes = std::move(reply.body);
            block->done = true;
            arrived_.notify_all();
        }));
}

void RangeReadAhead::scheduleSweep() {
    if (sweepScheduled_) return;
    sweepScheduled_ = true;
    sweepTimer_ = environment_.mainLoop.postAfter(kIdle, gate_.guard([this] { sweep(); }));
}

void RangeReadAhead::sweep() {
    const std::lock_guard lock(mutex_);
    const Date now = environment_.clock.now();
    std::erase_if(streams_, [&](const auto& entry) {
        return now - entry.second.lastRead >= kIdle || entry.second.lastRead > now;
    });
    sweepScheduled_ = false;
    if (!streams_.empty()) scheduleSweep();
}

void RangeReadAhead::stop() {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    streams_.clear();
    sweepTimer_.cancel();
    arrived_.notify_all();
}

}  // namespace tarnwell
