#pragma once

#include "connector/ConnectorEnvironment.h"
#include "connector/FileApi.h"
#include "store/LocalJournal.h"

namespace tarnwell {

class TaskGate;
class Transmissions;

/// The changes that need no contents: a new folder, another name or place, a deletion. Each is one event of
/// the file API; its answer decides how the operation ends.
///
/// Threads: any; returns at once, the work is done in the background.
class ItemOperations {
  public:
    ItemOperations(const ConnectorEnvironment& environment, FileApi& api, Transmissions& transmissions,
                   TaskGate& gate)
        : environment_(environment), api_(api), transmissions_(transmissions), gate_(gate) {}

    void createFolderNew(const LocalJournalPtr& entry) { begin(entry, Kind::kCreateFolder); }
    void renameItemNew(const LocalJournalPtr& entry) { begin(entry, Kind::kRename); }
    void deleteItemNew(const LocalJournalPtr& entry) { begin(entry, Kind::kDelete); }

  private:
    enum class Kind { kCreateFolder, kRename, kDelete };

    void begin(const LocalJournalPtr& entry, Kind kind);
    void send(const LocalJournalPtr& entry, Kind kind, const ShareAddress& share);
    void answered(const LocalJournalPtr& entry, Kind kind, const TWFileJournalResponse* response);
    void renamedByService(const LocalJournalPtr& entry, Kind kind, const TWFileJournalResponse& response);

    const ConnectorEnvironment& environment_;
    FileApi& api_;
    Transmissions& transmissions_;
    TaskGate& gate_;
};

}  // namespace tarnwell
