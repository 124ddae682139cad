#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "app/CacheCleaner.h"
#include "app/CommandRequests.h"
#include "app/DriveController.h"
#include "app/FileBrowser.h"
#include "app/KeptNotices.h"
#include "app/LoginCoordinator.h"
#include "app/RecentErrors.h"
#include "app/StatusReport.h"
#include "app/TerminationProtocol.h"
#include "app/UserInterface.h"

namespace tarnwell {

class NotificationCenter;
class StoreKeeper;
class TWConnector;
class TWMetadataStorage;
class UserDefaults;
struct ApplicationIdentity;

/// The application object: the order of start-up, and the ways between the parts that carry out the rest.
///
///     LoginCoordinator     what follows a login outcome
///     DriveController      the drive up and down
///     TerminationProtocol  the way out
///     CacheCleaner         everything of a user off this machine
///     CommandRequests      what the command line asks
///     FileBrowser          what the desktop's file browser shows and asks
///
/// Each of them declares what it needs as a small interface, implemented here. Main thread only, except for
/// excessiveLogging(). Made and wired by the Composition.
class TWApplicationDelegate final : private LoginCoordinator::Mediator,
                                    private DriveController::Mediator,
                                    private TerminationProtocol::Mediator,
                                    private CommandRequests::Mediator {
  public:
    /// What the machine says. Functions, so that tests say it instead.
    struct Machine {
        /// Path of the program of another client of this user that runs; empty: none.
        std::function<std::string()> otherInstance;
        /// Locks the data folder; who uses it already, empty: nobody. Null: nobody.
        std::function<std::string()> otherOnData = {};
        /// Why no drive can be mounted here; empty: it can.
        std::function<std::string()> checkFuseInstallation;
        /// The user may let root see the drive.
        std::function<bool()> inAdminGroup;
        std::function<void(const std::string& path)> checkForOldMountAtPath;
        /// See DriveController::Mediator.
        std::function<std::string(const std::string& path)> deviceAtPath;
        /// Names of the programs that have files of the drive open, each once.
        std::function<std::vector<std::string>()> programsWithOpenFiles;
        /// One round of looking for files that have been quiet for long enough.
        std::function<void()> checkOpenedFiles;
        /// Ends the main loop with this status.
        std::function<void(int status)> quit;
    };
    /// All outlive the delegate.
    struct Environment {
        const ApplicationIdentity& identity;
        UserDefaults& defaults;
        RunLoop& mainLoop;
        Executor& background;
        NotificationCenter& notifications;
        TWMetadataStorage& store;
        TWConnector& connector;
        UserInterface& userInterface;
        LocalServer& commandSocket;
        MessagePorts& ports;
        DesktopServices& desktop;
        Clipboard& clipboard;
        StoreKeeper* storeKeeper = nullptr;  ///< null: every run starts with an empty store
        std::string resourceFolder;
        FileSystemLayer::Factory makeFileSystem;
        Machine machine;
    };

    explicit TWApplicationDelegate(Environment environment);
    ~TWApplicationDelegate() override;
    TWApplicationDelegate(const TWApplicationDelegate&) = delete;
    TWApplicationDelegate& operator=(const TWApplicationDelegate&) = delete;

    /// The application object of the process, for the outermost edges only. Null before and after.
    static TWApplicationDelegate* delegate();

    // In the order of a run
    /// Before the main loop runs.
    void applicationWillFinishLaunching();
    /// The first task of the main loop.
    void applicationDidFinishLaunching();
    void finishApplicationInitialization();
    /// A signal asks the process to end. Where the user refused the first, the second goes ahead.
    void endRequestedBySignal();
    /// Something was mounted or unmounted on this machine.
    void mountTableChanged() { drive_.mountTableChanged(); }
    /// Answers those who asked the program to quit and wait for its end: the very last thing.
    void answerQuitRequests();

    // Questions
    /// Any thread.
    [[nodiscard]] bool excessiveLogging() const { return excessiveLogging_; }
    [[nodiscard]] StatusReport statusReport();
    [[nodiscard]] std::string commandSocketPath() const;
    [[nodiscard]] FileBrowser& fileBrowser() { return fileBrowser_; }

  private:
    [[nodiscard]] bool checkSingleInstance();
    [[nodiscard]] bool checkFuseInstallation();
    [[nodiscard]] bool initializeCommandSocket();
    void refuseData();
    void lockData();
    void checkCleanShutdown();
    void terminateWithStatus(int status);
    void askWhetherToExit(const std::vector<std::string>& programs, std::function<void(bool)> answer);

    // LoginCoordinator::Mediator
    bool credentialsAvailable() override;
    bool hasGlobalLoginResponce() override;
    void loginToGlobalFirstTime() override;
    void loginToGlobal() override;
    void domainLogin() override;
    void setupRefreshTimers() override;
    bool fuseInitialized() override { return drive_.fuseInitialized(); }
    void initializeFuse() override { drive_.initializeFuse(); }
    void stopFuse() override;  // for the TerminationProtocol as well
    void clearCaches() override { cacheCleaner_.clearCaches(); }
    void removeKeptFiles() override { cacheCleaner_.removeKeptFiles(); }
    void askForLogin() override;

    // DriveController::Mediator
    bool inAdminGroup() override { return environment_.machine.inAdminGroup(); }
    void checkForOldMountAtPath(const std::string& path) override;
    void migrateMountDirectoryIfNeeded() override;
    std::string deviceAtPath(const std::string& path) override {
        return environment_.machine.deviceAtPath(path);
    }
    void driveDidMount() override { fileBrowser_.driveDidMount(); }
    void mountDidFail(const std::string& reason) override;

    // TerminationProtocol::Mediator
    bool isFinishedInitialization() override { return isFinishedInitialization_; }
    void checkIfExitAllowed(std::function<void(bool)> answer) override;
    void beginTermination() override;
    void stopObserving() override;
    bool storageEmpty() override;
    bool saveStore() override;
    void saveFailed() override;
    bool shutdownBlocked() override;
    void setCleanShutdown() override;
    void terminateNow() override { environment_.machine.quit(exitStatus_); }

    // CommandRequests::Mediator
    std::string statusJson() override { return tarnwell::statusJson(statusReport()); }
    void reloadSettings() override;
    void login(const std::string& user, const std::string& password, bool discards,
               CommandRequests::Answer answer) override;
    void logout(bool discards, CommandRequests::Answer answer) override;
    void quit(CommandRequests::Answer answer) override;
    void refresh(CommandRequests::Answer answer) override;
    void parseRemoteCommand(std::string_view text) override { fileBrowser_.parseRemoteCommand(text); }

    Environment environment_;
    RecentErrors recentErrors_;
    std::atomic<bool> excessiveLogging_{false};
    bool isOnlyInstance_ = false;  // until then another one may own the settings and the cache
    std::string otherOnData_;
    bool isFinishedInitialization_ = false;
    int exitStatus_ = 0;
    std::string quitProblem_;  ///< what those who asked to quit are told; empty: nothing went wrong
    int signals_ = 0;
    std::vector<CommandRequests::Answer> quitRequests_;
    Timer openedFilesTimer_;
    Timer exitCheck_;

    KeptNotices keptNotices_;
    FileBrowser fileBrowser_;
    DriveController drive_;
    LoginCoordinator login_;
    TerminationProtocol termination_;
    CacheCleaner cacheCleaner_;
    CommandRequests commands_;
};

}  // namespace tarnwell
