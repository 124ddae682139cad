#include "connector/CatchUpEngine.h"

#include <limits>
#include <utility>

#include "connector/ConnectorReachability.h"
#include "connector/ConnectorSession.h"
#include "connector/Endpoints.h"
#include "connector/OSXCatchUpResponse.h"
#include "connector/StoreQueries.h"
#include "connector/TaskGate.h"
#include "platform/RunLoop.h"
#include "platform/UrlLoader.h"
#include "platform/UserDefaults.h"
#include "store/RemoteChanges.h"
#include "store/TWMetadataStorage.h"
#include "util/RecordMapping.h"
#include "util/TWLogger.h"

namespace tarnwell {

/// One page request.
struct CatchUpEngine::Page {
    std::string shareId;
    std::string shareName;
    std::int32_t tick = 0;
    std::uint64_t epoch = 0;
    RemoteChanges::Asked asked;
};

CatchUpEngine::CatchUpEngine(const ConnectorEnvironment& environment, ConnectorSession& session,
                             ConnectorReachability& reachability, TaskGate& gate)
    : environment_(environment), session_(session), reachability_(reachability), gate_(gate) {}

void CatchUpEngine::catchUp(const ManagedSharePtr& share) {
    if (!reachability_.internetReachable()) return;
    if (inFullRefresh_) {
        TWLog(kLogMain, "catchUp for share: doing full refresh now, catchup postponed.");
        return;
    }
    std::int32_t tick = 0;
    {
        const auto lock = environment_.store.beginWriteStorage();
        // A share that was never caught up starts below the first tick.
        if (share->LastApplyedJournalTick == 0) share->LastApplyedJournalTick = -1;
        tick = share->LastApplyedJournalTick;
    }
    sendCatchupRequest(share, tick);
}

void CatchUpEngine::catchUpOnceMore(const ManagedSharePtr& share) {
    std::string shareId;
    {
        const auto lock = environment_.store.beginReadStorage();
        shareId = share->ShareId.value_or("");
    }
    if (inFullRefresh_ || active_.contains(shareId)) {
        onceMore_.insert(shareId);
    } else {
        catchUp(share);
    }
}

void CatchUpEngine::askOnceMore(const std::string& shareId) {
    if (inFullRefresh_ || active_.contains(shareId) || onceMore_.erase(shareId) == 0) return;
    // After a failure the refresh timer asks.
    if (failed_.contains(shareId)) return;
    if (const auto share = environment_.store.shareWithId(shareId)) catchUp(share);
}

bool CatchUpEngine::sendCatchupRequest(const ManagedSharePtr& share, std::int32_t startTick) {
    ShareAddress address;
    {
        const auto lock = environment_.store.beginReadStorage();
        address = shareAddress(*share);
    }
    // A request counts as failed until it succeeds.
    failed_.insert(address.shareId);
    const auto domain = session_.domainWithId(address.domainId);
    if (!reachability_.domainReachable(domain)) {
        TWLog(kLogMain, "sendCatchupRequest: domain %@ is not reachable, will try again later.",
              domain ? domain->Url.value_or("(null)") : address.domainId);
        return false;
    }
    const auto [entry, isNew] = active_.try_emplace(address.shareId, startTick);
    if (!isNew && entry->second <= startTick) {
        TWLog(kLogMain, "sendCatchupRequest: share %@ is already being catched up from tick %d.",
              address.shareName, entry->second);
        return false;
    }
    entry->second = startTick;
    TWLog(kLogMain, "sendCatchupRequest: catching up share %@ from tick %d.", address.shareName, startTick);
    Page page{address.shareId, address.shareName, startTick, epoch_,
              environment_.store.remoteChanges().asking(*share)};
    environment_.urlLoader.sendAsynchronously(
        endpoints::catchUp(address, startTick, kPageSize), environment_.catchUpQueue,
        gate_.guard([this, page = std::move(page)](const UrlReply& reply) { pageAnswered(page, reply); }));
    return true;
}

void CatchUpEngine::pageAnswered(const Page& page, const UrlReply& reply) {
    std::shared_ptr<OSXCatchUpResponse> responce;
    if (!reply.succeeded()) {
        TWLog(kLogMain, "Warning! Error with catchup responce for share %@: %@, HTTP status code: %d",
              page.shareName, errorText(reply.error), reply.status);
    } else {
        std::string error;
        try {
            responce = parseRecord<OSXCatchUpResponse>(reply.body, error);
        } catch (const std::exception& failure) {
            error = failure.what();
        }
        if (!responce) {
            TWLog(kLogMain, "Warning! Cannot parse catchup responce for share %@: error %@. Responce is %@",
                  page.shareName, error, forLog(reply.body));
        }
    }
    environment_.mainLoop.async(
        gate_.guard([this, page, responce = std::move(responce)] { finishPage(page, responce.get()); }));
}

void CatchUpEngine::finishPage(const Page& page, const OSXCatchUpResponse* responce) {
    if (page.epoch != epoch_) return;
    // Before the page is applied: whatever the merge does, the share can be asked again.
    if (const auto entry = active_.find(page.shareId); entry != active_.end() && entry->second == page.tick) {
        TWLog(kLogMain, "sendCatchupRequest: removing catchup info for share %@, tick %d.", page.shareName,
              page.tick);
        active_.erase(entry);
    }
    // A gateway login may have replaced the share's record, or removed it, while the page was on its way.
    auto lock = environment_.store.beginReadStorage();
    const auto share = environment_.store.shareWithId(page.shareId);
    lock.unlock();
    const bool applied = responce && share && applyPage(page, *responce, share);
    if (applied && environment_.store.remoteChanges().asking(*share).tick < page.asked.tick) {
        // Something below this page is wanted again: from there, all of it.
        onceMore_.insert(page.shareId);
    } else if (applied && responce->TwVirtualFiles.size() >= static_cast<std::size_t>(kPageSize) &&
               page.tick <= std::numeric_limits<std::int32_t>::max() - kPageSize) {
        // Pages follow each other by start tick, not by the largest tick seen: a page may answer ticks of the
        // next one as well, which come twice then and are never missed.
        TWLog(kLogMain, "sendCatchupRequest: continuing catchup for share %@, tick %d.", page.shareName,
              page.tick);
        sendCatchupRequest(share, page.tick + kPageSize);
    }
    askOnceMore(page.shareId);
    finishFullRefreshIfIdle();
}

bool CatchUpEngine::applyPage(const Page& page, const OSXCatchUpResponse& responce,
                              const ManagedSharePtr& share) {
    try {
        if (!responce.TwVirtualFiles.empty()) {
            environment_.store.remoteChanges().updateFiles(responce.TwVirtualFiles, responce.LargestTick,
                                                           share, page.asked);
        }
    } catch (const std::exception& error) {
        TWLog(kLogMain, "Error! Cannot apply catchup responce for share %@: %@", page.shareName,
              error.what());
        return false;
    }
    failed_.erase(page.shareId);
    return true;
}

void CatchUpEngine::refresh() {
    if (environment_.store.terminating()) {
        TWLog(kLogMain, "CatchUp: app is terminating, skipping share refresh.");
        return;
    }
    if (session_.needsFullRefresh()) {
        TWLog(kLogMain, "CatchUp: refresh cancelled - doing full refresh now.");
        refreshAfterFailure();
        return;
    }
    for (const auto& share : allShares())
        catchUp(share);
}

void CatchUpEngine::refreshAfterFailure() {
    TWLog(kLogMain, "Refresh after failure requested : doing full catchup for all shares.");
    if (!reachability_.internetReachable()) {
        TWLog(kLogMain, "refreshAfterFailure: internet is not reachable, exiting");
        return;
    }
    if (inFullRefresh_) {
        TWLog(kLogMain, "refreshAfterFailure: Already doing full refresh - exiting.");
        return;
    }
    {
        const auto lock = environment_.store.beginWriteStorage();
        for (const auto& file : environment_.store.allFiles())
            file->OnlyLocal = true;
    }
    inFullRefresh_ = true;
    const auto shares = allShares();
    bool asked = false;
    for (const auto& share : shares) {
        // A page from an earlier tick that is on its way serves as well.
        asked |= sendCatchupRequest(share, 0) || active_.contains(share->ShareId.value_or(""));
    }
    if (asked) return;
    if (shares.empty()) {
        fullRefreshFinished();
    } else {
        // No domain could be asked. The need stays on record: the refresh timer tries again.
        inFullRefresh_ = false;
    }
}

std::vector<ManagedSharePtr> CatchUpEngine::allShares() const {
    const auto lock = environment_.store.beginReadStorage();
    return environment_.store.shares();
}

void CatchUpEngine::finishFullRefreshIfIdle() {
    if (inFullRefresh_ && active_.empty()) fullRefreshFinished();
}

void CatchUpEngine::fullRefreshFinished() {
    TWLog(kLogMain, "Full refresh finished : checking if there are missing uploads.");
    std::vector<std::string> onlyLocal;
    {
        const auto lock = environment_.store.beginWriteStorage();
        for (const auto& file : environment_.store.allFiles()) {
            if (!file->OnlyLocal.value_or(false)) continue;
            // The listing of such a share is incomplete: that a file was not in it means nothing.
            if (failed_.contains(file->ShareId.str())) continue;
            if (CacheLayout::isPathIgnored(file->FullPath.view(), !file->IsFile)) continue;
            if (replay_ && replay_->refersTo(file->InternalName.view())) continue;
            onlyLocal.push_back(file->FullPath.str());
            file->OnlyLocal.reset();
        }
    }
    for (const auto& path : onlyLocal)
        TWLog(kLogMain, "Found only local file %@ : adding it to journal.", path);
    TWLog(kLogMain, "Finished checking for missing uploads.");
    inFullRefresh_ = false;
    session_.setNeedsFullRefresh(false);
    environment_.userDefaults.remove("needsFullRefresh");
    environment_.userDefaults.synchronize();
    for (const auto& shareId : std::exchange(onceMore_, {})) {
        if (const auto share = environment_.store.shareWithId(shareId)) catchUp(share);
    }
}

void CatchUpEngine::cancelAll() {
    ++epoch_;
    active_.clear();
    failed_.clear();
    onceMore_.clear();
    inFullRefresh_ = false;
}

}  // namespace tarnwell
