#include "app/DriveController.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "util/TWLogger.h"

namespace tarnwell {

DriveController::DriveController(Settings settings, Mediator& mediator, RunLoop& loop,
                                 FileSystemLayer::Factory makeLayer)
    : settings_(std::move(settings)),
      mediator_(mediator),
      loop_(loop),
      makeLayer_(std::move(makeLayer)),
      self_(std::make_shared<DriveController*>(this)) {}

DriveController::~DriveController() {
    stopFuse();
}

FileSystemLayer::Events DriveController::eventsOfThisMount() {
    const auto onMainLoop = [this](auto handler) {
        return [weak = std::weak_ptr(self_), number = mountNumber_, &loop = loop_,
                handler](auto... information) {
            loop.async([weak, number, handler, information...] {
                const auto self = weak.lock();
                if (self && (*self)->mountNumber_ == number) ((*self)->*handler)(information...);
            });
        };
    };
    const auto failed = onMainLoop(&DriveController::mountDidFailed);
    return {onMainLoop(&DriveController::didMount), [failed](const std::string& reason) { failed(reason); },
            onMainLoop(&DriveController::didUnmount)};
}

std::vector<std::string> DriveController::mountOptions() const {
    std::vector<std::string> options{
        "sync_read", "volname=" + settings_.appTitle, "direct_io", "nolocalcaches", "novncache",
        "local",     "volicon=" + settings_.iconPath};
    if (mediator_.inAdminGroup()) {
        options.emplace_back("allow_root");
    } else {
        TWLog(kLogMain,
              "User is not in admin group - disabling access to the drive from root user. Spotlight will not "
              "be able "
              "to index drive contents.");
    }
    return options;
}

void DriveController::initializeFuse() {
    ++mountNumber_;
    device_.clear();
    fuseLockHandle_.reset();
    fuseFilesystem_.reset();
    fuseFilesystem_ = makeLayer_(eventsOfThisMount());
    TWLog(kLogMain, "About to mount fuse, checking whether user is in admin group...");
    const auto options = mountOptions();

    struct stat existing {};
    // lstat of a dead mount fails with ENOTCONN: it is there all the same.
    if (!settings_.oldMountPath.empty() &&
        (lstat(settings_.oldMountPath.c_str(), &existing) == 0 || errno == ENOTCONN)) {
        mediator_.checkForOldMountAtPath(settings_.oldMountPath);
        mediator_.migrateMountDirectoryIfNeeded();
    }
    mediator_.checkForOldMountAtPath(settings_.mountPath);
    fuseInitialized_ = true;
    calledUnmount_ = false;
    if (mkdir(settings_.mountPath.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        return mountDidFailed("cannot create " + settings_.mountPath + ": " + std::strerror(errno));
    }
    fuseFilesystem_->mount(settings_.mountPath, options);
}

void DriveController::didMount() {
    device_ = mediator_.deviceAtPath(settings_.mountPath);
    const std::string path = settings_.mountPath + "/.fuselock";
    fuseLockHandle_ = OwnedDescriptor(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRWXU));
    if (!fuseLockHandle_) TWLog(kLogMain, "Warning! Cannot open fuse lock file: error %d", errno);
    mediator_.driveDidMount();
}

void DriveController::mountDidFailed(const std::string& information) {
    TWLog(kLogMain, "Fatal : volume mounting failed. Information: %@", information);
    fuseInitialized_ = false;
    mediator_.mountDidFail(information);
}

void DriveController::didUnmount() {
    fuseInitialized_ = false;
    if (!calledUnmount_) initializeFuse();
}

void DriveController::mountTableChanged() {
    if (device_.empty() || calledUnmount_ || mediator_.deviceAtPath(settings_.mountPath) == device_) return;
    TWLog(kLogMain, "The drive was unmounted from outside.");
    fuseLockHandle_.reset();
    fuseFilesystem_->unmount(true);
    didUnmount();
}

void DriveController::stopFuse() {
    if (!fuseInitialized_) return;
    calledUnmount_ = true;
    fuseLockHandle_.reset();
    int error = fuseFilesystem_->unmount(false);
    if (error != 0) TWLog(kLogMain, "Failed to unmount drive : error %d", error);
    if (error == EBUSY) {
        error = fuseFilesystem_->unmount(true);
        if (error != 0) TWLog(kLogMain, "Failed even forced unmount : error %d", error);
    }
    ++mountNumber_;
    device_.clear();
    fuseFilesystem_.reset();
    fuseInitialized_ = false;
}

}  // namespace tarnwell
