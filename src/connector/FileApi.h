#pragma once

#include <functional>
#include <memory>

#include "connector/ConnectorEnvironment.h"
#include "connector/Endpoints.h"
#include "connector/FileApiRecords.h"
#include "store/LocalJournal.h"

namespace tarnwell {

class ConnectorSession;

/// Journal events on their way to the service's file API. Any thread.
class FileApi {
  public:
    using ResponsePtr = std::shared_ptr<const TWFileJournalResponse>;

    FileApi(const ConnectorEnvironment& environment, ConnectorSession& session)
        : environment_(environment), session_(session) {}

    /// The event that announces an entry, with a copy of the entry's file. Locks the store.
    [[nodiscard]] TWFileJournalEvent createEventForJournal(const LocalJournal& entry,
                                                           const ShareAddress& inShare) const;
    /// Calls `completion` once on `queue`, with null when no usable answer came (and why is logged).
    /// `queue` outlives the request.
    void sendFileApiRequest(const TWFileJournalEvent& event, const ShareAddress& forShare, Executor& queue,
                            std::function<void(ResponsePtr)> completion) const;

  private:
    const ConnectorEnvironment& environment_;
    ConnectorSession& session_;
};

}  // namespace tarnwell
