#include "app/TWApplicationDelegate.h"

#include <cstring>
#include <utility>

#include "app/ApplicationIdentity.h"
#include "app/StoreKeeper.h"
#include "connector/LoginEngine.h"
#include "connector/TWConnector.h"
#include "platform/DesktopServices.h"
#include "platform/LocalSocket.h"
#include "platform/NotificationCenter.h"
#include "platform/UserDefaults.h"
#include "store/LocalChangeJournal.h"
#include "store/StorePersistence.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

constexpr std::chrono::seconds kOpenedFilesInterval{1};
/// The kernel tells of a close a moment after it: a program that ended just now does not hold the exit up.
constexpr std::chrono::milliseconds kCloseGrace{500};
constexpr std::string_view kCleanShutdown = "cleanShutdown";
constexpr std::string_view kNeedsFullRefresh = "needsFullRefresh";
constexpr std::string_view kExcessiveLogging = "TWExcessiveLogging";

TWApplicationDelegate* theDelegate = nullptr;

DriveController::Settings driveSettings(const TWApplicationDelegate::Environment& environment) {
    const auto& layout = environment.store.layout();
    return {environment.identity.appTitle, layout.mountPath(), layout.oldMountPath(),
            appendPathComponent(environment.resourceFolder, "MainIcon.icns")};
}

}  // namespace

TWApplicationDelegate::TWApplicationDelegate(Environment environment)
    : environment_(std::move(environment)),
      keptNotices_(environment_.store.keptFiles(), environment_.mainLoop, environment_.userInterface),
      fileBrowser_({environment_.store, environment_.connector, environment_.mainLoop,
                    environment_.background, environment_.notifications, environment_.ports,
                    environment_.desktop, environment_.clipboard}),
      drive_(driveSettings(environment_), *this, environment_.mainLoop, environment_.makeFileSystem),
      login_(*this, environment_.mainLoop, environment_.notifications),
      termination_(*this, environment_.mainLoop),
      cacheCleaner_(environment_.store, environment_.background, environment_.mainLoop,
                    environment_.identity.appTitle == "TarnwellBeta"),
      commands_(*this) {
    theDelegate = this;
    setLogToGUI([this](int, std::string_view line) { recentErrors_.addLogLine(line); });
}

TWApplicationDelegate::~TWApplicationDelegate() {
    setLogToGUI({});
    theDelegate = nullptr;
}

TWApplicationDelegate* TWApplicationDelegate::delegate() {
    return theDelegate;
}

// Start-up

void TWApplicationDelegate::applicationWillFinishLaunching() {
    auto& defaults = environment_.defaults;
    const auto& layout = environment_.store.layout();
    excessiveLogging_ = defaults.contains(kExcessiveLogging);
    isOnlyInstance_ = environment_.machine.otherInstance().empty();
    if (isOnlyInstance_) lockData();
    if (isOnlyInstance_) layout.migrateMetadataIfNeeded();
    layout.initCachePathes();
    if (isOnlyInstance_) lockData();
    TWInitLogs(layout.logsPath());
    TWLog(kLogMain, "\n\n----------------------------------------------------\n\nStarting up %@ version %@",
          environment_.identity.appTitle, environment_.identity.version);
    defaults.set("SUHasLaunchedBefore", "true");
    defaults.synchronize();
}

void TWApplicationDelegate::applicationDidFinishLaunching() {
    if (!checkFuseInstallation()) return;
    if (!checkSingleInstance()) return;
    finishApplicationInitialization();
}

bool TWApplicationDelegate::checkFuseInstallation() {
    const std::string problem = environment_.machine.checkFuseInstallation();
    if (problem.empty()) return true;
    environment_.userInterface.showAlert(
        {"Cannot start " + environment_.identity.appTitle, problem, {"Exit"}},
        [this](std::size_t) { environment_.machine.quit(1); });
    return false;
}

