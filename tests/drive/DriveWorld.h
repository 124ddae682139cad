#pragma once

#include <atomic>
#include <condition_variable>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "drive/TWFuseFileSystem.h"
#include "support/FakeClock.h"
#include "support/ManualExecutors.h"
#include "support/TemporaryFolder.h"

namespace tarnwell::testing {

/// What the drive needs from outside: contents by `InternalName` that can be fetched, and the ways a fetch
/// goes wrong.
class FakeMediator final : public TWFuseFileSystem::Mediator {
  public:
    void setStore(TWMetadataStorage& store) { store_ = &store; }

    bool isFileDownloaded(const TWVirtualFilePtr& file) override;
    std::optional<std::string> downloadFileChunk(const TWVirtualFilePtr& file, std::int64_t position,
                                                 std::int64_t size) override;
    [[nodiscard]] bool excessiveLogging() const override { return false; }

    /// `id`: of a file, or, for one of several versions, "id/UploadName".
    void setRemote(const std::string& id, const std::string& contents) {
        const std::lock_guard lock(mutex_);
        remote_[id] = contents;
    }
    /// Every later fetch waits until release().
    void hold() { held_ = true; }
    void release() {
        const std::lock_guard lock(mutex_);
        held_ = false;
        changed_.notify_all();
    }
    /// Waits until that many fetches hang.
    bool waitForHeld(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return waiting_ >= count; });
    }
    /// The next isFileDownloaded() throws.
    void failNext() { failNext_ = true; }
    /// Answers of this many bytes more than asked.
    void answerTooMuch(std::size_t bytes) { excess_ = bytes; }
    [[nodiscard]] std::size_t fetches() const { return fetches_; }

  private:
    TWMetadataStorage* store_ = nullptr;
    std::atomic<bool> held_ = false, failNext_ = false;
    std::atomic<std::size_t> fetches_ = 0, excess_ = 0;
    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::map<std::string, std::string> remote_;
    std::size_t waiting_ = 0;
};

/// A store with real folders, and the drive above it. No service, no kernel.
class DriveWorld {
  public:
    DriveWorld();
    ~DriveWorld();

    ManagedSharePtr addShare(const std::string& id, const std::string& name, std::int32_t aclType = 2);
    /// `parentId`: a share or folder. Names are ids where not given.
    TWVirtualFilePtr addFolder(const std::string& parentId, const std::string& name);
    /// A file whose contents are in the cache.
    TWVirtualFilePtr addCached(const std::string& parentId, const std::string& name,
                               const std::string& contents);
    /// A file whose contents are at the service only.
    TWVirtualFilePtr addRemote(const std::string& parentId, const std::string& name,
                               const std::string& contents);
    void rename(const TWVirtualFilePtr& file, const std::string& name);
    /// The service has other contents, named `version`, and a page of changes says so. They can be fetched.
    void changeRemotely(const std::string& path, const std::string& version, const std::string& contents);
    /// The journal in order: "[Update] /Share/f 12" (type, path, size).
    [[nodiscard]] std::vector<std::string> journal() const;
    [[nodiscard]] TWVirtualFilePtr at(const std::string& path) const { return store.fileWithPath(path); }
    /// What the cache holds for the record at `path`; "(none)" without a cache file.
    [[nodiscard]] std::string cached(const std::string& path) const;

    TemporaryFolder folder;
    CacheLayout layout;
    FakeClock clock;
    ManualExecutor background;
    FakeMediator mediator;
    TWMetadataStorage store;
    /// Open files follow their items, also while nothing is mounted.
    struct OpenFiles final : DriveObserver {
        void entryChanged(std::string_view, std::string_view) override {}
        void attributesChanged(std::string_view) override {}
        void contentsChanged(std::string_view) override {}
        void identityChanged(std::string_view from, std::string_view to) override {
            TWFuseFileData::identityChanged(from, to);
        }
        void identitiesExchanged(std::string_view a, std::string_view b) override {
            TWFuseFileData::identitiesExchanged(a, b);
        }
        void contentsRenamed(std::string_view id, std::string_view from, std::string_view to) override {
            TWFuseFileData::contentsRenamed(id, from, to);
        }
        bool isOpen(std::string_view id) const override { return TWFuseFileData::isOpen(id); }
    } openFiles;
    std::promise<void> driveGone;
    std::shared_ptr<TWFuseFileSystem> drive;

  private:
    TWVirtualFilePtr add(const std::string& parentId, const std::string& name, bool isFile,
                         std::int64_t size);
};

}  // namespace tarnwell::testing
