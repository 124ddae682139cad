#include "app/DriveMount.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "connector/DownloadEngine.h"
#include "connector/TWConnector.h"
#include "drive/FuseAdapter.h"
#include "drive/FuseMount.h"
#include "drive/MountPoint.h"
#include "drive/TWFuseFileData.h"
#include "platform/SystemInformation.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

constexpr const char* kFuseDevice = "/dev/fuse";

}  // namespace

/// One mount as the application sees it.
class DriveMount::Layer final : public FileSystemLayer {
  public:
    Layer(DriveMount& owner, std::shared_ptr<TWFuseFileSystem> fileSystem, Events events)
        : owner_(owner),
          mount_(std::move(fileSystem), {std::move(events.didMount), std::move(events.mountDidFailed),
                                         std::move(events.didUnmount)}) {}
    ~Layer() override { owner_.abandoned_ |= mount_.wasAbandoned(); }

    void mount(const std::string& path, const std::vector<std::string>& options) override {
        mount_.mount(path, options);
    }
    int unmount(bool forced) override {
        const int error = mount_.unmount(forced);
        owner_.abandoned_ |= mount_.wasAbandoned();
        return error;
    }

  private:
    DriveMount& owner_;
    FuseMount mount_;
};

DriveMount::DriveMount(Collaborators collaborators) : collaborators_(std::move(collaborators)) {}
DriveMount::~DriveMount() = default;

FileSystemLayer::Factory DriveMount::factory() {
    return [this](FileSystemLayer::Events events) {
        auto fileSystem = std::make_shared<TWFuseFileSystem>(
            collaborators_.store, collaborators_.store.layout(), collaborators_.background,
            static_cast<TWFuseFileSystem::Mediator&>(*this));
        fileSystem_ = fileSystem;
        return std::make_unique<Layer>(*this, std::move(fileSystem), std::move(events));
    };
}

void DriveMount::checkOpenedFiles() {
    if (const auto fileSystem = fileSystem_.lock()) fileSystem->checkOpenedFiles();
}

bool DriveMount::isFileDownloaded(const TWVirtualFilePtr& file) {
    return collaborators_.connector.downloads().isFileDownloaded(*file);
}

std::optional<std::string> DriveMount::downloadFileChunk(const TWVirtualFilePtr& file, std::int64_t position,
                                                         std::int64_t size) {
    if (size <= 0) return std::string();
    const auto bounded = std::min<std::int64_t>(size, std::numeric_limits<std::uint32_t>::max());
    return collaborators_.connector.downloads().downloadFileChunk(file, position,
                                                                  static_cast<std::uint32_t>(bounded));
}

std::string DriveMount::checkFuseInstallation() {
    if (!FuseAdapter::libraryIsRecent()) {
        return "libfuse " + FuseAdapter::libraryVersion() + " is too old: 3.12 or later is needed.";
    }
    struct stat device {};
    if (stat(kFuseDevice, &device) != 0) {
        return std::string("The kernel's FUSE device ") + kFuseDevice + " is missing (" +
               std::strerror(errno) + "). Load the module \"fuse\".";
    }
    if (access(kFuseDevice, R_OK | W_OK) != 0) {
        return std::string("This user may not use ") + kFuseDevice + " (" + std::strerror(errno) + ").";
    }
    return {};
}

std::string DriveMount::deviceAtPath(const std::string& path) {
    // Only the folder above is resolved: the mount point itself may hang or be dead.
    const std::filesystem::path whole(path);
    std::error_code error;
    const auto folder = std::filesystem::canonical(whole.parent_path(), error);
    return mountpoint::deviceAt(error ? path : (folder / whole.filename()).string()).value_or("");
}

std::vector<std::string> DriveMount::programsWithOpenFiles() {
    std::vector<std::string> names;
    for (const auto& handle : TWFuseFileData::openedFiles()) {
        const pid_t process = handle->openProcess();
        if (process == getpid()) continue;
        // A handle outlives the process that opened it when another inherited the descriptor.
        const std::string name = processName(process).value_or("process " + std::to_string(process));
        if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    }
    return names;
}

}  // namespace tarnwell
