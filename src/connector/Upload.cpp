#include "connector/Upload.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "connector/ConnectorSession.h"
#include "connector/Notifications.h"
#include "connector/StoreQueries.h"
#include "connector/TaskGate.h"
#include "connector/Transmissions.h"
#include "connector/UploadFiles.h"
#include "platform/Clock.h"
#include "platform/NotificationCenter.h"
#include "platform/UrlLoader.h"
#include "store/LocalChangeJournal.h"
#include "store/TWMetadataStorage.h"
#include "util/RecordMapping.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

/// Answers of the file API.
enum InitiateCode { kAccepted = 1, kConflict = 2, kDuplicate = 3 };
enum ChunkCode { kStored = 0, kRefused = 1, kComplete = 2, kDamaged = 3 };

/// A speed is told when this much was spent on sending.
constexpr std::chrono::seconds kLeastMeasured{2};

}  // namespace

Upload::Upload(const UploadEngine::Context& context, UploadEngine& engine, LocalJournalPtr entry,
               ShareAddress share)
    : context_(context),
      engine_(engine),
      entry_(std::move(entry)),
      share_(std::move(share)),
      file_(std::make_shared<TWVirtualFile>(*entry_->File)),
      publicName_(file_->PublicName.str()),
      queue_(context.environment.background) {}

/// A task that runs a step inside the gate and keeps the upload alive until then. What the step throws makes
/// the upload one to be tried again.
template <class Step>
auto Upload::step(Step run) {
    return context_.gate.guard([self = shared_from_this(), run = std::move(run)](const auto&... arguments) {
        self->context_.transmissions.guarded(self->entry_, [&] { run(*self, arguments...); });
    });
}

template <class Notification>
void Upload::post(Notification notification) {
    const auto backlog = context_.environment.store.journal().backlog();
    notification.file = file_;
    notification.total = backlog.bytes;
    notification.queue = backlog.changes;
    context_.environment.mainLoop.async(
        [&center = context_.environment.notifications, notification = std::move(notification)] {
            center.post(notification);
        });
}

void Upload::start() {
    queue_.async(step([](Upload& upload) { upload.begin(); }));
}

void Upload::begin() {
    post(TWConnectorFileUploadStarted{});
    if (!openCopy()) return;
    bool resumes = false;
    {
        const auto lock = context_.environment.store.beginReadJournal();
        token_ = entry_->TransmitToken.str();
        position_ = entry_->UploadedSize.value_or(0);
        // The answer to the last chunk is never recorded: an entry that stands at the end is damaged.
        resumes = !token_.empty() && position_ >= 0 && position_ < size_;
    }
    if (!resumes) return initiate();
    startPosition_ = position_;
    sendChunk();
}

/// False when that ended the upload.
bool Upload::openCopy() {
    if (file_->UploadName.empty()) return true;
    auto& store = context_.environment.store;
    auto source = openUploadFileForReading(
        store, entry_, [this] { return context_.gate.closed() || context_.environment.store.terminating(); });
    struct stat status = {};
    if (source.state == UploadSource::State::kOpen && ::fstat(source.file.get(), &status) != 0) {
        source.state = UploadSource::State::kUnreadable;
        source.error = errno;
    }
    if (source.state != UploadSource::State::kOpen) {
        TWLog(kLogMain, "Upload request failed: %@, cannot open upload file for reading, error %d",
              publicName_, source.error);
        // A copy that is there and cannot be opened now may be opened later: it is all there is of a change.
        source.state == UploadSource::State::kNothingToSend ? drop(false) : fail();
        return false;
    }
    copy_.emplace(std::move(source.file));
    size_ = status.st_size;
    const auto change = store.beginLocalChange();
    if (source.renewed) {
        // Perhaps other bytes than those that were announced.
        entry_->TransmitToken.reset();
        entry_->UploadedSize.reset();
        entry_->FileHash.reset();
    }
    if (entry_->File->size() != size_ || source.renewed) {
        entry_->File->AllocationSize = entry_->File->EndOfFile = size_;
        store.journal().entryChanged(entry_);
    }
    return true;
}

void Upload::initiate() {
    if (interrupted()) return;
    position_ = 0;
    token_.clear();
    if (!hashContents()) return fail();
    const auto event = context_.api.createEventForJournal(*entry_, share_);
    context_.api.sendFileApiRequest(
        event, share_, queue_,
        step([](Upload& upload, const FileApi::ResponsePtr& response) { upload.initiated(response.get()); }));
}

