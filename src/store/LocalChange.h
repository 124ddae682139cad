#pragma once

#include <mutex>

namespace tarnwell {

class TWMetadataStorage;

/// One change that the user makes through the drive: holds the store's lock while it lives. What is noted of
/// records, shares and the journal under it belongs together: at the end of the outermost one all of it is
/// appended to the change log in one piece, before the lock goes, so that it survives the end of the process
/// wholly or not at all. (The system's buffers hold it then; StorePersistence::syncChanges() makes it
/// durable.)
///
/// Nothing slow is done under it: bytes are written, fetched and synced outside.
class LocalChange {
  public:
    explicit LocalChange(TWMetadataStorage& store);
    ~LocalChange();
    LocalChange(const LocalChange&) = delete;
    LocalChange& operator=(const LocalChange&) = delete;

  private:
    std::unique_lock<std::recursive_mutex> lock_;
};

}  // namespace tarnwell
