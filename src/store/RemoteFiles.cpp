// One catch-up page, record by record.

#include <sys/stat.h>

#include <algorithm>
#include <boost/unordered/unordered_flat_set.hpp>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "store/ContentVersion.h"
#include "store/LocalChangeJournal.h"
#include "store/RemoteChanges.h"
#include "store/TWMetadataStorage.h"
#include "util/Format.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

/// The state of one page. apply() takes each record, finish() settles what only the whole page can tell.
class RemoteChanges::FilesMerge {
  public:
    FilesMerge(TWMetadataStorage& store, const ManagedShare& share, std::optional<std::uint64_t> sendings)
        : store_(store), shareId_(share.ShareId.value_or("")), sendings_(sendings) {}

    void apply(const TWVirtualFilePtr& incoming);
    void finish();
    /// Ids of the folders that show other entries now.
    [[nodiscard]] std::vector<std::string> changedFolders() const;

  private:
    using Ids = boost::unordered_flat_set<SharedString, StoreIndex::TextHash, StoreIndex::TextEqual>;

    [[nodiscard]] bool accepts(TWVirtualFile& incoming);
    void remove(const TWVirtualFile& incoming);
    void markOrphans(const SharedString& folderId);
    void add(const TWVirtualFilePtr& incoming);
    void update(const TWVirtualFilePtr& incoming, const TWVirtualFilePtr& stored);
    [[nodiscard]] bool hasCacheFile(const TWVirtualFile& file);
    void releaseContents(const TWVirtualFile& file, const std::optional<ContentVersion>& version);
    void takeContents(TWVirtualFile& incoming, const TWVirtualFilePtr& stored, bool downloading);
    void settleOrphans();
    void settlePathes();
    void noteFolder(const SharedString& id) {
        if (!id.empty()) changedFolders_.insert(id);
    }

    /// Keeps a line until the lock is released.
    template <class... T>
    void log(std::string_view text, const T&... arguments) {
        lines_.push_back(format(text, arguments...));
    }
    void writeLines();

    TWMetadataStorage& store_;
    const SharedString shareId_;
    const std::optional<std::uint64_t> sendings_;
    Ids orphans_, pathNeeded_, changedFolders_;
    std::vector<SharedString> deletedFolders_;
    std::vector<std::string> lines_;
    std::optional<bool> anyCacheFiles_;  ///< of the share; most pages of a first catch-up find none
};

void RemoteChanges::FilesMerge::apply(const TWVirtualFilePtr& incoming) {
    if (!incoming) return;
    {
        const auto lock = store_.beginWriteStorage();
        if (accepts(*incoming)) {
            if (incoming->Deleted) {
                remove(*incoming);
            } else if (const auto stored = store_.fileWithId(incoming->InternalName.view())) {
                update(incoming, stored);
            } else if (store_.journal().hasPending(incoming->InternalName.view(), kJournalDelete)) {
                log("updateFile: %@ was deleted here, which the service has not heard of. Leaving it "
                    "deleted.",
                    incoming->PublicName);
                store_.journal().putOff(incoming->InternalName.view(), incoming->Tick);
            } else {
                add(incoming);
            }
        }
    }
    writeLines();
}

/// A page speaks for its share only.
bool RemoteChanges::FilesMerge::accepts(TWVirtualFile& incoming) {
    if (!incoming.ShareId) incoming.ShareId = shareId_;
    if (!store_.shareWithId(shareId_.view())) {
        log("Warning! updateFile: %@ ignored, its share is gone.", incoming.PublicName);
        return false;
    }
    if (incoming.InternalName.empty() || (incoming.ParrentId.empty() && !incoming.Deleted)) {
        log("Warning! updateFile: %@ ignored, it has no id or no parent.", incoming.PublicName);
        return false;
    }
    const auto belongsElsewhere = [&](const SharedString& id) {
        const auto other = store_.fileWithId(id.view());
        return other && other->ShareId != shareId_;
    };
    const bool parentElsewhere =
        belongsElsewhere(incoming.ParrentId) ||
        (incoming.ParrentId != shareId_ && store_.shareWithId(incoming.ParrentId.view()));
    if (incoming.ShareId != shareId_ || parentElsewhere || belongsElsewhere(incoming.InternalName) ||
        store_.shareWithId(incoming.InternalName.view())) {
        log("Warning! updateFile: %@ (%@) ignored, it does not belong to share %@.", incoming.PublicName,
            incoming.InternalName, shareId_);
        return false;
    }
    return true;
}

