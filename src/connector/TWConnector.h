#pragma once

#include <chrono>
#include <memory>

#include "connector/ConnectorEnvironment.h"
#include "connector/ConnectorSession.h"
#include "connector/Notifications.h"

namespace tarnwell {

class CatchUpEngine;
class ClientApi;
class ConnectorReachability;
class DownloadEngine;
class JournalReplayEngine;
class Links;
class LoginEngine;
class SyncStatus;
class UploadEngine;

/// The one client of the service: the face of this room.
///
/// It owns what its parts share and composes one class for each concern: LoginEngine (who the user is and
/// which shares there are), CatchUpEngine (changes made elsewhere), DownloadEngine (file contents),
/// JournalReplayEngine (changes made here, in their order), UploadEngine (contents made here), ClientApi
/// (single changes by hand), SyncStatus, Links.
/// Include the part's header to use it: `connector.login().loginToGlobal()`,
/// `connector.downloads().downloadFileChunk(file, position, size)`.
///
/// Threads: main, unless a part says otherwise. Replies are applied and notifications are posted on the main
/// thread. Failures are logged and announced, never thrown.
class TWConnector {
  public:
    explicit TWConnector(ConnectorEnvironment environment);
    /// As stop(); a task that outlasts even that ends the process, since it would use freed memory.
    ~TWConnector();
    TWConnector(const TWConnector&) = delete;
    TWConnector& operator=(const TWConnector&) = delete;

    /// The connector of the process, for the outermost edges only; set by the composition. Null before and
    /// after.
    static TWConnector* defaultConnector();
    static void setDefaultConnector(TWConnector* connector);

    /// Starts the download worker; expiry and automatic downloads follow 5 s later. Once.
    void startup();
    /// (Re)creates the timers of login, refresh and journal, with the intervals that fastRefresh() selects.
    void setupRefreshTimers();
    /// Ends timers, requests and threads. Calls that still wait for the service fail at once, later ones fail
    /// too. False when a task was still running at the deadline: this object must then not be destroyed.
    /// Idempotent.
    bool stop(std::chrono::milliseconds deadline);

    [[nodiscard]] ConnectorSession& session();
    [[nodiscard]] ConnectorReachability& reachability();
    [[nodiscard]] LoginEngine& login();
    [[nodiscard]] CatchUpEngine& catchUps();
    [[nodiscard]] DownloadEngine& downloads();
    [[nodiscard]] UploadEngine& uploads();
    [[nodiscard]] JournalReplayEngine& replay();
    [[nodiscard]] ClientApi& clientApi();
    [[nodiscard]] SyncStatus& status();
    [[nodiscard]] Links& links();

  private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

}  // namespace tarnwell
