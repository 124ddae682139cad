#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "connector/ConnectorEnvironment.h"
#include "platform/RunLoop.h"
#include "store/LocalJournal.h"

namespace tarnwell {

class ConnectorSession;
class DownloadEngine;
class FileApi;
class TaskGate;
class Transmissions;

/// Sends the contents of journal entries (Create and Update of files) through the file API; see Upload.
///
/// Threads: any; starting an upload returns at once.
class UploadEngine {
  public:
    /// What an upload works with; all outlive the engine.
    struct Context {
        const ConnectorEnvironment& environment;
        ConnectorSession& session;
        FileApi& api;
        Transmissions& transmissions;
        const DownloadEngine& downloads;
        TaskGate& gate;
    };
    explicit UploadEngine(const Context& context) : context_(context) {}

    /// Sends the entry's contents in the background; how it ended is told by Transmissions and by the upload
    /// notifications. REQUIRES: the entry is queued and not being sent.
    void uploadFileChangeNew(const LocalJournalPtr& entry);

    /// MD5 of a file and of bytes, as hash text. A file that cannot be opened is logged and gives the hash of
    /// no data. Blocks on the disk.
    [[nodiscard]] static std::string calculateFileHash(const std::string& path);
    [[nodiscard]] static std::string calculateChunkHash(std::string_view bytes);

    /// For the uploads: runs `task` on the main thread after a pause, unless the connector ends before.
    void pause(std::chrono::milliseconds delay, std::function<void()> task);

  private:
    const Context context_;
    std::mutex mutex_;
    std::map<std::uint64_t, Timer> pauses_;  // guarded by mutex_
    std::uint64_t lastPause_ = 0;            // guarded by mutex_
};

}  // namespace tarnwell
