#include "connector/DownloadWorker.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "connector/ConnectorSession.h"
#include "connector/FileDescriptor.h"
#include "connector/Notifications.h"
#include "connector/StoreQueries.h"
#include "platform/Clock.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "platform/UrlLoader.h"
#include "store/ContentVersion.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

constexpr std::chrono::seconds kRetryDelay{10};
/// Chunks of the largest size on their way at once: a link of 25 MB/s and 170 ms is busy with them.
constexpr std::size_t kDeepest = 3;
/// The clock may be set while the worker sleeps: it looks again at least this often.
constexpr std::chrono::milliseconds kLongestSleep{60'000};

}  // namespace

DownloadWorker::DownloadWorker(const ConnectorEnvironment& environment, ConnectorSession& session,
                               DownloadQueue& queue)
    : environment_(environment), session_(session), queue_(queue) {}

DownloadWorker::~DownloadWorker() {
    // A thread that outlasts this still uses the object: its own destructor then ends the process.
    stop(std::chrono::seconds(10));
}

void DownloadWorker::start() {
    const std::lock_guard lock(mutex_);
    if (thread_.joinable()) return;
    running_ = true;
    thread_ = std::thread([this] {
        ::pthread_setname_np(::pthread_self(), "tw-download");
        downloadFilesTaskWorker();
        const std::lock_guard done(mutex_);
        running_ = false;
        ended_.notify_all();
    });
}

bool DownloadWorker::stop(std::chrono::milliseconds deadline) {
    queue_.stop();
    {
        std::unique_lock lock(mutex_);
        if (!ended_.wait_for(lock, deadline, [this] { return !running_; })) return false;
    }
    if (thread_.joinable()) thread_.join();
    return true;
}

void DownloadWorker::downloadFilesTaskWorker() {
    std::uint64_t seen = 0;
    auto sleep = std::chrono::milliseconds::zero();
    while (queue_.wait(seen, sleep)) {
        try {
            if (runOne()) {
                sleep = std::chrono::milliseconds::zero();
                continue;
            }
            const auto due = queue_.nextDue();
            sleep = kLongestSleep;
            if (due) {
                const auto left =
                    std::chrono::ceil<std::chrono::milliseconds>(*due - environment_.clock.now());
                sleep = std::clamp(left, std::chrono::milliseconds::zero(), kLongestSleep);
            }
        } catch (const std::exception& error) {
            TWLog(kLogMain, "Error: download worker: %@", error.what());
            queue_.retryAt(environment_.clock.now() + kRetryDelay);
        }
    }
}

bool DownloadWorker::runOne() {
    const auto operation = queue_.take(environment_.clock.now());
    if (!operation) return false;
    const bool succeeded = downloadFileForOperation(*operation);
    // The record went away, or to another version, meanwhile: nobody will go on with these bytes.
    if (!succeeded && !isCurrent(*operation)) operation->cancel = operation->delete_ = true;
    if (operation->delete_) {
        const auto lock = environment_.store.beginReadStorage();
        const auto path = environment_.store.layout().downloadsCachePath() + "/" + operation->uploadName;
        ::unlink(path.c_str());
        TWLog(kLogMain, "deleteFileDownload: removed %@ from queue and cleaned up file",
              operation->file->PublicName.view());
    }
    if (!succeeded && !operation->cancel) {
        TWLog(kLogMain, "File %@ download failed - will try again later.", operation->uploadName);
        queue_.retryAt(environment_.clock.now() + kRetryDelay);
    } else {
        queue_.finish();
    }
    return true;
}