/// Files that come into the cache while the page is merged do not matter: they are stamped as what they are.
bool RemoteChanges::FilesMerge::hasCacheFile(const TWVirtualFile& file) {
    const auto path = store_.layout().cachePathForFile(file);
    if (!anyCacheFiles_) {
        std::error_code error;
        anyCacheFiles_ = !std::filesystem::is_empty(deletingLastPathComponent(path), error) || error;
    }
    struct stat status {};
    return *anyCacheFiles_ && ::lstat(path.c_str(), &status) == 0;
}

/// Removes cached bytes, which are no longer the record's, when the record that says so is in the change log.
/// Bytes that only this machine has are put aside instead.
void RemoteChanges::FilesMerge::releaseContents(const TWVirtualFile& file,
                                                const std::optional<ContentVersion>& version) {
    const bool isOnlyHere = version && version->isEdited();
    if (isOnlyHere && store_.keptFiles_.keep(file, store_.layout().cachePathForFile(file),
                                             "the service has newer contents of the file") != 0) {
        return;
    }
    store_.deleteFileDataLater(file);
}

void RemoteChanges::FilesMerge::remove(const TWVirtualFile& incoming) {
    noteFolder(incoming.ParrentId);
    orphans_.erase(incoming.InternalName);
    const auto stored = store_.fileWithId(incoming.InternalName.view());
    const bool isFolder = !incoming.IsFile || (stored && !stored->IsFile);
    if (isFolder) {
        changedFolders_.erase(incoming.InternalName);
        markOrphans(incoming.InternalName);
        deletedFolders_.push_back(incoming.InternalName);
    }
    if (!stored) return;
    noteFolder(stored->ParrentId);
    if (stored->IsFile && store_.hasUnsentContents(*stored)) {
        log("updateFile: %@ was deleted remotely, but its contents are not sent yet. Leaving our data.",
            stored->FullPath);
        return;
    }
    log("updateFile: deleting %@", stored->FullPath);
    if (stored->IsFile && store_.downloads_) store_.downloads_->deleteFileDownload(stored);
    std::optional<LocalChange> change;
    if (stored->IsFile && hasCacheFile(*stored)) change.emplace(store_);
    releaseContents(*stored, ContentVersion::of(store_.layout().cachePathForFile(*stored)));
    store_.deleteFileMetadata(stored);
}

/// Every descendant may become an orphan. A folder that is marked already was walked then: a tree that is
/// deleted from the top costs no more than its size.
void RemoteChanges::FilesMerge::markOrphans(const SharedString& folderId) {
    std::vector<SharedString> stack{folderId};
    while (!stack.empty()) {
        const SharedString id = std::move(stack.back());
        stack.pop_back();
        const auto* children = store_.index_.children(id.view());
        if (!children) continue;
        children->forEach([&](const TWVirtualFilePtr& file) {
            if (orphans_.insert(file->InternalName).second && !file->IsFile)
                stack.push_back(file->InternalName);
        });
    }
}

void RemoteChanges::FilesMerge::add(const TWVirtualFilePtr& incoming) {
    noteFolder(incoming->ParrentId);
    std::optional<LocalChange> change;
    if (incoming->IsFile && hasCacheFile(*incoming)) {
        // The record was lost, or went while its bytes could not. They count if they are of this version.
        change.emplace(store_);
        const auto version = ContentVersion::of(store_.layout().cachePathForFile(*incoming));
        if (version && !version->isEdited() && version->isOf(incoming->UploadName.view())) {
            incoming->DownloadDate = store_.clock().now();
        } else if (version && version->isOwn()) {
            (void)store_.keptFiles_.keep(*incoming, store_.layout().cachePathForFile(*incoming),
                                         "the record of the file was lost");
        } else {
            store_.deleteFileDataLater(*incoming);
        }
    }
    store_.addFileMetadata(incoming);
    if (incoming->IsFile && store_.downloads_ && store_.isFileSynchronized(incoming)) {
        store_.downloads_->addFileDownloadTask(incoming, true);
    }
    const std::string_view mark = incoming->Deleted ? "[del]" : "";
    if (incoming->FullPath.empty()) {
        pathNeeded_.insert(incoming->InternalName);
        log("updateFile: adding %@ %@(no path yet)", incoming->PublicName, mark);
    } else {
        log("updateFile: adding %@ %@", incoming->FullPath, mark);
    }
}