/// A small file is read once: its hash is that of its only chunk, which is then at hand.
bool Upload::hashContents() {
    auto& store = context_.environment.store;
    {
        const auto lock = store.beginReadJournal();
        if (!entry_->FileHash.empty()) return true;
    }
    std::optional<std::string> hash;
    if (size_ == 0) {
        hash = UploadEngine::calculateChunkHash({});
    } else if (size_ > kLargestChunk) {
        hash = hashOfOpenFile(copy_->get(), [this] {
            return context_.gate.closed() || context_.environment.store.terminating();
        });
    } else if (prepare(0)) {
        hash = next_->hash;
    }
    if (!hash) {
        TWLog(kLogMain, "Upload request failed: %@, cannot read enough from upload file, error %d",
              publicName_, errno);
        return false;
    }
    const auto change = store.beginLocalChange();
    entry_->FileHash = *hash;
    // That of a large file is worth keeping: it cost a read of the whole.
    if (size_ > kLargestChunk) store.journal().entryChanged(entry_);
    return true;
}

void Upload::initiated(const TWFileJournalResponse* response) {
    if (!response) {
        TWLog(kLogMain, "Warning! Failing upload: cannot receive responce from the server. ");
        return fail();
    }
    switch (response->ResponseCode) {
        case kDuplicate: {
            const std::string theirs =
                response->TwVirtualFile ? response->TwVirtualFile->PublicName.str() : "";
            TWLog(kLogMain, "Duplicate detected during upload - renaming our file from %@ to %@.",
                  publicName_, theirs);
            context_.transmissions.takeServerName(entry_, theirs);
            return accepted(*response);
        }
        case kAccepted:
            return accepted(*response);
        case kConflict:
            TWLog(kLogMain, "Warning! cancelling upload of %@: got conflicted copy.", publicName_);
            return drop(true);
        default:
            TWLog(kLogMain, "Warning! Failed to initiate upload for the file %@ : responce code %d.",
                  publicName_, response->ResponseCode);
            return fail();
    }
}

void Upload::accepted(const TWFileJournalResponse& response) {
    token_ = response.TransmitToken.value_or("");
    if (size_ == 0) return complete();  // announced is all that there is to send
    if (token_.empty()) {
        TWLog(kLogMain, "Warning! Failed to initiate upload for the file %@ : responce code %d.", publicName_,
              response.ResponseCode);
        return fail();
    }
    {
        const auto change = context_.environment.store.beginLocalChange();
        entry_->TransmitToken = token_;
        entry_->UploadedSize = 0;
        context_.environment.store.journal().entryChanged(entry_);
    }
    sendChunk();
}

/// Reads and hashes the chunk at `position`; false with errno set.
bool Upload::prepare(std::int64_t position) {
    if (next_ && next_->position == position) return true;
    next_.reset();
    Chunk chunk;
    chunk.position = position;
    chunk.bytes.resize(static_cast<std::size_t>(std::min(kLargestChunk, size_ - position)));
    if (!readRange(copy_->get(), position, chunk.bytes)) return false;
    chunk.hash = UploadEngine::calculateChunkHash(chunk.bytes);
    next_ = std::move(chunk);
    return true;
}

void Upload::sendChunk() {
    if (interrupted()) return;
    if (!context_.transmissions.wanted(*entry_)) return fail();
    if (!prepare(position_)) {
        TWLog(kLogMain, "Upload request failed: %@, cannot read enough from upload file, error %d",
              publicName_, errno);
        return fail();
    }
    Chunk chunk = std::move(*next_);
    next_.reset();
    length_ = static_cast<std::int64_t>(chunk.bytes.size());
    if (again_) {
        TWLog(kLogMain,
              "Re-uploading chunk (%lld, %lld) of file %@ due to the previous request timeout or upload "
              "error. Try %d",
              position_, length_, publicName_, timeouts_);
    } else {
        TWLog(kLogMain, "Uploading chunk (%lld, %lld) of file %@", position_, length_, publicName_);
    }
    sentAt_ = std::chrono::steady_clock::now();
    context_.environment.urlLoader.sendAsynchronously(
        endpoints::fileApiChunk(share_, token_, position_, std::move(chunk.bytes), chunk.hash, timeout_),
        queue_, step([](Upload& upload, const UrlReply& reply) { upload.answered(reply); }));
    // While it is on its way. A failure shows when the chunk's turn comes.
    if (position_ + length_ < size_) (void)prepare(position_ + length_);
}

