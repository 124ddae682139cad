#pragma once

#include <functional>
#include <memory>

namespace tarnwell {

/// Tells when anything is mounted or unmounted on this machine, as far as this process can see it.
class MountWatcher {
  public:
    /// Made and destroyed on the main loop's thread, where `changed` runs.
    explicit MountWatcher(std::function<void()> changed);
    ~MountWatcher();
    MountWatcher(const MountWatcher&) = delete;
    MountWatcher& operator=(const MountWatcher&) = delete;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tarnwell
