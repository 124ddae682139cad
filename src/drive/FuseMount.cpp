#include "drive/FuseMount.h"

#include <pthread.h>

#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

#include "drive/FuseAdapter.h"
#include "drive/MountPoint.h"
#include "drive/TWFuseFileSystem.h"
#include "util/TWLogger.h"

namespace tarnwell {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::chrono::seconds kStartDeadline{10};
constexpr std::chrono::seconds kForceDeadline{10};

std::string resolved(const std::string& path) {
    char buffer[PATH_MAX];
    return ::realpath(path.c_str(), buffer) ? std::string(buffer) : path;
}

}  // namespace

/// One mount from its start to its end; the loop's thread and the FuseMount share it.
struct FuseMount::Session {
    Session(std::shared_ptr<TWFuseFileSystem> fileSystem, MountOptions options, std::string mountPath,
            std::function<void()> onUnmount)
        : path(std::move(mountPath)),
          didUnmount(std::move(onUnmount)),
          adapter(std::move(fileSystem), std::move(options), [this] { set(initialised); }) {}

    // Constant after the start.
    const std::string path;
    const std::function<void()> didUnmount;
    std::optional<std::string> device;
    FuseAdapter adapter;
    std::thread thread;

    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by mutex.
    bool initialised = false;
    bool ended = false;
    bool announced = false;  ///< didMount was called, so didUnmount has to follow
    bool unmountAnnounced = false;

    void set(bool& flag) {
        {
            std::lock_guard lock(mutex);
            flag = true;
        }
        changed.notify_all();
    }

    template <class Condition>
    bool waitUntil(SteadyClock::time_point deadline, Condition condition) {
        std::unique_lock lock(mutex);
        return changed.wait_until(lock, deadline, condition);
    }

    [[nodiscard]] bool hasEnded() {
        std::lock_guard lock(mutex);
        return ended;
    }

    void announceUnmount() {
        {
            std::lock_guard lock(mutex);
            if (!announced || unmountAnnounced) return;
            unmountAnnounced = true;
        }
        if (didUnmount) didUnmount();
    }

    void run() {
        // The program's signals belong to its other threads; libfuse's workers inherit this.
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        ::pthread_setname_np(::pthread_self(), "tw-fuse");
        adapter.run();
        // A connection that was cut, not unmounted, leaves a mount behind that nobody serves.
        if (device && mountpoint::deviceAt(path) == device) {
            mountpoint::unmount(path, true, SteadyClock::now() + kForceDeadline);
        }
        set(ended);
        announceUnmount();
    }
};

FuseMount::FuseMount(std::shared_ptr<TWFuseFileSystem> fileSystem, Notifications notifications)
    : fileSystem_(std::move(fileSystem)), notifications_(std::move(notifications)) {}

FuseMount::~FuseMount() {
    unmount(true);
}

void FuseMount::mount(const std::string& path, const std::vector<std::string>& options) {
    const auto fail = [this](const std::string& reason) {
        if (notifications_.mountDidFailed) notifications_.mountDidFailed(reason);
    };
    if (isMounted()) return fail("The drive is mounted already.");
    unmount(true);  // joins the threads of a mount that ended

    session_ = std::make_shared<Session>(
        fileSystem_, MountOptions::translate(options, MountOptions::otherUsersPermitted()), resolved(path),
        notifications_.didUnmount);
    if (const auto reason = session_->adapter.mount(session_->path); !reason.empty()) {
        session_.reset();
        return fail(reason);
    }
    session_->device = mountpoint::deviceAt(session_->path);
    fileSystem_->store().setDriveObserver(&session_->adapter.operations());
    try {
        session_->thread = std::thread([session = session_] {
            try {
                session->run();
            } catch (const std::exception& error) {
                TWLog(kLogMain, "Error! The drive's threads ended: %@", error.what());
                session->set(session->ended);
            }
        });
    } catch (const std::system_error& error) {
        fileSystem_->store().setDriveObserver(nullptr);
        session_.reset();
        return fail(error.what());
    }
    session_->waitUntil(SteadyClock::now() + kStartDeadline,
                        [&] { return session_->initialised || session_->ended; });
    bool started = false;
    {
        std::lock_guard lock(session_->mutex);
        started = session_->initialised && !session_->ended;
        session_->announced = started;
    }
    if (!started) {
        unmount(true);
        return fail("The file system did not answer.");
    }
    if (notifications_.didMount) notifications_.didMount();
}

bool FuseMount::isMounted() const {
    return session_ && !session_->hasEnded();
}

int FuseMount::unmount(bool force, std::chrono::milliseconds deadline) {
    if (!session_) return 0;
    const auto end = SteadyClock::now() + deadline;
    auto& session = *session_;
    if (!session.hasEnded()) {
        const int error = mountpoint::unmount(session.path, force, end);
        // EINVAL: somebody else unmounted it meanwhile.
        if (error != 0 && error != EINVAL) return error;
        const auto hasEnded = [&] { return session.ended; };
        const auto patience = force ? std::chrono::milliseconds(0) : deadline / 2;
        if (!session.waitUntil(SteadyClock::now() + patience, hasEnded) && session.device) {
            mountpoint::abortConnection(*session.device);
        }
        if (!session.waitUntil(end, hasEnded)) {
            TWLog(kLogMain, "Warning! A file-system thread did not end in time, it is left to itself.");
            abandoned_ = true;
            fileSystem_->store().setDriveObserver(nullptr);
            session.thread.detach();
            session.announceUnmount();
            session_.reset();
            return 0;
        }
    }
    if (session.thread.joinable()) session.thread.join();
    fileSystem_->store().setDriveObserver(nullptr);
    session_.reset();
    return 0;
}

bool FuseMount::wasAbandoned() const {
    return abandoned_;
}

void FuseMount::checkForOldMountAtPath(const std::string& path) {
    if (!mountpoint::isDead(path)) return;
    TWLog(kLogMain, "Warning! Found dead filesystem on mountpoint %@. Unmounted using our force.", path);
    if (mountpoint::unmount(resolved(path), true, SteadyClock::now() + kForceDeadline) != 0) {
        TWLog(kLogMain, "Error! Our force was not enough to unmount dead filesystem. Sad.");
    }
}

}  // namespace tarnwell