void TWApplicationDelegate::lockData() {
    if (environment_.machine.otherOnData) otherOnData_ = environment_.machine.otherOnData();
    isOnlyInstance_ = otherOnData_.empty();
}

void TWApplicationDelegate::refuseData() {
    const auto& title = environment_.identity.appTitle;
    environment_.userInterface.showAlert({"Cannot start " + title,
                                          format("Another instance of %@ already uses %@ : %@", title,
                                                 environment_.store.layout().rootCachePath(), otherOnData_),
                                          {"Exit"}},
                                         [this](std::size_t) { environment_.machine.quit(1); });
}

bool TWApplicationDelegate::checkSingleInstance() {
    if (isOnlyInstance_) return true;
    if (!otherOnData_.empty()) {
        refuseData();
        return false;
    }
    const std::string other = environment_.machine.otherInstance();
    const auto& title = environment_.identity.appTitle;
    environment_.userInterface.showAlert(
        {"Cannot start " + title,
         format("Another instance of %@ is already running. Startup path : %@", title, other),
         {"Exit"}},
        [this](std::size_t) { environment_.machine.quit(1); });
    return false;
}

void TWApplicationDelegate::finishApplicationInitialization() {
    if (!initializeCommandSocket()) return;
    fileBrowser_.start();
    login_.observe();
    checkCleanShutdown();
    if (environment_.storeKeeper) environment_.storeKeeper->load();
    environment_.connector.login().loadCredentials();
    environment_.connector.startup();
    openedFilesTimer_ = environment_.mainLoop.repeat(kOpenedFilesInterval,
                                                     [this] { environment_.machine.checkOpenedFiles(); });
    isFinishedInitialization_ = true;
    login_.begin();
    environment_.desktop.postDistributedNotification("com.tarnwell.ferndisk-started");
}

std::string TWApplicationDelegate::commandSocketPath() const {
    return appendPathComponent(environment_.store.layout().metadataPath(), ".cmdsckt");
}

/// False when another client answers there, which holds no lock that is seen here.
bool TWApplicationDelegate::initializeCommandSocket() {
    std::string error;
    const bool listening = environment_.commandSocket.listen(
        commandSocketPath(),
        [this](const std::string& text, LocalServer::Reply reply) {
            commands_.didReceive(text, std::move(reply));
        },
        error);
    if (!listening && error == kLocalSocketInUse) {
        isOnlyInstance_ = false;
        otherOnData_ = "it answers at " + commandSocketPath();
        refuseData();
        return false;
    }
    if (!listening) {
        TWLog(kLogMain, "Warning! Cannot bind socket for command receiving.");
        TWLog(kLogMain, "Command socket %@: %@", commandSocketPath(), error);
    }
    return true;
}

void TWApplicationDelegate::checkCleanShutdown() {
    auto& defaults = environment_.defaults;
    if (!defaults.contains(kCleanShutdown)) {
        environment_.connector.session().setNeedsFullRefresh(true);
        defaults.set(kNeedsFullRefresh, "true");
    }
    defaults.remove(kCleanShutdown);
    defaults.synchronize();
}

// What the login needs

bool TWApplicationDelegate::credentialsAvailable() {
    return environment_.connector.login().credentialsAvailable();
}

bool TWApplicationDelegate::hasGlobalLoginResponce() {
    return environment_.connector.session().globalLoginResponce() != nullptr;
}

void TWApplicationDelegate::loginToGlobalFirstTime() {
    environment_.connector.login().loginToGlobalFirstTime();
}

void TWApplicationDelegate::loginToGlobal() {
    environment_.connector.login().loginToGlobal();
}

void TWApplicationDelegate::domainLogin() {
    environment_.connector.login().domainLogin();
}

void TWApplicationDelegate::setupRefreshTimers() {
    environment_.connector.setupRefreshTimers();
}

void TWApplicationDelegate::askForLogin() {
    if (login_.failedLoginAttempts() > 0) {
        recentErrors_.add("Login failed: the service refuses this user name and password.");
    }
    environment_.userInterface.askForLogin();
}

