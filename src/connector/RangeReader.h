#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "connector/ConnectorEnvironment.h"
#include "connector/DownloadFiles.h"
#include "connector/RangeReadAhead.h"
#include "util/Date.h"

namespace tarnwell {

class ConnectorReachability;
class ConnectorSession;
class DownloadQueue;
class TaskGate;

/// The drive's reads of contents that are not in the cache: one range at once, without waiting for the queue.
///
/// A small file is fetched whole, once however many readers ask, and is in the cache when they are answered;
/// the sync, without which it does not count beyond this run, follows in the background. Of a larger one
/// exactly the range is fetched, and the whole file is queued for the worker. A sequential reader follows the
/// worker where that one is, or is about to be, so that the bytes come over the link once; elsewhere it is
/// asked ahead for.
///
/// A gateway that let a reader wait for the whole time-out is not asked again for a few seconds, so that a
/// program that reads on does not wait at every block. One that refuses at once costs nothing and is asked
/// each time.
///
/// Threads: any, blocking; not with the store's lock held. Own small lock.
class RangeReader {
  public:
    static constexpr std::int64_t kSmallFile = 262144;  ///< bytes; up to here a file is fetched whole

    /// What the reader asks of the queue's owner. Any thread, no lock held.
    struct Delegate {
        virtual ~Delegate() = default;
        virtual void downloadFile(const TWVirtualFilePtr& file) = 0;
        virtual void deleteFileDownload(const TWVirtualFilePtr& file) = 0;
    };

    RangeReader(const ConnectorEnvironment& environment, ConnectorSession& session,
                ConnectorReachability& reachability, DownloadQueue& queue, TaskGate& gate,
                Delegate& delegate);

    /// The bytes [position, position + size), cut at the end of the file; none when they cannot be had.
    [[nodiscard]] std::optional<std::string> read(const TWVirtualFilePtr& file, std::int64_t position,
                                                  std::uint32_t size);

    /// Lets go those who wait for bytes asked ahead; the rest waits for the loader.
    void stop();

  private:
    using Bytes = std::shared_ptr<const std::string>;
    /// A small file on its way.
    struct Flight {
        bool answered = false;
        Bytes bytes;  // null: failed
    };
    using FlightPtr = std::shared_ptr<Flight>;

    std::optional<std::string> fromPartial(const DownloadSource& source, std::int64_t position,
                                           std::int64_t size);
    static std::optional<std::string> fromDisk(const DownloadSource& source, std::int64_t position,
                                               std::int64_t size);
    Bytes wholeFile(const DownloadSource& source);
    Bytes fetchWholeFile(const DownloadSource& source);
    void keep(const DownloadSource& source, const std::string& bytes);
    void sync(const std::shared_ptr<const FileDescriptor>& file, const std::string& uploadName);
    void land(const std::string& uploadName, const FlightPtr& flight, Bytes bytes);
    std::optional<std::string> range(const DownloadSource& source, std::int64_t position, std::int64_t size,
                                     bool sequential);
    std::optional<std::string> fetch(const DownloadSource& source, std::int64_t position, std::int64_t size);

    bool isSilent(const std::string& gateway);
    void noteAnswer(const std::string& gateway, bool answered, Date asked);

    const ConnectorEnvironment& environment_;
    ConnectorSession& session_;
    ConnectorReachability& reachability_;
    DownloadQueue& queue_;
    TaskGate& gate_;
    Delegate& delegate_;
    RangeReadAhead readAhead_;

    std::mutex mutex_;
    std::condition_variable answered_;
    std::map<std::string, FlightPtr> flights_;  // by `UploadName`; guarded by mutex_, as all below
    std::size_t unsynced_ = 0;                  // files that wait for the disk
    std::map<std::string, Date> silentSince_;   // by gateway
};

}  // namespace tarnwell
