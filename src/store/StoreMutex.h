#pragma once

#include <mutex>

#include "store/ChangeRecorder.h"

namespace tarnwell {

/// The store's lock: recursive, and what was noted for the change log is appended before it goes. So all that
/// a thread changes while it holds the lock outlives the process wholly or not at all.
class StoreMutex {
  public:
    /// `changes` outlives this.
    explicit StoreMutex(ChangeRecorder& changes) : changes_(changes) {}

    void lock() {
        mutex_.lock();
        ++depth_;
    }
    bool try_lock() {
        if (!mutex_.try_lock()) return false;
        ++depth_;
        return true;
    }
    void unlock() {
        if (depth_ == 1) changes_.endOfHold();
        --depth_;
        mutex_.unlock();
    }

  private:
    ChangeRecorder& changes_;
    std::recursive_mutex mutex_;
    int depth_ = 0;  // guarded by mutex_
};

/// Holds the store's lock; unlocks at the end of its scope.
using StorageLock = std::unique_lock<StoreMutex>;

}  // namespace tarnwell