void RemoteChanges::FilesMerge::update(const TWVirtualFilePtr& incoming, const TWVirtualFilePtr& stored) {
    noteFolder(incoming->ParrentId);
    noteFolder(stored->ParrentId);
    stored->OnlyLocal.reset();
    if (stored->Tick >= incoming->Tick && stored->UploadUrl) return;
    if (sendings_ && store_.journal().replacedSince(*sendings_, *incoming)) {
        log("updateFile: %@ was sent since this page was asked for. Leaving our data.", stored->FullPath);
        return;
    }

    const bool downloading = store_.downloads_ && store_.downloads_->isFileDownloading(*stored, false);
    incoming->POSIXPermissions = stored->POSIXPermissions;
    incoming->Synchronize = stored->Synchronize;
    incoming->DownloadDate = stored->DownloadDate;
    if (store_.journal().hasPendingPlace(stored->InternalName.view())) {
        // Where the user has put it counts, until the service has heard of that. What it makes of it may be
        // the place of this page, without a new tick: that is asked for again then, and accepted.
        if (incoming->PublicName != stored->PublicName || incoming->ParrentId != stored->ParrentId) {
            store_.journal().putOff(stored->InternalName.view(), incoming->Tick);
            incoming->UploadUrl.reset();
        }
        incoming->PublicName = stored->PublicName;
        incoming->ParrentId = stored->ParrentId;
    }
    std::optional<LocalChange> change;
    if (stored->IsFile && incoming->UploadName != stored->UploadName) {
        if (hasCacheFile(*stored)) change.emplace(store_);
        takeContents(*incoming, stored, downloading);
    }
    if (store_.hasUnsentContents(*stored)) {
        // The record keeps its ticks: they say which contents the user has seen.
        store_.journal().putOff(stored->InternalName.view(), incoming->Tick);
        return;
    }
    store_.journal().forgetSent(stored->InternalName.view());

    store_.addFileMetadata(incoming);
    if (incoming->FullPath.empty()) pathNeeded_.insert(incoming->InternalName);
    if (store_.downloads_ && incoming->IsFile) {
        const bool synchronized = store_.isFileSynchronized(incoming);
        if (synchronized || downloading) store_.downloads_->addFileDownloadTask(incoming, synchronized);
    }
    log("updateFile: updating %@ since it has larger tick %d", incoming->PublicName, incoming->Tick);
}

/// The service has other contents than the stored record.
void RemoteChanges::FilesMerge::takeContents(TWVirtualFile& incoming, const TWVirtualFilePtr& stored,
                                             bool downloading) {
    if (store_.hasUnsentContents(*stored)) {
        log("updateFile : remote file updated and different from ours, but we also updated. Leaving our "
            "data.");
        return;
    }
    if (stored->LastUploadName == incoming.UploadName) stored->LastUploadName.reset();
    const auto version = ContentVersion::of(store_.layout().cachePathForFile(*stored));
    // What we sent ourselves comes back: the cached bytes are these.
    const bool isThat = version && !version->isEdited() && version->isOf(incoming.UploadName.view());
    if (!isThat) {
        log("updateFile: %@ : deleting file data because of newer data.",
            incoming.FullPath.empty() ? incoming.PublicName : incoming.FullPath);
        // Open files keep their descriptors.
        releaseContents(*stored, version);
        store_.noteContentsChanged(*stored);
        incoming.DownloadDate.reset();
    }
    if (downloading) store_.downloads_->deleteFileDownload(stored);
}

void RemoteChanges::FilesMerge::finish() {
    settleOrphans();
    settlePathes();
}

