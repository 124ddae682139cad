#pragma once

#include "store/StoreMutex.h"

namespace tarnwell {

class TWMetadataStorage;

/// One change that the user makes through the drive: holds the store's lock while it lives. What is noted of
/// records and shares under it goes to the change log with the journal entries, in one piece, when the
/// outermost one ends, also where the lock is held on: it survives the end of the process wholly or not at
/// all, and what is done next comes after it. (The system's buffers hold it then;
/// StorePersistence::syncChanges() makes it durable.)
///
/// Nothing slow is done under it: bytes are written, fetched and synced outside.
class LocalChange {
  public:
    explicit LocalChange(TWMetadataStorage& store);
    ~LocalChange();
    LocalChange(const LocalChange&) = delete;
    LocalChange& operator=(const LocalChange&) = delete;

    /// Appends what was noted so far. 0 when it survives the end of the process from now on; else errno: it
    /// stays noted and is tried again, and the caller answers the error or takes the change back.
    [[nodiscard]] int commit();

  private:
    const StorageLock lock_;
    ChangeRecorder& changes_;
};

}  // namespace tarnwell
