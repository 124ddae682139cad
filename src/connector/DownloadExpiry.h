#pragma once

#include <atomic>

#include "connector/ConnectorEnvironment.h"
#include "connector/JournalReplay.h"

namespace tarnwell {

class ConnectorSession;

/// Drops downloaded contents whose time is over. What is kept locally on purpose, and what the service does
/// not have yet, stays whatever its age.
///
/// Threads: any; blocks on files, so not the main thread.
class DownloadExpiry {
  public:
    DownloadExpiry(const ConnectorEnvironment& environment, ConnectorSession& session);

    /// `hours` a file is kept; -1: as the setting "storeFiles" says.
    void checkDownloadsToDelete(int hours);
    /// Removes what an earlier run of the program left half-done in the downloads folder. Before the first
    /// download.
    void removeLeftovers() const;
    void setJournalReplay(JournalReplay* replay) { replay_ = replay; }

  private:
    const ConnectorEnvironment& environment_;
    ConnectorSession& session_;
    std::atomic<JournalReplay*> replay_{nullptr};
};

}  // namespace tarnwell
