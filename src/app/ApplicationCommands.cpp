// The requests of the command line, carried out by the application object.

#include <utility>

#include "app/TWApplicationDelegate.h"
#include "app/UnsentTexts.h"
#include "connector/CatchUpEngine.h"
#include "connector/DownloadEngine.h"
#include "connector/LoginEngine.h"
#include "connector/SyncStatus.h"
#include "connector/TWConnector.h"
#include "platform/UserDefaults.h"
#include "store/TWMetadataStorage.h"

namespace tarnwell {

StatusReport TWApplicationDelegate::statusReport() {
    StatusReport report;
    switch (login_.phase()) {
        case LoginCoordinator::Phase::kLoggedOut:
            report.state = "loggedOut";
            break;
        case LoginCoordinator::Phase::kConnecting:
            report.state = "connecting";
            break;
        case LoginCoordinator::Phase::kOnline:
            report.state = "online";
            break;
        case LoginCoordinator::Phase::kOffline:
            report.state = "offline";
            break;
    }
    if (!isFinishedInitialization_) report.state = "starting";
    if (termination_.terminating()) report.state = "terminating";

    auto& connector = environment_.connector;
    report.mountPath = environment_.store.layout().mountPath();
    report.user = connector.session().username();
    {
        const auto lock = environment_.store.beginReadStorage();
        for (const auto& share : environment_.store.shares()) {
            report.shares.push_back({share->ShareId.value_or(""), share->DisplayName.value_or(""),
                                     share->LastApplyedJournalTick, share->TransmitCounter,
                                     share->Synchronize.value_or(false)});
        }
    }
    report.downloadQueueLen = connector.downloads().downloadQueueLen();
    report.downloadQueueBytes = connector.downloads().downloadQueueBytes();
    report.uploadQueueLen = connector.status().uploadQueueLen();
    report.uploadQueueBytes = connector.status().uploadQueueBytes();
    report.lastUploadSpeed = connector.session().lastUploadSpeed();
    report.lastDownloadSpeed = connector.session().lastDownloadSpeed();
    report.lastErrors = recentErrors_.list();
    report.keptFiles = static_cast<std::int64_t>(KeptFiles::count(environment_.store.layout()));
    if (report.keptFiles > 0) report.keptFolder = KeptFiles::folderIn(environment_.store.layout());
    return report;
}

void TWApplicationDelegate::reloadSettings() {
    environment_.defaults.synchronize();
    excessiveLogging_ = environment_.defaults.contains("TWExcessiveLogging");
}

void TWApplicationDelegate::login(const std::string& user, const std::string& password, bool discards,
                                  CommandRequests::Answer answer) {
    auto& connector = environment_.connector;
    const std::string present = connector.session().username();
    std::string dropped;
    if (!present.empty() && present != user) {
        const auto unsent = environment_.store.unsentContents().count();
        if (!discards && !unsent.empty()) return answer({false, unsentRefusal(unsent)});
        dropped = unsentDropped(unsent);
        // What lies here belongs to somebody else. The log-out's own handling is posted by this call, the
        // rest after it.
        if (!connector.login().logout()) return answer({false, "the old credentials could not be removed"});
    }
    environment_.mainLoop.async([this, user, password, dropped, answer = std::move(answer)] {
        cacheCleaner_.whenClean([this, user, password, dropped, answer] {
            auto& session = environment_.connector.session();
            if (termination_.terminating()) return answer({false, "the client is ending"});
            session.setUsername(user);
            session.setPassword(password);
            const bool stored = environment_.connector.login().saveCredentials();
            login_.begin();
            answer(stored ? CommandAnswer{true, dropped}
                          : CommandAnswer{false, "logged in, but the credentials could not be stored"});
        });
    });
}

void TWApplicationDelegate::logout(bool discards, CommandRequests::Answer answer) {
    const auto unsent = environment_.store.unsentContents().count();
    if (!discards && !unsent.empty()) return answer({false, unsentRefusal(unsent)});
    const bool removed = environment_.connector.login().logout();
    environment_.mainLoop.async([this, removed, text = unsentDropped(unsent), answer = std::move(answer)] {
        cacheCleaner_.whenClean([removed, text, answer] {
            answer(removed ? CommandAnswer{true, text}
                           : CommandAnswer{false, "the credentials could not be removed"});
        });
    });
}

void TWApplicationDelegate::quit(CommandRequests::Answer answer) {
    termination_.applicationShouldTerminate(
        [this, answer = std::move(answer)](TerminationProtocol::Outcome outcome) {
            if (outcome == TerminationProtocol::Outcome::kTerminating) {
                quitRequests_.push_back(answer);
            } else {
                answer({false, "files of the drive are open: close them, or ask again with SIGTERM twice"});
            }
        });
}

void TWApplicationDelegate::refresh(CommandRequests::Answer answer) {
    auto& connector = environment_.connector;
    if (termination_.terminating()) return answer({false, "the client is ending"});
    if (!connector.login().credentialsAvailable()) return answer({false, "nobody is logged in"});
    connector.catchUps().refresh();
    // Only a login tells of shares that were granted, taken away or renamed; it catches them up once more.
    connector.login().loginToGlobal();
    answer({true, ""});
}

void TWApplicationDelegate::answerQuitRequests() {
    for (const auto& answer : std::exchange(quitRequests_, {}))
        answer({quitProblem_.empty(), quitProblem_});
}

}  // namespace tarnwell
