#include "connector/SyncStatus.h"

#include <algorithm>

#include "connector/DownloadEngine.h"
#include "connector/TaskGate.h"
#include "platform/Executor.h"
#include "store/LocalChangeJournal.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

/// Tests beginnings of paths by their keys.
class Beginning {
  public:
    explicit Beginning(std::string_view path) : key_(keyFromPath(path)) {}
    bool of(std::string_view path) {
        keyFromPath(path, buffer_);
        return buffer_.starts_with(key_);
    }

  private:
    const std::string key_;
    std::string buffer_;
};

}  // namespace

bool SyncStatus::pathHasDownloads(std::string_view path) const {
    const auto queued = downloads_.queuedFiles();
    const auto lock = environment_.store.beginReadStorage();
    Beginning beginning(path);
    return std::any_of(queued.begin(), queued.end(),
                       [&](const auto& file) { return beginning.of(file->FullPath.view()); });
}

bool SyncStatus::hasUploads() const {
    const auto lock = environment_.store.beginReadJournal();
    return !environment_.store.journal().journalItems().empty();
}

bool SyncStatus::pathHasUploads(std::string_view path) const {
    const auto& store = environment_.store;
    const auto lock = store.beginReadJournal();
    Beginning beginning(path);
    const auto items = store.journal().journalItems();
    return std::any_of(items.begin(), items.end(), [&](const LocalJournalPtr& entry) {
        const auto file = store.fileWithId(entry->File->InternalName.view());
        return file && beginning.of(file->FullPath.view());
    });
}

std::int64_t SyncStatus::uploadQueueLen() const {
    return environment_.store.journal().backlog().changes;
}

std::int64_t SyncStatus::uploadQueueBytes() const {
    return environment_.store.journal().backlog().bytes;
}

int SyncStatus::pathIsSynchronized(std::string_view path) const {
    const auto& store = environment_.store;
    const auto lock = store.beginReadStorage();
    if (CacheLayout::isSharePath(path)) {
        const auto share = store.shareWithPath(path);
        return share && share->Synchronize.value_or(false) ? 1 : 0;
    }
    return store.isFileSynchronized(store.fileWithPath(path)) ? 1 : 0;
}

void SyncStatus::refreshSyncStatus(const TWVirtualFilePtr& folder) {
    environment_.background.async(gate_.guard([this, folder] {
        const auto& store = environment_.store;
        if (folder->IsFile) return;
        follow(store.allSiblings(*folder, true), store.isFileSynchronized(folder));
    }));
}

void SyncStatus::refreshShareSyncStatus(const ManagedSharePtr& share) {
    environment_.background.async(gate_.guard([this, share] {
        const auto& store = environment_.store;
        bool synchronized = false;
        std::string root;
        {
            const auto lock = store.beginReadStorage();
            synchronized = share->Synchronize.value_or(false);
            root = store.layout().mountPath() + "/" + share->DisplayName.value_or("");
        }
        setIcon(root);
        follow(store.allShareSiblings(*share, true), synchronized);
    }));
}

void SyncStatus::follow(const std::vector<TWVirtualFilePtr>& items, bool synchronized) {
    auto& store = environment_.store;
    for (const auto& file : items) {
        if (!file->IsFile) continue;
        if (store.terminating()) return;
        if (!synchronized) {
            downloads_.cancelFileDownload(file);
        } else if (!downloads_.isFileDownloaded(*file)) {
            downloads_.addFileDownloadTask(file, true);
        }
        std::string path;
        {
            const auto change = store.beginLocalChange();
            path = store.layout().mountPath() + file->FullPath.str();
            if (!synchronized) {
                file->Synchronize = false;
                store.markChanged(*file);
            }
        }
        setIcon(path);
    }
    store.saveDelayed();
}

void SyncStatus::setIcon(const std::string& forPath) const {
    auto* icons = icons_.load();
    if (icons && !icons->setIcon(forPath))
        TWLog(kLogMain, "Warning! Cannot set correct folder icon for %@", forPath);
}

}  // namespace tarnwell
