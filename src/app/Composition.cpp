#include "app/Composition.h"

#include <unistd.h>

#include <filesystem>
#include <optional>
#include <variant>

#include "app/DriveMount.h"
#include "app/Foundation.h"
#include "app/PersistentStoreKeeper.h"
#include "app/TWApplicationDelegate.h"
#include "app/UserInterface.h"
#include "connector/DownloadEngine.h"
#include "connector/TWConnector.h"
#include "drive/FuseMount.h"
#include "platform/BackgroundQueue.h"
#include "platform/ClipboardProgram.h"
#include "platform/CurlUrlLoader.h"
#include "platform/DBusDesktopServices.h"
#include "platform/DBusMessagePorts.h"
#include "platform/MountWatcher.h"
#include "platform/NetlinkReachability.h"
#include "platform/NotificationCenter.h"
#include "platform/QtLocalServer.h"
#include "platform/QtRunLoop.h"
#include "platform/SessionBus.h"
#include "platform/SignalWatcher.h"
#include "platform/SingleInstance.h"
#include "platform/SystemInformation.h"
#include "store/DelayedSave.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

/// Enough for the login exchange and a few copies at once; each may block on the network or the disk.
constexpr std::size_t kBackgroundThreads = 8;
constexpr std::chrono::seconds kStopDeadline{10};

ConnectorIdentity connectorIdentity(const ApplicationIdentity& identity) {
    return {.appTitle = identity.appTitle,
            .settingsTitle = identity.settingsTitle(),
            .appVersion = identity.version,
            .macosVersion = operatingSystemVersion(),
            .deviceName = computerName(),
            .isDataIsland = identity.isDataIsland,
            .globalAddress = identity.globalAddress,
            .internetProbe = ""};
}

std::variant<SingleInstance, SingleInstance::Other, SingleInstance::Failure> lockInstance(
    const std::string& path) {
    std::error_code error;
    const auto folder = std::filesystem::path(path).parent_path();
    std::filesystem::create_directories(folder, error);
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all, error);
    return SingleInstance::acquire(path);
}

}  // namespace

struct Composition::Objects {
    Objects(int& argc, char** argv, bool headless);

    // What the desktop gives.
    QtRunLoop mainLoop;
    QtLocalServer commandSocket;  // goes late: whoever asked to quit hears it when all else is gone
    Foundation foundation;
    std::variant<SingleInstance, SingleInstance::Other, SingleInstance::Failure> instance;
    std::variant<SingleInstance, SingleInstance::Other, SingleInstance::Failure> dataLock;
    SystemClock clock;
    NotificationCenter notifications;
    BackgroundQueue background;
    SerialQueue loginQueue;
    SerialQueue catchUpQueue;
    NetlinkReachability reachability;
    CurlUrlLoader urlLoader;
    SessionBus sessionBus;
    DBusMessagePorts ports;
    DBusDesktopServices desktop;
    ClipboardProgram clipboard;

    // The rooms.
    TWMetadataStorage store;
    DelayedSave delayedSave;
    TWConnector connector;
    PersistentStoreKeeper storeKeeper;
    DriveMount drive;
    ConsoleUserInterface userInterface;
    TWApplicationDelegate delegate;
    SignalWatcher signals;
    MountWatcher mounts;

    TWApplicationDelegate::Environment delegateEnvironment();
    TWApplicationDelegate::Machine machine();
    [[nodiscard]] std::string otherInstance() const;
    std::string otherOnData();
};

Composition::Objects::Objects(int& argc, char** argv, bool /*headless: there are no windows to do without*/)
    : mainLoop(argc, argv),
      instance(lockInstance(foundation.lockPath())),
      dataLock(SingleInstance::Failure{}),
      background(kBackgroundThreads),
      loginQueue(background),
      catchUpQueue(background),
      urlLoader({.certificateAuthority = foundation.defaults.get("TWCertificateAuthority").value_or("")}),
      sessionBus(mainLoop, background),
      ports(sessionBus),
      desktop(sessionBus, foundation.identity.appTitle),
      clipboard(ClipboardProgram::installedProgram()),
      store({.layout = foundation.layout,
             .clock = clock,
             .background = background,
             .userName = [this] { return connector.session().username(); },
             .saveDelayed = [this] { delayedSave.request(); }}),
      delayedSave(store, mainLoop, background),
      connector({.urlLoader = urlLoader,
                 .reachability = reachability,
                 .mainLoop = mainLoop,
                 .background = background,
                 .loginQueue = loginQueue,
                 .catchUpQueue = catchUpQueue,
                 .keychain = *foundation.keychain,
                 .userDefaults = foundation.defaults,
                 .notifications = notifications,
                 .clock = clock,
                 .store = store,
                 .identity = connectorIdentity(foundation.identity)}),
      storeKeeper(store, connector.session(), delayedSave),
      drive({.store = store,
             .background = background,
             .connector = connector,
             .excessiveLogging = [this] { return delegate.excessiveLogging(); }}),
      delegate(delegateEnvironment()),
      signals([this](int) { mainLoop.async([this] { delegate.endRequestedBySignal(); }); }),
      mounts([this] { mainLoop.async([this] { delegate.mountTableChanged(); }); }) {
    TWMetadataStorage::setShared(&store);
    TWConnector::setDefaultConnector(&connector);
    store.setDownloadScheduler(&connector.downloads());
    store.setFolderRefresher(&delegate.fileBrowser());
}

