#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "connector/ClientApiRecords.h"
#include "connector/ClientJournalEvent.h"
#include "connector/ConnectorEnvironment.h"
#include "connector/Endpoints.h"
#include "store/LocalJournal.h"

namespace tarnwell {

class ConnectorSession;
class TaskGate;
class Transmissions;
struct UrlReply;

/// The changes without contents over the client API of the gateway, beside those of ItemOperations over the
/// file API, which the replay uses. They end as those do.
///
/// Threads: any; returns at once, the work is done in the background.
class ClientApi {
  public:
    ClientApi(const ConnectorEnvironment& environment, ConnectorSession& session,
              Transmissions& transmissions, TaskGate& gate)
        : environment_(environment), session_(session), transmissions_(transmissions), gate_(gate) {}

    void createFolder(const LocalJournalPtr& entry);
    void deleteItem(const LocalJournalPtr& entry);
    void renameItem(const LocalJournalPtr& entry);
    void moveItem(const LocalJournalPtr& entry);

    /// The entry as an event of the client API, with a copy of its file. Locks the store.
    [[nodiscard]] ClientJournalEvent createEventForLocalJournal(const LocalJournal& entry) const;

  private:
    template <class Response>
    void send(const LocalJournalPtr& entry, std::string method,
              std::function<std::string(const TWVirtualFile&, const ShareAddress&)> request);
    template <class Response>
    void answered(const LocalJournalPtr& entry, const std::string& method, const UrlReply& reply);
    void folderCreated(const LocalJournalPtr& entry, const CreateFolderResponse& response);

    const ConnectorEnvironment& environment_;
    ConnectorSession& session_;
    Transmissions& transmissions_;
    TaskGate& gate_;
};

/// What the messages of a successful answer begin with.
inline constexpr std::string_view kClientApiOk = "101:Ok";

}  // namespace tarnwell
