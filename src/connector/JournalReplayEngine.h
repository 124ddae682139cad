#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "connector/ConnectorEnvironment.h"
#include "connector/JournalReplay.h"
#include "platform/RunLoop.h"
#include "store/LocalJournal.h"
#include "store/ManagedShare.h"
#include "util/Date.h"

namespace tarnwell {

class CatchUpEngine;
class ConnectorReachability;
class ConnectorSession;
class ItemOperations;
class TaskGate;
class Transmissions;
class UploadEngine;

/// Replays the local journal to the service: each share's entries in their order, one on its way at a time,
/// the shares side by side.
///
/// A pass looks at the first entries of each share and starts what is due; it never looks behind an entry
/// that has to wait, so it costs what it starts, however long the journal is. The next pass comes after each
/// operation that ended for good, when the next entry becomes due, and every five seconds. While the internet
/// cannot be reached no pass follows another; the journal timer goes on asking.
///
/// What an entry builds on goes first: the Create of its item and of the folder that it goes to. Where these
/// stand behind it, because they had to be sent again, they are taken in its turn. Nothing else overtakes.
///
/// Threads: main only; refersTo() any.
class JournalReplayEngine final : public JournalReplay {
  public:
    /// What the passes start; all outlive the engine.
    struct Context {
        const ConnectorEnvironment& environment;
        ConnectorSession& session;
        ConnectorReachability& reachability;
        CatchUpEngine& catchUps;
        Transmissions& transmissions;
        UploadEngine& uploads;
        ItemOperations& items;
        TaskGate& gate;
    };
    explicit JournalReplayEngine(const Context& context) : context_(context) {}

    void checkJournal() override;
    [[nodiscard]] bool refersTo(std::string_view internalName) override;
    /// No pass follows any more.
    void stop() { next_.cancel(); }

  private:
    struct Pass;

    void walk(const ManagedShare& share, Pass& pass);
    bool start(const LocalJournalPtr& entry);
    [[nodiscard]] LocalJournalPtr neededFirst(const LocalJournalPtr& entry) const;

    const Context context_;
    // Main thread only.
    Timer next_;
    std::size_t passes_ = 0;
};

}  // namespace tarnwell
