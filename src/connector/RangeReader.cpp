#include "connector/RangeReader.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "connector/ConnectorReachability.h"
#include "connector/ConnectorSession.h"
#include "connector/DownloadQueue.h"
#include "connector/StoreQueries.h"
#include "connector/TaskGate.h"
#include "platform/Clock.h"
#include "platform/Executor.h"
#include "platform/UrlLoader.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

/// Waiting this long without an answer makes a gateway a silent one, for as long again.
constexpr std::chrono::seconds kSilence{5};
/// Small files that may wait for the disk at once: 16 MB. Beyond, their readers wait for it.
constexpr std::size_t kMaximumUnsynced = 64;
/// A reader waits this long for another one's request for the same small file.
constexpr std::chrono::seconds kLongestWait = endpoints::kRangeReadLimit + std::chrono::seconds(2);
/// A chunk of the worker takes about a second; one that follows it and sees none for longer asks for itself.
constexpr std::chrono::seconds kPatience{3};
/// A service that answers a range piecemeal is asked for the rest this often.
constexpr int kMaximumPieces = 8;

}  // namespace

RangeReader::RangeReader(const ConnectorEnvironment& environment, ConnectorSession& session,
                         ConnectorReachability& reachability, DownloadQueue& queue, TaskGate& gate,
                         Delegate& delegate)
    : environment_(environment),
      session_(session),
      reachability_(reachability),
      queue_(queue),
      gate_(gate),
      delegate_(delegate),
      readAhead_(environment, gate) {}

void RangeReader::stop() {
    readAhead_.stop();
}

std::optional<std::string> RangeReader::read(const TWVirtualFilePtr& file, std::int64_t position,
                                             std::uint32_t size) {
    if (position < 0) return std::nullopt;
    {
        const auto lock = environment_.store.beginReadStorage();
        if (size == 0 || position >= file->size()) return std::string();
    }
    const auto source = downloadSource(environment_.store, file);
    if (!source || position >= source->size) return std::nullopt;
    const std::int64_t wanted = std::min<std::int64_t>(size, source->size - position);
    const bool small = source->size <= kSmallFile;
    const bool sequential = !small && readAhead_.note(source->uploadName, position, wanted);
    if (auto bytes = fromPartial(*source, position, wanted)) return bytes;

    // A small file is here whole in a moment; queueing it first would only have the worker fetch it as well.
    const auto queueIt = [&] {
        const auto queued = queue_.find(source->uploadName);
        if (!queued || queued != queue_.running()) delegate_.downloadFile(file);
    };
    if (!small) queueIt();
    if (!source->share || !reachability_.internetReachable() || isSilent(source->share->gateWayUrl)) {
        if (small) queueIt();
        return std::nullopt;
    }
    if (!small) return range(*source, position, wanted, sequential);

    const Bytes whole = wholeFile(*source);
    if (!whole) queueIt();
    if (!whole || static_cast<std::int64_t>(whole->size()) < position + wanted) return std::nullopt;
    return whole->substr(static_cast<std::size_t>(position), static_cast<std::size_t>(wanted));
}

std::optional<std::string> RangeReader::fromPartial(const DownloadSource& source, std::int64_t position,
                                                    std::int64_t size) {
    const auto running = queue_.running();
    if (!running || running->uploadName != source.uploadName) return std::nullopt;
    if (running->downloadedSize < position + size) return std::nullopt;
    return fromDisk(source, position, size);
}

std::optional<std::string> RangeReader::fromDisk(const DownloadSource& source, std::int64_t position,
                                                 std::int64_t size) {
    if (auto bytes = readFileRange(source.partialPath, position, size)) return bytes;
    // The download ended this moment and the file moved.
    return readVersionRange(source.cachePath, source.uploadName, position, size);
}

// Small files

RangeReader::Bytes RangeReader::wholeFile(const DownloadSource& source) {
    FlightPtr flight;
    {
        std::unique_lock lock(mutex_);
        if (const auto found = flights_.find(source.uploadName); found != flights_.end()) {
            flight = found->second;
            answered_.wait_for(lock, kLongestWait, [&] { return flight->answered; });
            return flight->bytes;
        }
        flight = std::make_shared<Flight>();
        flights_[source.uploadName] = flight;
    }
    Bytes bytes;
    try {
        // Another reader's request may have ended between this reader's look at the cache and now.
        if (auto cached = readVersionRange(source.cachePath, source.uploadName, 0, source.size)) {
            bytes = std::make_shared<const std::string>(std::move(*cached));
        } else {
            bytes = fetchWholeFile(source);
            // Before the answer: what a program does next with the file finds its contents here.
            if (bytes && static_cast<std::int64_t>(bytes->size()) == source.size) keep(source, *bytes);
        }
    } catch (...) {
        land(source.uploadName, flight, nullptr);
        throw;
    }
    land(source.uploadName, flight, bytes);
    return bytes;
}

RangeReader::Bytes RangeReader::fetchWholeFile(const DownloadSource& source) {
    TWLog(kLogMain, "downloadFileChunk: decided to download the whole file %@", source.publicName);
    auto bytes = fetch(source, 0, source.size);
    if (!bytes) return nullptr;
    if (static_cast<std::int64_t>(bytes->size()) != source.size) {
        TWLog(kLogMain, "Warning! Asked for %lld bytes of file %@, received %lld.", source.size,
              source.publicName, static_cast<std::int64_t>(bytes->size()));
    }
    return std::make_shared<const std::string>(std::move(*bytes));
}

