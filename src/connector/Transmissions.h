#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "connector/ConnectorEnvironment.h"
#include "connector/Endpoints.h"
#include "store/LocalJournal.h"

namespace tarnwell {

class LocalChangeJournal;

/// The operations that are on their way to the service: how one begins, and the three ways in which it ends.
///
/// An entry is taken from the journal for one operation at a time, and a share for one entry at a time; the
/// share's `TransmitCounter` shows that. Each ending is one step of the store: record, journal and counter
/// change under one hold of its lock. An operation ends once: a second ending does nothing. While the program
/// ends, endings do nothing at all: the entry is sent again, or goes on, after the restart.
///
/// An entry may have left the journal before its operation ends, with its share or with the whole store; its
/// ending then only tidies up.
///
/// Threads: any; own state is guarded by the store's lock.
class Transmissions {
  public:
    /// Operations at one gateway at once: downloads, reads and catch-ups go to the same hosts.
    static constexpr std::size_t kMostAtOneGateway = 4;

    /// `passWanted` is called on any thread, without locks, when the journal should be looked at again.
    Transmissions(const ConnectorEnvironment& environment, std::function<void()> passWanted);

    /// Whether nothing of the share is on its way, and its gateway is not busy. REQUIRES LOCK.
    [[nodiscard]] bool mayBegin(std::string_view shareId, const std::string& gateWayUrl) const;
    /// Marks the entry as being sent. None, with nothing changed, when its share is not stored.
    /// REQUIRES LOCK.
    std::optional<ShareAddress> begin(const LocalJournalPtr& entry);
    /// Whether the entry is still to be sent: its share and itself are there.
    [[nodiscard]] bool wanted(const LocalJournal& entry) const;

    /// The service has the change: the entry goes, and a Catch-up brings what the service made of it.
    void deleteSucceededRequest(const LocalJournalPtr& entry);
    /// The change cannot be sent, ever: the entry goes. Contents that the service has not got are put into
    /// the folder of kept files, or where that fails the entry is tried again later. Nothing is claimed of
    /// the item any more, and what the service has of it is asked for again. `theirs`: what it said of the
    /// item.
    void deleteFailedRequest(const LocalJournalPtr& entry, const TWVirtualFilePtr& theirs = nullptr);
    /// The service has another state of the item than the change meant, which a catch-up brings.
    void takeTheirs(const LocalJournal& entry, const TWVirtualFilePtr& theirs);
    /// Tries again later. Contents go to the end of the journal, or join newer ones.
    void retransmitRequest(const LocalJournalPtr& entry);

    /// The service gave the item another name, because ours was taken: record and entry take it, unless the
    /// user moved the item on meanwhile or the name is none.
    void takeServerName(const LocalJournalPtr& entry, std::string_view name);

    /// Runs a step of an operation; what it throws ends the operation as one to be tried again.
    template <class Step>
    void guarded(const LocalJournalPtr& entry, Step step) {
        try {
            step();
        } catch (const std::exception& error) {
            faulted(entry, error.what());
        }
    }

  private:
    struct Operation {
        std::string shareId, gateWayUrl;
    };

    bool leave(const LocalJournalPtr& entry);
    [[nodiscard]] bool keepContents(const TWVirtualFile& file, std::string_view reason);
    void syncContents(const LocalJournal& entry) const;
    void resetRecord(const LocalJournal& entry);
    void showCounter(const std::string& shareId) const;
    void faulted(const LocalJournalPtr& entry, std::string_view reason);

    const ConnectorEnvironment& environment_;
    LocalChangeJournal& journal_;
    const std::function<void()> passWanted_;
    std::unordered_map<LocalJournalPtr, Operation> operations_;  // guarded by the store's lock
};

}  // namespace tarnwell
