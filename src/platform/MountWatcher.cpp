#include "platform/MountWatcher.h"

#include <fcntl.h>

#include <QSocketNotifier>
#include <utility>

#include "platform/LocalSocket.h"
#include "util/TWLogger.h"

namespace tarnwell {

struct MountWatcher::State {
    OwnedDescriptor table;
    std::unique_ptr<QSocketNotifier> priority;
};

MountWatcher::MountWatcher(std::function<void()> changed) : state_(std::make_unique<State>()) {
    state_->table = OwnedDescriptor(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    if (!state_->table) {
        TWLog(kLogMain,
              "Warning! Mounts cannot be watched: a drive that is taken away is not noticed at once.");
        return;
    }
    // The kernel raises a priority event for each change of the table; polling itself clears it.
    state_->priority = std::make_unique<QSocketNotifier>(state_->table.get(), QSocketNotifier::Exception);
    QObject::connect(state_->priority.get(), &QSocketNotifier::activated, std::move(changed));
}

MountWatcher::~MountWatcher() {
    state_->priority.reset();
}

}  // namespace tarnwell
