#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "connector/Endpoints.h"
#include "connector/FileApi.h"
#include "connector/FileDescriptor.h"
#include "connector/UploadEngine.h"
#include "platform/BackgroundQueue.h"
#include "store/LocalJournal.h"

namespace tarnwell {

struct UrlReply;

/// One entry's contents on their way: announced (initiate), then sent in chunks from the upload copy.
///
///     fresh --initiate--> token, position 0 --chunks--> position grows --last chunk--> done
///       ^------------------ refused, damaged, too many time-outs ----------'
///
/// The entry keeps token and position, so that a later run goes on where this one ended; at most one chunk is
/// sent twice. While a chunk is on its way the next one is read and hashed: two chunks of memory, whatever
/// the size of the file.
///
/// Threads: its steps run one at a time on a queue of its own over the background pool; nothing waits for the
/// network there. It lives as long as a step or a request of it is under way, inside the connector's gate.
class Upload final : public std::enable_shared_from_this<Upload> {
  public:
    static constexpr std::int64_t kLargestChunk = 1'048'576;
    /// Of a chunk request. It grows with each time-out and never shrinks again during the upload.
    static constexpr std::chrono::seconds kFirstTimeout{60}, kTimeoutStep{30}, kLongestTimeout{150};
    /// Time-outs of one upload, over all its chunks, before it starts from the beginning.
    static constexpr int kMostTimeouts = 19;
    static constexpr std::chrono::milliseconds kPauseBeforeRetry{100};

    /// REQUIRES LOCK, the store's: takes a copy of the entry's file.
    Upload(const UploadEngine::Context& context, UploadEngine& engine, LocalJournalPtr entry,
           ShareAddress share);
    void start();

  private:
    struct Chunk {
        std::int64_t position = 0;
        std::string bytes, hash;
    };

    template <class Step>
    [[nodiscard]] auto step(Step run);

    void begin();
    bool openCopy();
    void initiate();
    bool hashContents();
    void initiated(const TWFileJournalResponse* response);
    void accepted(const TWFileJournalResponse& response);
    bool prepare(std::int64_t position);
    void sendChunk();
    void answered(const UrlReply& reply);
    void timedOut();
    void chunkAnswered(const std::string& body);
    void chunkStored();
    void complete();
    bool interrupted();
    void restart(bool hashAgain);
    void fail();
    void drop(const TWVirtualFilePtr& theirs = nullptr);
    template <class Notification>
    void post(Notification notification);

    // Constant after construction.
    const UploadEngine::Context context_;
    UploadEngine& engine_;
    const LocalJournalPtr entry_;  // fields are guarded by the store's lock
    const ShareAddress share_;
    const TWVirtualFilePtr file_;  // a copy, for notifications
    const std::string publicName_;

    // Steps only.
    SerialQueue queue_;
    std::optional<FileDescriptor> copy_;  // none: nothing but a name is sent
    std::int64_t size_ = 0;               // of the copy
    std::string token_;
    std::int64_t position_ = 0;
    std::int64_t startPosition_ = 0;
    std::int64_t length_ = 0;    // of the chunk on its way
    std::optional<Chunk> next_;  // read ahead
    std::chrono::seconds timeout_ = kFirstTimeout;
    int timeouts_ = 0;
    bool again_ = false;  // the chunk was sent before
    std::chrono::steady_clock::time_point sentAt_{};
    std::chrono::duration<double> spent_{0};
};

}  // namespace tarnwell
