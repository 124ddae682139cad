#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "platform/Executor.h"
#include "platform/LocalSocket.h"
#include "store/LocalJournal.h"

namespace tarnwell {

class TWMetadataStorage;

/// Copies of changed files in the upload area, so that later writes do not change what is being sent.
///
/// A copy is made on the background executor, without the store's lock, under a shutdown block. It gets its
/// name, `cachePathForUpload`, only when it is whole, and on the disk from kSyncedCopy on; beside it stands
/// the side file ".inf" with the entry's JSON text. What a crash leaves behind bears a temporary name and is
/// removed at the next start. A copy that is released while it is being made stops. Small files are copied
/// one after the other by one task, so that a tree that is unpacked does not keep all processors busy with
/// its copies.
///
/// Operations REQUIRE LOCK, the store's; the destructor does not, and waits for running copies, which stop at
/// once.
class UploadCopies {
  public:
    /// Called with the lock.
    class Host {
      public:
        virtual ~Host() = default;
        /// The entry that the copy is for by now; null while that is not queued.
        [[nodiscard]] virtual LocalJournalPtr entryWithUpload(const std::string& uploadName) const = 0;
        /// `size` bytes, or -1 when there is no copy.
        virtual void copyEnded(const std::string& uploadName, std::int64_t size) = 0;
    };

    UploadCopies(TWMetadataStorage& store, Executor& background, Host& host);
    ~UploadCopies();
    UploadCopies(const UploadCopies&) = delete;
    UploadCopies& operator=(const UploadCopies&) = delete;

    /// Begins to copy the cache file of the entry's file to its upload name, in the place of what an earlier
    /// run left there. REQUIRES: this run has no copy of that name.
    void start(const LocalJournalPtr& entry);
    /// Removes the copy with its side file, or stops it. Nothing for an empty name.
    void release(const TWVirtualFile& file);

  private:
    struct Job;
    struct Gate;
    struct Line;

    void run(Job& job);
    [[nodiscard]] OwnedDescriptor openSource(Job& job) const;
    [[nodiscard]] bool isStillVersion(int source, const Job& job) const;
    [[nodiscard]] std::string itemOf(const Job& job) const;
    void finish(Job& job, std::string_view problem, std::int64_t size);
    [[nodiscard]] bool place(Job& job, std::string& problem) const;

    TWMetadataStorage& store_;
    Executor& background_;
    Host& host_;
    /// Part of this run's temporary names.
    const std::string runId_;
    const std::shared_ptr<Gate> gate_;
    std::weak_ptr<Line> line_;  // the task that copies small files; guarded by the store's lock
    std::map<std::string, std::shared_ptr<Job>> jobs_;  // by upload name; guarded by the store's lock
};

}  // namespace tarnwell
