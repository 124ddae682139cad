#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "connector/TWDownloadOperation.h"

namespace tarnwell {

using TWDownloadOperationPtr = std::shared_ptr<TWDownloadOperation>;

/// The download map: one operation per file version (`UploadName`), and the order in which the worker takes
/// them.
///
/// A user's request goes before automatic ones, the earliest due first; none is taken before it is due.
///
/// Threads: any; own small lock, under which nothing is called. One worker takes operations.
class DownloadQueue {
  public:
    static constexpr std::chrono::seconds kRoomForReaders{1};

    enum class Removal { kAbsent, kRemoved, kRunning };

    /// Queues, or makes a queued operation due now; a user's request upgrades an automatic one. A request for
    /// an operation that is being cancelled queues it anew afterwards. True when it was in the queue already.
    bool add(TWDownloadOperationPtr operation);
    /// A running operation is told to stop (and, with `deleteData`, to drop its bytes); any other is removed.
    Removal cancel(std::string_view uploadName, bool deleteData);

    [[nodiscard]] TWDownloadOperationPtr find(std::string_view uploadName) const;
    [[nodiscard]] bool contains(std::string_view uploadName) const { return find(uploadName) != nullptr; }
    [[nodiscard]] TWDownloadOperationPtr running() const;
    [[nodiscard]] std::size_t size() const;
    [[nodiscard]] std::int64_t bytes() const;
    [[nodiscard]] std::vector<TWVirtualFilePtr> files() const;

    // Readers that follow the worker
    /// Whether the bytes up to `end` of the version will stand in the partial file soon: the worker is at it,
    /// and has asked for them, or is less than `distance` behind.
    [[nodiscard]] bool comes(std::string_view uploadName, std::int64_t end, std::int64_t distance) const;
    /// Waits until they do; false when the download ended before, or made no progress for `patience`.
    bool waitForBytes(std::string_view uploadName, std::int64_t end, std::chrono::milliseconds patience);
    /// A reader asks the service for a range of its own: the worker leaves it room on the link for a while.
    void noteRangeRead() { lastRangeRead_ = std::chrono::steady_clock::now(); }
    [[nodiscard]] bool readersAsk() const {
        return std::chrono::steady_clock::now() - lastRangeRead_.load() < kRoomForReaders;
    }

    // The worker
    /// The running operation has its first `downloaded` bytes; those before `reach` follow within moments.
    void progressed(std::int64_t downloaded, std::int64_t reach);
    /// Takes the next due operation; it stays in the map as the running one. Null: none is due at `now`.
    TWDownloadOperationPtr take(Date now);
    /// When the next operation becomes due; none when nothing waits.
    [[nodiscard]] std::optional<Date> nextDue() const;
    /// The running operation is over and leaves the map.
    void finish();
    /// The running operation stays queued, due at `date`, unless it was cancelled meanwhile.
    void retryAt(Date date);
    /// Waits for a change of the queue, a stop, or for `longest`. False after stop().
    bool wait(std::uint64_t& seen, std::chrono::milliseconds longest);
    void stop();

  private:
    struct Earlier {
        bool operator()(const TWDownloadOperationPtr& a, const TWDownloadOperationPtr& b) const {
            if (a->taskDate != b->taskDate) return a->taskDate < b->taskDate;
            return a->uploadName < b->uploadName;
        }
    };
    using Order = std::set<TWDownloadOperationPtr, Earlier>;

    Order& orderOf(const TWDownloadOperation& operation) {
        return operation.automaticDownload ? automatic_ : user_;
    }
    void insert(const TWDownloadOperationPtr& operation);
    void remove();  // the running one
    void erase(const TWDownloadOperationPtr& operation);
    void changed();

    std::atomic<std::chrono::steady_clock::time_point> lastRangeRead_{};

    mutable std::mutex mutex_;
    std::condition_variable change_;
    // Guarded by mutex_. The running operation stands in the map but in neither order.
    std::unordered_map<std::string, TWDownloadOperationPtr> operations_;
    Order user_;
    Order automatic_;
    TWDownloadOperationPtr running_;
    std::int64_t reach_ = 0;        // of running_; 0: it has not begun
    TWDownloadOperationPtr again_;  // asked for while the running one was being cancelled
    std::int64_t bytes_ = 0;
    std::uint64_t changes_ = 0;
    bool stopped_ = false;
};

}  // namespace tarnwell
