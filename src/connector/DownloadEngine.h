#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "connector/ConnectorEnvironment.h"
#include "connector/JournalReplay.h"
#include "connector/TWDownloadOperation.h"
#include "store/ManagedShare.h"
#include "store/StoreDelegates.h"

namespace tarnwell {

class ConnectorReachability;
class ConnectorSession;
class TaskGate;
struct DownloadSource;

/// File contents: the drive's range reads, the queue of whole downloads with the one worker behind it,
/// automatic downloads and expiry. The face of the download classes (DownloadQueue, DownloadWorker,
/// RangeReader, DownloadExpiry); each holds its own rules.
///
/// Threads: any, the store's lock may be held (except for downloadFileChunk). Order of locks: the store's,
/// then the queue's; nothing is called under the queue's.
class DownloadEngine final : public DownloadScheduler {
  public:
    /// First chunk of a download, and the least it falls back to.
    static constexpr std::uint32_t kBaseChunkSize = 131072;

    DownloadEngine(const ConnectorEnvironment& environment, ConnectorSession& session,
                   ConnectorReachability& reachability, TaskGate& gate);
    ~DownloadEngine() override;

    /// Starts the worker's thread.
    void start();
    /// Ends it. False when it was still running at the deadline.
    bool stop(std::chrono::milliseconds deadline);

    // The drive
    /// The bytes of [position, position + size), cut at the end of the file; none when they cannot be had.
    /// Never more, and never fewer. Blocks while the service is asked: an answer within about ten seconds of
    /// its last sign of life. REQUIRES: the caller does not hold the store's lock.
    [[nodiscard]] std::optional<std::string> downloadFileChunk(const TWVirtualFilePtr& file,
                                                               std::int64_t position, std::uint32_t size);
    /// True when the present contents are cached (TWMetadataStorage::holdsContents()), for an empty file, and
    /// for a file whose name keeps it out of synchronisation. Of the last kind those are excepted that the
    /// service has all the same: another device's dot file can be read.
    [[nodiscard]] bool isFileDownloaded(const TWVirtualFile& file) const;

    // The queue
    void addFileDownloadTask(const TWVirtualFilePtr& file, bool isAutomatic) override;
    /// As a request of the user, unless the contents are here already.
    void downloadFile(const TWVirtualFilePtr& file);
    void downloadFolder(const TWVirtualFile& folder);
    void downloadShare(const ManagedShare& share);
    void cancelFileDownload(const TWVirtualFilePtr& file);
    /// Takes the file from the queue and drops its partial data.
    void deleteFileDownload(const TWVirtualFilePtr& file) override;
    void deleteFileDownloadData(const TWVirtualFilePtr& file);
    /// Empty on purpose: queued downloads survive a logout.
    void cancelDownloads() {}
    [[nodiscard]] bool isFileDownloading(const TWVirtualFile& file, bool rightNow) override;
    [[nodiscard]] bool isFileInDownloadQueue(const TWVirtualFile& file);
    [[nodiscard]] bool hasDownloads() const;
    [[nodiscard]] std::int64_t downloadQueueLen() const;
    /// Whole sizes of the queued files, not what remains of them.
    [[nodiscard]] std::int64_t downloadQueueBytes() const;
    [[nodiscard]] std::vector<TWVirtualFilePtr> queuedFiles() const;
    /// `UploadName` of the file that the worker is at.
    [[nodiscard]] std::optional<std::string> downloadedFileId() const;

    // Housekeeping
    /// Queues what is to be kept locally and is not here. Works in the background.
    void checkAutomaticDownloads();
    /// Checks now and then every hour. Main thread.
    void performCheckDownloadsToDelete();
    /// Drops contents fetched longer ago than `hours`; -1: as the setting "storeFiles" says. Blocks on files.
    void checkDownloadsToDelete(int hours);
    void setJournalReplay(JournalReplay* replay);

    /// One due download, on the calling thread instead of the worker's. False when none is due.
    /// REQUIRES: start() was not called.
    bool runOneDownload();

  private:
    struct Parts;
    static bool deleteData(const DownloadSource& source);

    std::unique_ptr<Parts> parts_;
};

}  // namespace tarnwell
