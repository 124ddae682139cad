#include "drive/DriveWorld.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "store/ContentVersion.h"
#include "store/LocalChangeJournal.h"
#include "store/RemoteChanges.h"

namespace tarnwell::testing {

bool FakeMediator::isFileDownloaded(const TWVirtualFilePtr& file) {
    if (failNext_.exchange(false)) throw std::runtime_error("scripted");
    const auto lock = store_->beginReadStorage();
    return store_->holdsContents(*file);
}

std::optional<std::string> FakeMediator::downloadFileChunk(const TWVirtualFilePtr& file,
                                                           std::int64_t position, std::int64_t size) {
    std::unique_lock lock(mutex_);
    ++fetches_;
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !held_; });
    --waiting_;
    const auto version = remote_.find(file->InternalName.str() + "/" + file->UploadName.str());
    const auto found = version != remote_.end() ? version : remote_.find(file->InternalName.str());
    if (found == remote_.end()) return std::nullopt;
    return found->second.substr(static_cast<std::size_t>(position), static_cast<std::size_t>(size) + excess_);
}

DriveWorld::DriveWorld()
    : layout({folder.path(), folder.path("data"), folder.path("cache"), "Tarnwell", ""}),
      store({layout, clock, background, [] { return std::string("user"); }, [] {}}) {
    mediator.setStore(store);
    layout.initCachePathes();
    store.setDriveObserver(&openFiles);
    drive = {new TWFuseFileSystem(store, layout, background, mediator), [this](TWFuseFileSystem* gone) {
                 delete gone;
                 driveGone.set_value();
             }};
}

DriveWorld::~DriveWorld() {
    mediator.release();
}

ManagedSharePtr DriveWorld::addShare(const std::string& id, const std::string& name, std::int32_t aclType) {
    auto share = std::make_shared<ManagedShare>();
    share->ShareId = id;
    share->DisplayName = name;
    share->ShareAcl = ShareACL{};
    share->ShareAcl->AclType = aclType;
    share->CreationDate = share->ModificationDate = clock.now();
    store.insertShare(share);
    store.createFolderForShare(*share);
    return share;
}

TWVirtualFilePtr DriveWorld::add(const std::string& parentId, const std::string& name, bool isFile,
                                 std::int64_t size) {
    const auto lock = store.beginWriteStorage();
    auto file = std::make_shared<TWVirtualFile>();
    const auto parent = store.fileWithId(parentId);
    file->ShareId = parent ? parent->ShareId : SharedString(parentId);
    file->InternalName = TWMetadataStorage::generateFileInternalName();
    file->ParrentId = parentId;
    file->PublicName = name;
    file->IsFile = isFile;
    file->CreationTime = file->LastWriteTime = file->LastAccessTime = clock.now();
    if (isFile) file->AllocationSize = file->EndOfFile = size;
    store.addFileMetadata(file);
    if (isFile) file->UploadName = "version 1";
    return file;
}

TWVirtualFilePtr DriveWorld::addFolder(const std::string& parentId, const std::string& name) {
    return add(parentId, name, false, 0);
}

TWVirtualFilePtr DriveWorld::addCached(const std::string& parentId, const std::string& name,
                                       const std::string& contents) {
    auto file = add(parentId, name, true, static_cast<std::int64_t>(contents.size()));
    const auto path = layout.cachePathForFile(*file);
    std::ofstream(path, std::ios::binary) << contents;
    EXPECT_EQ(ContentVersion::clean(file->UploadName.view()).set(path), 0);
    return file;
}

TWVirtualFilePtr DriveWorld::addRemote(const std::string& parentId, const std::string& name,
                                       const std::string& contents) {
    auto file = add(parentId, name, true, static_cast<std::int64_t>(contents.size()));
    mediator.setRemote(file->InternalName.str(), contents);
    return file;
}

void DriveWorld::rename(const TWVirtualFilePtr& file, const std::string& name) {
    const auto lock = store.beginWriteStorage();
    store.deleteFileMetadata(file);
    file->PublicName = name;
    file->FullPath.reset();
    store.addFileMetadata(file);
}

void DriveWorld::changeRemotely(const std::string& path, const std::string& version,
                                const std::string& contents) {
    TWVirtualFilePtr incoming;
    ManagedSharePtr share;
    {
        const auto lock = store.beginReadStorage();
        const auto file = at(path);
        incoming = std::make_shared<TWVirtualFile>(*file);
        share = store.shareWithId(file->ShareId.view());
    }
    mediator.setRemote(incoming->InternalName.str() + "/" + version, contents);
    incoming->UploadName = version;
    incoming->LocallyUpdated.reset();
    incoming->AllocationSize = incoming->EndOfFile = static_cast<std::int64_t>(contents.size());
    incoming->Tick = incoming->UpdateTick = share->LastApplyedJournalTick + 1;
    store.remoteChanges().updateFiles({incoming}, incoming->Tick, share);
}

std::vector<std::string> DriveWorld::journal() const {
    const auto lock = store.beginReadJournal();
    std::vector<std::string> texts;
    for (const auto& entry : store.journal().journalItems()) {
        std::string text(journalEventName(entry->LocalJournalType));
        text += " " + entry->CurrentPath.str();
        if (entry->File->IsFile && bringsContents(*entry)) text += " " + std::to_string(entry->File->size());
        if (entry->OriginalPath) text += " from " + entry->OriginalPath.str();
        texts.push_back(text);
    }
    return texts;
}

std::string DriveWorld::cached(const std::string& path) const {
    const auto file = at(path);
    std::ifstream bytes(file ? layout.cachePathForFile(*file) : "", std::ios::binary);
    return bytes ? std::string(std::istreambuf_iterator<char>(bytes), {}) : "(none)";
}

}  // namespace tarnwell::testing
