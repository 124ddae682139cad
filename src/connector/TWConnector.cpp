#include "connector/TWConnector.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <utility>

#include "connector/CatchUpEngine.h"
#include "connector/ClientApi.h"
#include "connector/ConnectorReachability.h"
#include "connector/DownloadEngine.h"
#include "connector/FileApi.h"
#include "connector/ItemOperations.h"
#include "connector/JournalReplayEngine.h"
#include "connector/Links.h"
#include "connector/LoginEngine.h"
#include "connector/SyncStatus.h"
#include "connector/TaskGate.h"
#include "connector/Transmissions.h"
#include "connector/UploadEngine.h"
#include "platform/RunLoop.h"
#include "platform/UrlLoader.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

constexpr std::chrono::seconds kHousekeepingDelay{5};
constexpr std::chrono::seconds kStopDeadline{10};

struct RefreshIntervals {
    std::chrono::seconds login, refresh, journal;
};
constexpr RefreshIntervals kNormal{std::chrono::seconds(1200), std::chrono::seconds(300),
                                   std::chrono::seconds(5)};
/// The journal is checked less often here, on purpose: it is the remote side that is in a hurry.
constexpr RefreshIntervals kFast{std::chrono::seconds(300), std::chrono::seconds(60),
                                 std::chrono::seconds(60)};

std::atomic<TWConnector*> theConnector{nullptr};

}  // namespace

/// The parts in the order in which they need each other; the gate ends last.
struct TWConnector::Parts {
    explicit Parts(ConnectorEnvironment world)
        : environment(std::move(world)),
          session(environment.userDefaults, environment.identity),
          reachability(environment.reachability, environment.identity,
                       gate.guard([this] { globalReachable(); })),
          catchUps(environment, session, reachability, gate),
          login({environment, session, reachability, catchUps, gate}),
          downloads(environment, session, reachability, gate),
          fileApi(environment, session),
          transmissions(environment, [this] { passWanted(); }),
          uploads({environment, session, fileApi, transmissions, downloads, gate}),
          items(environment, fileApi, transmissions, gate),
          replay({environment, session, reachability, catchUps, transmissions, uploads, items, gate}),
          clientApi(environment, session, transmissions, gate),
          status(environment, downloads, gate),
          links(environment, session, gate) {
        catchUps.setJournalReplay(&replay);
        downloads.setJournalReplay(&replay);
    }

    /// On a thread of the monitor's.
    void globalReachable() {
        environment.mainLoop.async(gate.guard([this] {
            login.globalBecameReachable();
            replay.checkJournal();
        }));
    }
    /// On any thread.
    void passWanted() {
        environment.mainLoop.async(gate.guard([this] { replay.checkJournal(); }));
    }

    const ConnectorEnvironment environment;
    TaskGate gate;
    ConnectorSession session;
    ConnectorReachability reachability;
    CatchUpEngine catchUps;
    LoginEngine login;
    DownloadEngine downloads;
    FileApi fileApi;
    Transmissions transmissions;
    UploadEngine uploads;
    ItemOperations items;
    JournalReplayEngine replay;
    ClientApi clientApi;
    SyncStatus status;
    Links links;

    // Main thread only.
    Timer housekeeping, loginTimer, refreshTimer, journalTimer;
};

TWConnector::TWConnector(ConnectorEnvironment environment)
    : parts_(std::make_unique<Parts>(std::move(environment))) {}

TWConnector::~TWConnector() {
    if (stop(kStopDeadline)) return;
    TWLog(kLogMain, "Fatal: a task of the connector does not end.");
    std::abort();
}

TWConnector* TWConnector::defaultConnector() {
    return theConnector;
}

void TWConnector::setDefaultConnector(TWConnector* connector) {
    theConnector = connector;
}

void TWConnector::startup() {
    parts_->downloads.start();
    parts_->housekeeping =
        parts_->environment.mainLoop.postAfter(kHousekeepingDelay, parts_->gate.guard([this] {
            parts_->downloads.performCheckDownloadsToDelete();
            parts_->downloads.checkAutomaticDownloads();
        }));
}

void TWConnector::setupRefreshTimers() {
    const auto& intervals = parts_->session.fastRefresh() ? kFast : kNormal;
    auto& loop = parts_->environment.mainLoop;
    const auto& gate = parts_->gate;
    parts_->loginTimer = loop.repeat(intervals.login, gate.guard([this] { parts_->login.loginToGlobal(); }));
    parts_->refreshTimer = loop.repeat(intervals.refresh, gate.guard([this] { parts_->catchUps.refresh(); }));
    parts_->journalTimer =
        loop.repeat(intervals.journal, gate.guard([this] { parts_->replay.checkJournal(); }));
    parts_->replay.checkJournal();
}

bool TWConnector::stop(std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    const auto left = [&] {
        return std::max(std::chrono::milliseconds::zero(),
                        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()));
    };
    for (Timer* timer :
         {&parts_->housekeeping, &parts_->loginTimer, &parts_->refreshTimer, &parts_->journalTimer}) {
        timer->cancel();
    }
    parts_->replay.stop();
    parts_->gate.shut();
    parts_->reachability.stop();
    // What waits for a reply gets one now, and leaves.
    parts_->environment.urlLoader.stop();
    const bool workerEnded = parts_->downloads.stop(left());
    return parts_->gate.close(left()) && workerEnded;
}

ConnectorSession& TWConnector::session() {
    return parts_->session;
}

ConnectorReachability& TWConnector::reachability() {
    return parts_->reachability;
}

LoginEngine& TWConnector::login() {
    return parts_->login;
}

CatchUpEngine& TWConnector::catchUps() {
    return parts_->catchUps;
}

DownloadEngine& TWConnector::downloads() {
    return parts_->downloads;
}

UploadEngine& TWConnector::uploads() {
    return parts_->uploads;
}

JournalReplayEngine& TWConnector::replay() {
    return parts_->replay;
}

ClientApi& TWConnector::clientApi() {
    return parts_->clientApi;
}

SyncStatus& TWConnector::status() {
    return parts_->status;
}

Links& TWConnector::links() {
    return parts_->links;
}

}  // namespace tarnwell