void Upload::answered(const UrlReply& reply) {
    if (interrupted()) return;
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - sentAt_;
    if (reply.error.empty() && reply.status == 200 && !reply.body.empty()) {
        again_ = false;
        spent_ += took;
        return chunkAnswered(reply.body);
    }
    if (reply.error.empty()) {
        TWLog(kLogMain,
              "Warning! No responce body for the file chunk upload API request. Retransmitting later. "
              "Responce : %@",
              "HTTP status " + std::to_string(reply.status));
        return fail();
    }
    if (reply.error == kTimedOut) return timedOut();
    TWLog(kLogMain, "Upload request error %d (%@). Scheduling retransmit of the file.", reply.status,
          reply.error);
    fail();
}

void Upload::timedOut() {
    TWLog(kLogMain, "Upload request timeout detected. Re-uploading.");
    if (timeout_ < kLongestTimeout) timeout_ += kTimeoutStep;
    if (++timeouts_ > kMostTimeouts) {
        TWLog(kLogMain,
              "Too many retransmits for the file %@. Moving it to the end of the queue and restarting "
              "upload.",
              publicName_);
        restart(false);
        return fail();
    }
    again_ = true;
    engine_.pause(kPauseBeforeRetry, [self = shared_from_this()] {
        self->queue_.async(self->step([](Upload& upload) { upload.sendChunk(); }));
    });
}

void Upload::chunkAnswered(const std::string& body) {
    std::string error;
    const auto response = parseRecord<TWFileChunkUploadResponse>(body, error);
    if (!response) {
        TWLog(kLogMain,
              "Warning! Cannot parse clientfileapi chunk upload responce, error %@. Responce is %@.", error,
              forLog(body));
        return fail();
    }
    switch (response->ResponseCode) {
        case kStored:
            return chunkStored();
        case kRefused:
            TWLog(kLogMain,
                  "Warning! File chunk upload failed. Resetting upload and moving it to the end of the "
                  "queue.");
            restart(true);
            return fail();
        case kComplete:
            return complete();
        case kDamaged:
            TWLog(kLogMain, "Warning! File being uploaded corrupted remotely. Restarting upload from 0.");
            restart(true);
            return fail();
        default:
            TWLog(kLogMain, "Warning! Unknown chunk upload responce code: %d.", response->ResponseCode);
            return fail();
    }
}

void Upload::chunkStored() {
    position_ += length_;
    if (spent_ >= kLeastMeasured) {
        context_.session.setLastUploadSpeed(static_cast<double>(position_ - startPosition_) / spent_.count());
    }
    if (position_ >= size_) {
        // All was taken, yet the service does not call it a file: what it has is not what we sent.
        TWLog(kLogMain, "Warning! Unknown chunk upload responce code: %d.", static_cast<int>(kStored));
        restart(true);
        return fail();
    }
    {
        const auto change = context_.environment.store.beginLocalChange();
        entry_->UploadedSize = position_;
        context_.environment.store.journal().entryChanged(entry_);
    }
    TWConnectorFileUploadProgress progress;
    progress.progress = position_;
    post(std::move(progress));
    sendChunk();
}

void Upload::complete() {
    auto& store = context_.environment.store;
    if (interrupted()) return;
    {
        const auto change = store.beginLocalChange();
        if (const auto live = store.fileWithId(file_->InternalName.view())) {
            live->DownloadDate = context_.environment.clock.now();
            store.markChanged(*live);
        }
    }
    context_.transmissions.deleteSucceededRequest(entry_);
    post(TWConnectorFileUploadFinished{});
    TWLog(kLogMain, "File upload succeeded.");
}

/// True when the program ends: the entry stays as it is.
bool Upload::interrupted() {
    if (!context_.environment.store.terminating()) return false;
    TWLog(kLogMain,
          "Upload interrupted due to the application termination. Will continue after the restart.");
    return true;
}

/// Back to the beginning: the next try announces the contents anew.
void Upload::restart(bool hashAgain) {
    const auto change = context_.environment.store.beginLocalChange();
    entry_->TransmitToken.reset();
    entry_->UploadedSize = 0;
    if (hashAgain) entry_->FileHash.reset();
    context_.environment.store.journal().entryChanged(entry_);
}

void Upload::fail() {
    if (interrupted()) return;
    context_.transmissions.retransmitRequest(entry_);
    TWConnectorFileUploadFinished finished;
    finished.error = true;
    post(std::move(finished));
}

void Upload::drop(bool keepContents) {
    if (interrupted()) return;
    context_.transmissions.deleteFailedRequest(entry_, keepContents);
    TWConnectorFileUploadFinished finished;
    finished.error = true;
    post(std::move(finished));
}

}  // namespace tarnwell
