#pragma once

#include <string_view>

namespace tarnwell {

/// Sends the local changes to the service; what timers and the full refresh ask of it. Main thread.
class JournalReplay {
  public:
    virtual ~JournalReplay() = default;
    /// Timer: one pass over the journal.
    virtual void checkJournal() = 0;
    /// Whether a journal entry refers to the item. Called with the store's lock held, from any thread.
    [[nodiscard]] virtual bool refersTo(std::string_view internalName) = 0;
};

}  // namespace tarnwell
