#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "store/RemoteChanges.h"
#include "store/TWMetadataStorage.h"
#include "support/FakeClock.h"
#include "support/ManualExecutors.h"
#include "support/TemporaryFolder.h"

namespace tarnwell::testing {

/// Notes what the store asks of the rooms above it.
class StoreListener final : public DownloadScheduler, public FolderRefresher, public DriveObserver {
  public:
    void addFileDownloadTask(const TWVirtualFilePtr& file, bool isAutomatic) override {
        downloads.push_back((isAutomatic ? "auto " : "user ") + file->UploadName.str());
    }
    void deleteFileDownload(const TWVirtualFilePtr& file) override {
        downloads.push_back("cancel " + file->UploadName.str());
    }
    bool isFileDownloading(const TWVirtualFile& file, bool /*rightNow*/) override {
        return file.UploadName == running;
    }
    void refreshFinderFolders(const std::vector<std::string>& folderIds) override { refreshed = folderIds; }
    void entryChanged(std::string_view parentId, std::string_view name) override {
        changes.push_back("entry " + std::string(parentId) + "/" + std::string(name));
    }
    void attributesChanged(std::string_view id) override {
        changes.push_back("attributes " + std::string(id));
    }
    void contentsChanged(std::string_view id) override { changes.push_back("contents " + std::string(id)); }
    void identityChanged(std::string_view from, std::string_view to) override {
        identities.push_back(std::string(from) + " is " + std::string(to));
    }
    void identitiesExchanged(std::string_view a, std::string_view b) override {
        identities.push_back(std::string(a) + " and " + std::string(b));
    }

    std::string running = "none";
    std::vector<std::string> downloads, refreshed, changes, identities;
};

/// A store on folders of its own with one share "s", shown as "/Share".
class StoreWorld {
  public:
    StoreWorld() {
        layout.initCachePathes();
        store.setDownloadScheduler(&listener);
        store.setFolderRefresher(&listener);
        store.setDriveObserver(&listener);
        share = addShare("s", "Share");
        store.createFolderForShare(*share);
        listener.changes.clear();
    }

    static ManagedSharePtr makeShare(std::string id, std::string name) {
        auto made = std::make_shared<ManagedShare>();
        made->ShareId = std::move(id);
        made->ShareName = std::move(name);
        return made;
    }
    ManagedSharePtr addShare(const std::string& id, const std::string& name) {
        auto added = makeShare(id, name);
        added->DisplayName = name;
        store.insertShare(added);
        return added;
    }
    static TWVirtualFilePtr makeItem(std::string_view id, std::string_view parent, std::string_view name,
                                     bool isFile) {
        auto item = std::make_shared<TWVirtualFile>();
        item->ShareId = "s";
        item->InternalName = id;
        item->ParrentId = parent;
        item->PublicName = name;
        item->IsFile = isFile;
        item->EndOfFile = item->AllocationSize = 1;
        return item;
    }
    static TWVirtualFilePtr folder(std::string_view id, std::string_view parent, std::string_view name) {
        return makeItem(id, parent, name, false);
    }
    static TWVirtualFilePtr file(std::string_view id, std::string_view parent, std::string_view name,
                                 int tick = 1) {
        auto item = makeItem(id, parent, name, true);
        item->Tick = tick;
        item->UploadName = "U" + std::string(id);
        item->UploadUrl = "url";
        return item;
    }
    static TWVirtualFilePtr fileOf(const std::string& shareId, std::string_view id, std::string_view parent,
                                   std::string_view name, int tick = 1) {
        auto made = file(id, parent, name, tick);
        made->ShareId = shareId;
        return made;
    }
    static TWVirtualFilePtr deleted(TWVirtualFilePtr item) {
        item->Deleted = true;
        return item;
    }
    void merge(const std::vector<TWVirtualFilePtr>& page, int largestTick = 1) {
        store.remoteChanges().updateFiles(page, largestTick, share);
    }
    /// The drive path of an id; "-" when it is not stored.
    [[nodiscard]] std::string path(std::string_view id) const {
        const auto item = store.fileWithId(id);
        return item ? item->FullPath.str() : "-";
    }
    /// The id that a drive path leads to; "-" when none.
    [[nodiscard]] std::string at(std::string_view drivePath) const {
        const auto item = store.fileWithPath(drivePath);
        return item ? item->InternalName.str() : "-";
    }
    /// Names in a folder, in order, each followed by a space.
    [[nodiscard]] std::string names(std::string_view parent) {
        std::string text;
        const auto lock = store.beginReadStorage();
        store.directoryItemsWithParent(parent)->forEach(
            [&](const TWVirtualFilePtr& item) { text += item->PublicName.str() + " "; });
        return text;
    }

    TemporaryFolder temporary;
    CacheLayout layout{
        {temporary.path("home"), temporary.path("data"), temporary.path("cache"), "Tarnwell", "Old"}};
    FakeClock clock;
    ManualExecutor background;
    std::atomic<int> saves{0};
    StoreListener listener;
    TWMetadataStorage store{
        {layout, clock, background, [] { return std::string("someone"); }, [this] { ++saves; }}};
    ManagedSharePtr share;
};

}  // namespace tarnwell::testing
