#include "connector/ChunkPipeline.h"

#include <utility>

namespace tarnwell {

namespace {

/// Taking a reply is a move and a wake-up: the loader's own thread can do that.
class OnLoaderThread final : public Executor {
  public:
    void async(std::function<void()> task) override { task(); }
};

}  // namespace

void ChunkPipeline::ask(std::int64_t position, std::uint32_t size) {
    static OnLoaderThread onLoaderThread;
    auto slot = std::make_shared<Slot>();
    slot->chunk.position = position;
    slot->chunk.size = size;
    chunks_.push_back(slot);
    loader_.sendAsynchronously(
        endpoints::read(*source_.share, source_.uploadName, position, size, endpoints::kDownloadTimeout),
        onLoaderThread, [slot](UrlReply reply) {
            const std::lock_guard lock(slot->mutex);
            slot->chunk.reply = std::move(reply);
            slot->done = true;
            slot->filled.notify_one();
        });
}

ChunkPipeline::Chunk ChunkPipeline::next() {
    const auto slot = std::move(chunks_.front());
    chunks_.pop_front();
    std::unique_lock lock(slot->mutex);
    slot->filled.wait(lock, [&] { return slot->done; });
    return std::move(slot->chunk);
}

}  // namespace tarnwell
