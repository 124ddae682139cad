#include "connector/DownloadEngine.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "connector/ConnectorSession.h"
#include "connector/DownloadExpiry.h"
#include "connector/DownloadFiles.h"
#include "connector/DownloadQueue.h"
#include "connector/DownloadWorker.h"
#include "connector/RangeReader.h"
#include "connector/TaskGate.h"
#include "platform/Clock.h"
#include "platform/RunLoop.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"

namespace tarnwell {

struct DownloadEngine::Parts final : RangeReader::Delegate {
    Parts(DownloadEngine& owner, const ConnectorEnvironment& world, ConnectorSession& session,
          ConnectorReachability& reachability, TaskGate& door)
        : engine(owner),
          environment(world),
          gate(door),
          reader(world, session, reachability, queue, door, *this),
          worker(world, session, queue),
          expiry(world, session) {}

    void downloadFile(const TWVirtualFilePtr& file) override { engine.downloadFile(file); }
    void deleteFileDownload(const TWVirtualFilePtr& file) override { engine.deleteFileDownload(file); }

    DownloadEngine& engine;
    const ConnectorEnvironment& environment;
    TaskGate& gate;
    DownloadQueue queue;
    RangeReader reader;
    DownloadWorker worker;
    DownloadExpiry expiry;
    Timer nextExpiry;  // main thread
};

namespace {

constexpr std::chrono::hours kExpiryInterval{1};

}  // namespace

DownloadEngine::DownloadEngine(const ConnectorEnvironment& environment, ConnectorSession& session,
                               ConnectorReachability& reachability, TaskGate& gate)
    : parts_(std::make_unique<Parts>(*this, environment, session, reachability, gate)) {}

DownloadEngine::~DownloadEngine() = default;

void DownloadEngine::start() {
    parts_->expiry.removeLeftovers();
    parts_->worker.start();
}

bool DownloadEngine::stop(std::chrono::milliseconds deadline) {
    parts_->nextExpiry.cancel();
    parts_->reader.stop();
    return parts_->worker.stop(deadline);
}

std::optional<std::string> DownloadEngine::downloadFileChunk(const TWVirtualFilePtr& file,
                                                             std::int64_t position, std::uint32_t size) {
    const auto pass = parts_->gate.enter();
    if (!pass) return std::nullopt;
    return parts_->reader.read(file, position, size);
}

bool DownloadEngine::isFileDownloaded(const TWVirtualFile& file) const {
    const auto& store = parts_->environment.store;
    const auto lock = store.beginReadStorage();
    return (takesNoPart(file) && file.UploadUrl.empty()) || store.holdsContents(file);
}

// The queue

void DownloadEngine::addFileDownloadTask(const TWVirtualFilePtr& file, bool isAutomatic) {
    {
        const auto lock = parts_->environment.store.beginReadStorage();
        if (takesNoPart(*file)) return;
    }
    const auto source = downloadSource(parts_->environment.store, file);
    if (!source) return;
    auto operation = std::make_shared<TWDownloadOperation>();
    operation->file = file;
    operation->uploadName = source->uploadName;
    operation->size = source->size;
    operation->taskDate = parts_->environment.clock.now();
    operation->automaticDownload = isAutomatic;
    if (parts_->queue.add(operation)) {
        TWLog(kLogMain, "Adding download task for %@ : already have it in queue, automaticDownload=%d",
              source->publicName, isAutomatic);
    } else {
        TWLog(kLogMain, "Added download task for %@. automaticDownload=%d", source->publicName, isAutomatic);
    }
}

void DownloadEngine::downloadFile(const TWVirtualFilePtr& file) {
    if (!isFileDownloaded(*file)) addFileDownloadTask(file, false);
}

void DownloadEngine::downloadFolder(const TWVirtualFile& folder) {
    for (const auto& file : parts_->environment.store.allSiblings(folder, false))
        downloadFile(file);
}

void DownloadEngine::downloadShare(const ManagedShare& share) {
    for (const auto& file : parts_->environment.store.allShareSiblings(share, false))
        downloadFile(file);
}

void DownloadEngine::cancelFileDownload(const TWVirtualFilePtr& file) {
    const auto source = downloadSource(parts_->environment.store, file);
    if (!source) return;
    switch (parts_->queue.cancel(source->uploadName, false)) {
        case DownloadQueue::Removal::kRunning:
            TWLog(kLogMain, "cancelFileDownload: %@ is being downloaded, so signaling to the worker.",
                  source->publicName);
            break;
        case DownloadQueue::Removal::kRemoved:
            TWLog(kLogMain, "cancelFileDownload: removed %@ from queue", source->publicName);
            break;
        case DownloadQueue::Removal::kAbsent:
            break;
    }
}

void DownloadEngine::deleteFileDownload(const TWVirtualFilePtr& file) {
    const auto source = downloadSource(parts_->environment.store, file);
    if (!source) return;
    const auto removal = parts_->queue.cancel(source->uploadName, true);
    if (removal == DownloadQueue::Removal::kRunning) {
        TWLog(kLogMain, "deleteFileDownload: %@ is being downloaded, so signaling to the worker.",
              source->publicName);
        return;
    }
    // A merge asks this for every record that it touches; most were never downloaded, and make no line.
    const bool hadData = deleteData(*source);
    if (hadData || removal == DownloadQueue::Removal::kRemoved) {
        TWLog(kLogMain, "deleteFileDownload: removed %@ from queue and cleaned up file", source->publicName);
    }
}

void DownloadEngine::deleteFileDownloadData(const TWVirtualFilePtr& file) {
    if (const auto source = downloadSource(parts_->environment.store, file)) deleteData(*source);
}

bool DownloadEngine::deleteData(const DownloadSource& source) {
    if (::unlink(source.partialPath.c_str()) == 0) return true;
    if (errno != ENOENT) {
        TWLog(kLogMain, "Warning! Cannot delete file data for file %@. Error %@", source.publicName,
              std::strerror(errno));
    }
    return false;
}

bool DownloadEngine::isFileDownloading(const TWVirtualFile& file, bool rightNow) {
    std::string uploadName;
    {
        const auto lock = parts_->environment.store.beginReadStorage();
        if (!file.IsFile || file.UploadName.empty()) return false;
        uploadName = file.UploadName.str();
    }
    if (!rightNow) return parts_->queue.contains(uploadName);
    const auto running = parts_->queue.running();
    return running && running->uploadName == uploadName;
}

bool DownloadEngine::isFileInDownloadQueue(const TWVirtualFile& file) {
    return isFileDownloading(file, false);
}

bool DownloadEngine::hasDownloads() const {
    return parts_->queue.size() > 0;
}

std::int64_t DownloadEngine::downloadQueueLen() const {
    return static_cast<std::int64_t>(parts_->queue.size());
}

std::int64_t DownloadEngine::downloadQueueBytes() const {
    return parts_->queue.bytes();
}

std::vector<TWVirtualFilePtr> DownloadEngine::queuedFiles() const {
    return parts_->queue.files();
}

std::optional<std::string> DownloadEngine::downloadedFileId() const {
    const auto running = parts_->queue.running();
    if (!running) return std::nullopt;
    return running->uploadName;
}

bool DownloadEngine::runOneDownload() {
    return parts_->worker.runOne();
}

// Housekeeping

void DownloadEngine::checkAutomaticDownloads() {
    parts_->environment.background.async(parts_->gate.guard([this] {
        auto& store = parts_->environment.store;
        std::vector<TWVirtualFilePtr> wanted;
        {
            const auto lock = store.beginReadStorage();
            for (const auto& file : store.allFiles()) {
                if (file->IsFile && store.isFileSynchronized(file)) wanted.push_back(file);
            }
        }
        for (const auto& file : wanted) {
            if (store.terminating()) return;
            if (!isFileDownloaded(*file)) addFileDownloadTask(file, true);
        }
    }));
}

void DownloadEngine::performCheckDownloadsToDelete() {
    parts_->environment.background.async(parts_->gate.guard([this] { checkDownloadsToDelete(-1); }));
    parts_->nextExpiry = parts_->environment.mainLoop.postAfter(
        kExpiryInterval, parts_->gate.guard([this] { performCheckDownloadsToDelete(); }));
}

void DownloadEngine::checkDownloadsToDelete(int hours) {
    parts_->expiry.checkDownloadsToDelete(hours);
}

void DownloadEngine::setJournalReplay(JournalReplay* replay) {
    parts_->expiry.setJournalReplay(replay);
}

}  // namespace tarnwell