void RangeReader::keep(const DownloadSource& source, const std::string& bytes) {
    // Not the worker's partial file: that may be growing at this moment.
    const std::string path =
        appendPathComponent(environment_.store.layout().downloadsCachePath(), "whole-" + generateGUID());
    const auto file = std::make_shared<const FileDescriptor>(writeUnsynced(path, bytes, source.uploadName));
    if (!*file) return;
    if (installContents(environment_.store, source, path) != InstallResult::kInstalled) {
        ::unlink(path.c_str());
        return;
    }
    delegate_.deleteFileDownload(source.file);
    bool later = false;
    {
        const std::lock_guard lock(mutex_);
        later = unsynced_ < kMaximumUnsynced;
        ++unsynced_;
    }
    auto run = [this, file, uploadName = source.uploadName] { sync(file, uploadName); };
    if (later)
        environment_.background.async(gate_.guard(std::move(run)));
    else
        run();
}

void RangeReader::sync(const std::shared_ptr<const FileDescriptor>& file, const std::string& uploadName) {
    syncContents(environment_.store, *file, uploadName);
    const std::lock_guard lock(mutex_);
    --unsynced_;
}

void RangeReader::land(const std::string& uploadName, const FlightPtr& flight, Bytes bytes) {
    const std::lock_guard lock(mutex_);
    flight->answered = true;
    flight->bytes = std::move(bytes);
    if (const auto found = flights_.find(uploadName); found != flights_.end() && found->second == flight) {
        flights_.erase(found);
    }
    answered_.notify_all();
}

// Ranges of larger files

std::optional<std::string> RangeReader::range(const DownloadSource& source, std::int64_t position,
                                              std::int64_t size, bool sequential) {
    const auto domain = session_.domainWithId(source.share->domainId);
    if (!reachability_.domainReachable(domain)) {
        TWLog(kLogMain, "downloadFileChunk: domain %@ is not reachable.",
              domain ? domain->Url.value_or("(null)") : source.share->domainId);
        return std::nullopt;
    }
    const Date asked = environment_.clock.now();
    // Where the worker arrives within about a second nothing is asked for twice. With less than twice the
    // range between them, asking for it beside the worker, at half of the link each, would not be faster
    // either.
    const auto secondsWorth = static_cast<std::int64_t>(
        std::min(session_.lastDownloadSpeed(), static_cast<double>(RangeReadAhead::kWindow)));
    const bool comes = sequential && queue_.comes(source.uploadName, position + size,
                                                  std::max<std::int64_t>(2 * size, secondsWorth));
    auto ahead = readAhead_.read(source, position, size, !comes);
    if (ahead.bytes) return std::move(ahead.bytes);
    if (comes && queue_.waitForBytes(source.uploadName, position + size, kPatience)) {
        if (auto bytes = fromDisk(source, position, size)) return bytes;
    }
    if (ahead.unanswered) {
        noteAnswer(source.share->gateWayUrl, false, asked);
        return std::nullopt;
    }
    queue_.noteRangeRead();
    TWLog(kLogMain, "downloadFileChunk: sending request to download chunk (%lld, %d) of %@.", position, size,
          source.publicName);
    const auto begin = std::chrono::steady_clock::now();
    std::string bytes;
    for (int piece = 0; piece < kMaximumPieces; ++piece) {
        const Date sent = environment_.clock.now();
        auto reply = fetch(source, position + static_cast<std::int64_t>(bytes.size()),
                           size - static_cast<std::int64_t>(bytes.size()));
        if (!reply || reply->empty()) return std::nullopt;
        readAhead_.noteAnswer(source.uploadName, static_cast<std::int64_t>(reply->size()),
                              environment_.clock.now() - sent);
        if (bytes.empty())
            bytes = std::move(*reply);
        else
            bytes += *reply;
        const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
        if (static_cast<std::int64_t>(bytes.size()) < size) {
            if (seconds > endpoints::kRangeReadLimit) return std::nullopt;
            continue;
        }
        TWLog(kLogMain, "downloadFileChunk: succeded download of %@, downloaded %d bytes in %f seconds",
              source.publicName, bytes.size(), seconds.count());
        return bytes;
    }
    return std::nullopt;
}

std::optional<std::string> RangeReader::fetch(const DownloadSource& source, std::int64_t position,
                                              std::int64_t size) {
    const Date asked = environment_.clock.now();
    auto reply = environment_.urlLoader.sendSynchronously(
        endpoints::rangeRead(*source.share, source.uploadName, position, static_cast<std::uint32_t>(size)));
    // A reply that began and never ended is silence, too.
    noteAnswer(source.share->gateWayUrl, reply.error.empty(), asked);
    if (!reply.succeeded()) {
        TWLog(kLogMain, "Warning! Reading (%lld, %d) of %@ failed: %@, HTTP status code: %d", position, size,
              source.publicName, errorText(reply.error), reply.status);
        return std::nullopt;
    }
    // What goes past the range belongs to nobody's read.
    if (static_cast<std::int64_t>(reply.body.size()) > size)
        reply.body.resize(static_cast<std::size_t>(size));
    return std::move(reply.body);
}

bool RangeReader::isSilent(const std::string& gateway) {
    const Date now = environment_.clock.now();
    const std::lock_guard lock(mutex_);
    const auto found = silentSince_.find(gateway);
    if (found == silentSince_.end()) return false;
    // A clock that was set back ends the silence, too.
    if (now >= found->second && now < found->second + kSilence) return true;
    silentSince_.erase(found);
    return false;
}

void RangeReader::noteAnswer(const std::string& gateway, bool answered, Date asked) {
    const Date now = environment_.clock.now();
    const std::lock_guard lock(mutex_);
    if (answered)
        silentSince_.erase(gateway);
    else if (now - asked >= kSilence)
        silentSince_[gateway] = now;
}

}  // namespace tarnwell