/// What hung below a deleted folder moves under the orphan folder, unless the page brought the folder back.
void RemoteChanges::FilesMerge::settleOrphans() {
    for (const auto& id : deletedFolders_) {
        const auto lock = store_.beginWriteStorage();
        if (!store_.fileWithId(id.view())) store_.index_.refreshChildren(id.view());
    }
    for (const auto& id : orphans_) {
        {
            const auto lock = store_.beginReadStorage();
            const auto file = store_.fileWithId(id.view());
            if (!file) {
                log("Warning: file with id %@ marked as orphaned, but not found.", id);
            } else if (file->FullPath.empty() ||
                       file->FullPath.view().starts_with(StoreIndex::kOrphanFolder)) {
                log("Marking file %@ as orphaned.", file->PublicName);
            }
        }
        writeLines();
    }
}

void RemoteChanges::FilesMerge::settlePathes() {
    StoreIndex::Settled settled;
    for (const auto& id : pathNeeded_) {
        {
            const auto lock = store_.beginWriteStorage();
            const auto file = store_.fileWithId(id.view());
            if (!file) {
                log("Warning: file with id %@ marked as path needed, but not found.", id);
            } else {
                store_.index_.settlePath(file, settled);
                if (file->FullPath.empty()) log("Warning: cannot build path for file %@.", file->PublicName);
            }
        }
        writeLines();
    }
}

void RemoteChanges::FilesMerge::writeLines() {
    for (const auto& line : lines_) {
        TWLogText(kLogMain, line);
    }
    lines_.clear();
}

std::vector<std::string> RemoteChanges::FilesMerge::changedFolders() const {
    std::vector<std::string> ids;
    ids.reserve(changedFolders_.size());
    for (const auto& id : changedFolders_) {
        ids.push_back(id.str());
    }
    return ids;
}

void RemoteChanges::updateFiles(const std::vector<TWVirtualFilePtr>& files, std::int32_t largestTick,
                                const ManagedSharePtr& forShare, const std::optional<Asked>& asked) {
    const ShutdownBlock block(store_);
    {
        auto lock = store_.beginReadStorage();
        const std::int32_t tick = forShare->LastApplyedJournalTick;
        const std::string name = forShare->DisplayName.value_or("");
        lock.unlock();
        if (tick != largestTick) {
            TWLog(kLogMain, "Updating share %@ from tick %d to tick %d. Files in update %d.", name, tick,
                  largestTick, files.size());
        }
    }

    FilesMerge merge(store_, *forShare, asked ? std::optional(asked->sendings) : std::nullopt);
    for (const auto& file : files) {
        merge.apply(file);
    }
    merge.finish();
    if (const auto changed = merge.changedFolders(); !changed.empty() && store_.refresher_) {
        store_.refresher_->refreshFinderFolders(changed);
    }

    {
        const auto lock = store_.beginWriteStorage();
        // A login may have put a new record in the share's place while the page was on its way.
        const auto stored = store_.shareWithId(forShare->ShareId.value_or(""));
        for (const auto& share : {forShare, stored}) {
            if (!share) continue;
            if (!files.empty()) share->ModificationDate = store_.clock().now();
            // What is to be asked for again since is below this page.
            const bool again = asked && share->LastApplyedJournalTick < asked->tick;
            if (!again) share->LastApplyedJournalTick = largestTick;
        }
        if (stored && !files.empty() && store_.observer_) {
            store_.observer_->attributesChanged(*stored->ShareId);
        }
        store_.storageEmpty_ = false;
    }
    store_.saveDelayed();
}

RemoteChanges::Asked RemoteChanges::asking(const ManagedShare& share) const {
    const auto lock = store_.beginReadStorage();
    return {share.LastApplyedJournalTick, store_.journal().sendings()};
}

void RemoteChanges::askAgain(std::string_view shareId, std::int32_t after) {
    const auto change = store_.beginLocalChange();
    const auto share = store_.shareWithId(shareId);
    if (!share || share->LastApplyedJournalTick <= after) return;
    share->LastApplyedJournalTick = std::max(after, -1);
    store_.noteShareChanged(*share);
}

void RemoteChanges::startOver(std::string_view shareId, std::int32_t tick) {
    const auto change = store_.beginLocalChange();
    for (const auto& file : store_.allFiles()) {
        if (file->ShareId != shareId || file->Tick <= tick) continue;
        file->Tick = -1;
        store_.markChanged(*file);
    }
    store_.journal().forgetTicks(shareId, tick);
    askAgain(shareId, -1);
}

}  // namespace tarnwell