bool DownloadWorker::downloadFileForOperation(TWDownloadOperation& operation) {
    const auto source = downloadSource(environment_.store, operation.file);
    // Another version is queued for itself.
    if (!source || !isCurrent(operation)) return false;
    TWLog(kLogMain, "Starting file download : %@", source->publicName);
    if (!source->share) {
        std::string shareId;
        {
            const auto lock = environment_.store.beginReadStorage();
            shareId = operation.file->ShareId.str();
        }
        TWLog(kLogMain, "Warning! Attempt to download file from share %@, which is not found.", shareId);
        return false;
    }
    post(TWConnectorFileDownloadStarted{operation.file, queue_.bytes(),
                                        static_cast<std::int64_t>(queue_.size())});
    const FileDescriptor partial(::open(source->partialPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!partial) {
        const int error = errno;
        TWLog(kLogMain, "Error: failed to open download file for %@. Error %d", source->publicName, error);
        operation.cancel = true;
        finished(operation, "cannot open the download file");
        return false;
    }
    return fetchChunks(operation, *source, partial) && complete(operation, *source, partial);
}

bool DownloadWorker::isCurrent(const TWDownloadOperation& operation) const {
    const auto lock = environment_.store.beginReadStorage();
    const auto stored = environment_.store.fileWithId(operation.file->InternalName.view());
    return stored && stored->UploadName == operation.uploadName;
}

bool DownloadWorker::isHere(const TWDownloadOperation& operation) const {
    const auto lock = environment_.store.beginReadStorage();
    return isCurrent(operation) && environment_.store.holdsContents(*operation.file);
}

bool DownloadWorker::fetchChunks(TWDownloadOperation& operation, const DownloadSource& source,
                                 const FileDescriptor& partial) {
    struct stat status = {};
    std::int64_t position = ::fstat(partial.get(), &status) == 0 ? status.st_size : 0;
    if (position > source.size) {
        // Longer than the version can be: not its bytes.
        position = ::ftruncate(partial.get(), 0) == 0 ? 0 : position;
    }
    operation.downloadedSize = position;
    std::uint32_t chunk = kSmallestChunk;
    std::int64_t received = 0;
    const auto begin = std::chrono::steady_clock::now();
    ChunkPipeline pipeline(environment_.urlLoader, source);
    std::int64_t asked = position;
    while (position < source.size) {
        if (cancelled(operation, source)) return false;
        // The first chunk alone: until it is here, nobody knows how much is a second's worth. One at a time
        // beside readers, whose replies would queue behind the rest.
        const bool alone = received == 0 || queue_.readersAsk();
        const std::size_t depth = alone ? 1 : chunk < kLargestChunk ? 2 : kDeepest;
        while (asked < source.size && pipeline.inFlight() < depth) {
            const auto size = static_cast<std::uint32_t>(std::min<std::int64_t>(chunk, source.size - asked));
            TWLog(kLogMain, "Next download range of file %@ : (%lld, %d)", source.publicName, asked, size);
            pipeline.ask(asked, size);
            asked += size;
        }
        queue_.progressed(position, asked + chunk);
        const auto next = pipeline.next();
        const auto bytes = std::string_view(next.reply.body).substr(0, next.size);
        if (!keepChunk(operation, source, partial, next)) return false;
        position += static_cast<std::int64_t>(bytes.size());
        received += static_cast<std::int64_t>(bytes.size());
        if (bytes.size() < next.size) {
            // Those behind it do not continue what is here.
            pipeline.drop();
            asked = position;
        }
        queue_.progressed(position, asked + chunk);
        post(TWConnectorFileDownloadProgress{operation.file, position, queue_.bytes(),
                                             static_cast<std::int64_t>(queue_.size())});
        const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - begin;
        const double speed = static_cast<double>(received) / std::max(spent.count(), 1e-6);
        chunk = nextChunkSize(chunk, speed);
        session_.setLastDownloadSpeed(speed);
    }
    return !cancelled(operation, source);
}

bool DownloadWorker::keepChunk(TWDownloadOperation& operation, const DownloadSource& source,
                               const FileDescriptor& partial, const ChunkPipeline::Chunk& chunk) {
    const auto& reply = chunk.reply;
    const auto bytes = std::string_view(reply.body).substr(0, chunk.size);
    std::string error = reply.error;
    if (reply.succeeded() && bytes.empty()) error = "the reply is empty";
    if (reply.succeeded() && !bytes.empty() && !partial.writeAt(bytes, chunk.position)) {
        error = "cannot write the download file, error " + std::to_string(errno);
    }
    if (!error.empty() || reply.status != 200) {
        TWLog(kLogMain, "File %@ chunk (%lld, %u) download failed: %@, reply %d", source.publicName,
              chunk.position, chunk.size, errorText(error), reply.status);
        operation.cancel = true;
        finished(operation, error.empty() ? "HTTP status " + std::to_string(reply.status) : error);
        return false;
    }
    TWLog(kLogMain, "Downloaded %u from file %@", bytes.size(), source.publicName);
    return true;
}

std::uint32_t DownloadWorker::nextChunkSize(std::uint32_t chunk, double speed) {
    if (chunk < kLargestChunk && speed > chunk) return chunk * 2;
    if (chunk > kSmallestChunk && speed < chunk) return chunk / 2;
    return chunk;
}

bool DownloadWorker::cancelled(TWDownloadOperation& operation, const DownloadSource& source) {
    if (!operation.cancel) return false;
    if (isHere(operation)) {
        TWLog(kLogMain, "File %@ download cancelled, but file was already downloaded.", source.publicName);
    } else {
        TWLog(kLogMain, "File %@ download cancelled.", source.publicName);
    }
    if (operation.delete_) {
        TWLog(kLogMain,
              "File download cancelled and delete requested - cleaning up partial download. File %@",
              source.publicName);
        ::unlink(source.partialPath.c_str());
    }
    finished(operation, std::nullopt);
    return true;
}

bool DownloadWorker::complete(TWDownloadOperation& operation, const DownloadSource& source,
                              const FileDescriptor& partial) {
    auto result = InstallResult::kFailed;
    errno = ContentVersion::clean(source.uploadName).set(partial.get());
    // The version with the bytes.
    if (errno == 0 && ::fsync(partial.get()) == 0) {
        result = installContents(environment_.store, source, source.partialPath);
    } else {
        TWLog(kLogMain, "Error: failed to write download file %@. Error %d", source.partialPath, errno);
    }
    switch (result) {
        case InstallResult::kInstalled:
            finished(operation, std::nullopt);
            return true;
        case InstallResult::kOutdated:
            TWLog(kLogMain, "Warning! File %@ was downloaded, but after download seems to be deleted.",
                  source.publicName);
            ::unlink(source.partialPath.c_str());
            finished(operation, std::nullopt);
            return true;
        case InstallResult::kFailed:
            break;
    }
    operation.cancel = true;
    finished(operation, "cannot keep the downloaded file");
    return false;
}

void DownloadWorker::finished(const TWDownloadOperation& operation, std::optional<std::string> error) {
    post(TWConnectorFileDownloadFinished{operation.file, queue_.bytes(),
                                         static_cast<std::int64_t>(queue_.size()), std::move(error)});
}

template <class Notification>
void DownloadWorker::post(Notification notification) {
    environment_.mainLoop.async([&center = environment_.notifications,
                                 notification = std::move(notification)] { center.post(notification); });
}

}  // namespace tarnwell