TWApplicationDelegate::Environment Composition::Objects::delegateEnvironment() {
    return {.identity = foundation.identity,
            .defaults = foundation.defaults,
            .mainLoop = mainLoop,
            .background = background,
            .notifications = notifications,
            .store = store,
            .connector = connector,
            .userInterface = userInterface,
            .commandSocket = commandSocket,
            .ports = ports,
            .desktop = desktop,
            .clipboard = clipboard,
            .storeKeeper = &storeKeeper,
            .resourceFolder = Foundation::resourceFolder(),
            .makeFileSystem = drive.factory(),
            .machine = machine()};
}

TWApplicationDelegate::Machine Composition::Objects::machine() {
    return {.otherInstance = [this] { return otherInstance(); },
            .otherOnData = [this] { return otherOnData(); },
            .checkFuseInstallation = DriveMount::checkFuseInstallation,
            .inAdminGroup = [] { return userIsInAdminGroup() && fuseAllowsOther(); },
            .checkForOldMountAtPath = FuseMount::checkForOldMountAtPath,
            .deviceAtPath = DriveMount::deviceAtPath,
            .programsWithOpenFiles = DriveMount::programsWithOpenFiles,
            .checkOpenedFiles = [this] { drive.checkOpenedFiles(); },
            .quit = [this](int status) { mainLoop.quit(status); }};
}

std::string Composition::Objects::otherInstance() const {
    if (const auto* other = std::get_if<SingleInstance::Other>(&instance)) {
        return other->executable.empty() ? "unknown" : other->executable;
    }
    if (const auto* failure = std::get_if<SingleInstance::Failure>(&instance)) {
        // Better one client too many on a strange file system than none at all.
        TWLog(kLogMain, "Warning! Cannot lock %@: error %d", foundation.lockPath(), failure->error);
    }
    return {};
}

/// Locks the data folder, if there is one; again after a migration may have put another in its place.
std::string Composition::Objects::otherOnData() {
    std::error_code error;
    if (!std::filesystem::is_directory(foundation.layout.rootCachePath(), error)) return {};
    dataLock = SingleInstance::Failure{};
    dataLock = SingleInstance::acquire(foundation.dataLockPath());
    if (const auto* other = std::get_if<SingleInstance::Other>(&dataLock)) {
        return format("%@, process %d", other->executable.empty() ? "unknown" : other->executable,
                      other->pid);
    }
    if (const auto* failure = std::get_if<SingleInstance::Failure>(&dataLock))
        TWLog(kLogMain, "Warning! Cannot lock %@: error %d", foundation.dataLockPath(), failure->error);
    return {};
}

Composition::Composition(int& argc, char** argv, bool headless)
    : objects_(std::make_unique<Objects>(argc, argv, headless)) {}

Composition::~Composition() {
    TWConnector::setDefaultConnector(nullptr);
    TWMetadataStorage::setShared(nullptr);
}

int Composition::run() {
    auto& delegate = objects_->delegate;
    delegate.applicationWillFinishLaunching();
    objects_->mainLoop.async([&delegate] { delegate.applicationDidFinishLaunching(); });
    const int status = objects_->mainLoop.exec();

    const bool ended = objects_->connector.stop(kStopDeadline) && !objects_->drive.wasAbandoned() &&
                       objects_->background.stop(kStopDeadline);
    objects_->commandSocket.close();
    objects_->dataLock = SingleInstance::Failure{};
    objects_->instance = SingleInstance::Failure{};
    delegate.answerQuitRequests();
    TWClose();
    if (!ended) _exit(status);
    return status;
}

}  // namespace tarnwell
