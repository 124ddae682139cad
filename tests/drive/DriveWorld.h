#pragma once

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
    explicit FakeMediator(const CacheLayout& layout) : layout_(layout) {}

    bool isFileDownloaded(const TWVirtualFilePtr& file) override;
    std::optional<std::string> downloadFileChunk(const TWVirtualFilePtr& file, std::int64_t position,
                                                 std::int64_t size) override;
    void journalUpdate(const TWVirtualFilePtr& file) override;
    [[nodiscard]] bool excessiveLogging() const override { return false; }

    void setRemote(const std::string& id, std::string contents);
    /// Every later fetch waits until release().
    void hold();
    void release();
    /// Waits until that many fetches hang.
    bool waitForHeld(std::size_t count);
    /// The next isFileDownloaded() throws.
    void failNext();
    /// Answers of this many bytes more than asked.
    void answerTooMuch(std::size_t bytes);
    [[nodiscard]] std::size_t fetches() const;
    /// `InternalName`s in the order of their journal entries.
    [[nodiscard]] std::vector<std::string> journalled() const;

  private:
    const CacheLayout& layout_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::map<std::string, std::string> remote_;
    std::vector<std::string> journalled_;
    bool held_ = false, failNext_ = false;
    std::size_t waiting_ = 0, fetches_ = 0, excess_ = 0;
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

    TemporaryFolder folder;
    CacheLayout layout;
    FakeClock clock;
    ManualExecutor background;
    FakeMediator mediator;
    TWMetadataStorage store;
    std::promise<void> driveGone;
    std::shared_ptr<TWFuseFileSystem> drive;

  private:
    TWVirtualFilePtr add(const std::string& parentId, const std::string& name, bool isFile,
                         std::int64_t size);
};

}  // namespace tarnwell::testing
