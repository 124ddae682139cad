#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "connector/ConnectorEnvironment.h"
#include "connector/JournalReplay.h"
#include "store/ManagedShare.h"

namespace tarnwell {

class ConnectorReachability;
class ConnectorSession;
class TaskGate;
struct OSXCatchUpResponse;
struct UrlReply;

/// Brings the changes made elsewhere: asks each share's gateway for what happened since the last tick that is
/// applied here, in pages, and hands the pages to the store.
///
/// A share is idle, or has one page in flight (its start tick stands in the active map). A share whose last
/// page did not succeed stands in the failed map until one does; the refresh timer asks again. A full refresh
/// asks every share from its first tick and afterwards knows which files exist only here.
///
/// Threads: main only. Replies are parsed on the catch-up queue; everything else, the two maps included,
/// stays on the main thread, which is why they need no lock.
class CatchUpEngine {
  public:
    /// Files asked for per page, and the distance of the pages' start ticks.
    static constexpr std::int32_t kPageSize = 10000;

    CatchUpEngine(const ConnectorEnvironment& environment, ConnectorSession& session,
                  ConnectorReachability& reachability, TaskGate& gate);

    /// Catches up one share from its last applied tick. Silent while offline, postponed during a full
    /// refresh.
    void catchUp(const ManagedSharePtr& share);
    /// As catchUp(), for what the service did a moment ago: a page that is on its way may be older than that,
    /// so the share is asked once more behind it, as it is behind a full refresh.
    void catchUpOnceMore(const ManagedSharePtr& share);
    /// Asks for one page. False when nothing was sent: the domain is unreachable or that page is on its way
    /// already.
    bool sendCatchupRequest(const ManagedSharePtr& share, std::int32_t startTick);
    /// Timer: catches up all shares, or runs the full refresh that is due.
    void refresh();
    /// Full refresh of all shares.
    void refreshAfterFailure();

    /// Forgets every request in flight: their replies change nothing any more.
    void cancelAll();
    void setJournalReplay(JournalReplay* replay) { replay_ = replay; }

    [[nodiscard]] bool inFullRefresh() const { return inFullRefresh_; }
    /// The share's last page did not succeed, or is still on its way.
    [[nodiscard]] bool failed(const std::string& shareId) const { return failed_.contains(shareId); }

  private:
    struct Page;

    void pageAnswered(const Page& page, const UrlReply& reply);
    void finishPage(const Page& page, const OSXCatchUpResponse* responce);
    bool applyPage(const Page& page, const OSXCatchUpResponse& responce, const ManagedSharePtr& share);
    [[nodiscard]] std::vector<ManagedSharePtr> allShares() const;
    void askOnceMore(const std::string& shareId);
    void finishFullRefreshIfIdle();
    void fullRefreshFinished();

    const ConnectorEnvironment& environment_;
    ConnectorSession& session_;
    ConnectorReachability& reachability_;
    TaskGate& gate_;
    JournalReplay* replay_ = nullptr;

    // Main thread only.
    std::unordered_map<std::string, std::int32_t> active_;  // share id -> start tick of the page in flight
    std::unordered_set<std::string> failed_;
    std::unordered_set<std::string> onceMore_;  // shares to be asked again when nothing is on its way
    bool inFullRefresh_ = false;
    std::uint64_t epoch_ = 0;  // replies to requests of an earlier epoch are dropped
};

}  // namespace tarnwell