// What the drive needs

void TWApplicationDelegate::checkForOldMountAtPath(const std::string& path) {
    environment_.machine.checkForOldMountAtPath(path);
}

void TWApplicationDelegate::migrateMountDirectoryIfNeeded() {
    environment_.store.layout().migrateMountDirectoryIfNeeded();
}

void TWApplicationDelegate::stopFuse() {
    fileBrowser_.driveWillUnmount();
    drive_.stopFuse();
}

void TWApplicationDelegate::mountDidFail(const std::string& reason) {
    environment_.userInterface.showAlert(
        {"Unable to mount drive",
         format("%@ %@", "Error : mounting of the file system failed.", reason),
         {"Ok"}},
        [this](std::size_t) { terminateWithStatus(1); });
}

// The way out

void TWApplicationDelegate::endRequestedBySignal() {
    if (++signals_ == 1) return termination_.applicationShouldTerminate();
    termination_.terminateWithoutQuestion();
}

void TWApplicationDelegate::terminateWithStatus(int status) {
    exitStatus_ = status;
    termination_.terminateWithoutQuestion();
}

void TWApplicationDelegate::checkIfExitAllowed(std::function<void(bool)> answer) {
    if (environment_.machine.programsWithOpenFiles().empty()) return answer(true);
    exitCheck_ = environment_.mainLoop.postAfter(kCloseGrace, [this, answer = std::move(answer)] {
        const auto programs = environment_.machine.programsWithOpenFiles();
        if (programs.empty()) return answer(true);
        askWhetherToExit(programs, answer);
    });
}

void TWApplicationDelegate::askWhetherToExit(const std::vector<std::string>& programs,
                                             std::function<void(bool)> answer) {
    std::string names;
    for (const auto& program : programs)
        names += (names.empty() ? "" : "\n") + program;
    const auto& title = environment_.identity.appTitle;
    const Alert alert{
        format("Exit %@?", title),
        format("The following applications still use the %@ : \n\n%@\n\nDo you really want to exit? "
               "This can lead to potential data loss.",
               title, names),
        {"Cancel", "Exit"}};
    environment_.userInterface.showAlert(
        alert, [answer = std::move(answer)](std::size_t button) { answer(button == 1); });
}

void TWApplicationDelegate::beginTermination() {
    environment_.store.beginTermination();
}

void TWApplicationDelegate::stopObserving() {
    login_.stop();
    fileBrowser_.stop();
    openedFilesTimer_.cancel();
    exitCheck_.cancel();
}

bool TWApplicationDelegate::storageEmpty() {
    return !environment_.storeKeeper || environment_.store.storageEmpty();
}

bool TWApplicationDelegate::saveStore() {
    environment_.storeKeeper->checkForFileModifications();
    return environment_.storeKeeper->save();
}

void TWApplicationDelegate::saveFailed() {
    exitStatus_ = 1;
    auto& store = environment_.store;
    const int error = store.persistence().flushChanges();
    quitProblem_ =
        error == 0
            ? std::string(
                  "The state of the drive could not be saved. No change is lost: all are in the "
                  "change log, which the next start reads.")
            : format(
                  "Not all changes could be written to the disk: %@. %d wait to be sent; the next start "
                  "may not know all of them.",
                  std::strerror(error), store.journal().backlog().changes);
    environment_.userInterface.showAlert({"Saving failed", quitProblem_, {"Ok"}}, [](std::size_t) {});
}

bool TWApplicationDelegate::shutdownBlocked() {
    return environment_.store.shutdownBlocked();
}

void TWApplicationDelegate::setCleanShutdown() {
    if (!isOnlyInstance_) return;  // the record is the other one's
    TWLog(kLogMain, "Recording clean shutdown.");
    environment_.defaults.set(kCleanShutdown, "true");
    environment_.defaults.synchronize();
}

}  // namespace tarnwell
