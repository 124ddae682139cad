#include "store/TWMetadataStorage.h"

#include <atomic>

#include "store/Enums.h"
#include "store/LocalChangeJournal.h"
#include "store/RemoteChanges.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

std::atomic<TWMetadataStorage*> sharedStore{nullptr};

/// How far up "keep local" is inherited.
constexpr int kMaxInheritedLevels = 100;

}  // namespace

TWMetadataStorage* TWMetadataStorage::shared() {
    return sharedStore;
}
void TWMetadataStorage::setShared(TWMetadataStorage* store) {
    sharedStore = store;
}

void TWMetadataStorage::setDriveObserver(DriveObserver* observer) {
    const auto lock = beginWriteStorage();
    observer_ = observer;
}

void TWMetadataStorage::setJournalObserver(JournalObserver* observer) {
    const auto lock = beginWriteStorage();
    journalObserver_ = observer;
}

void TWMetadataStorage::noteJournalChanged(std::string_view internalName) const {
    const auto lock = beginReadStorage();
    if (journalObserver_) journalObserver_->journalChanged(internalName);
}

LocalChange::LocalChange(TWMetadataStorage& store)
    : lock_(store.beginWriteStorage()), changes_(store.changes_) {
    changes_.beginChange();
}

LocalChange::~LocalChange() {
    changes_.endChange();
}

int LocalChange::commit() {
    return changes_.appendNow();
}

int TWMetadataStorage::admitChange() {
    const auto lock = beginWriteStorage();
    return changes_.admitChange();
}

void TWMetadataStorage::blockShutdown() {
    const auto lock = beginWriteStorage();
    ++shutdownBlocks_;
}

void TWMetadataStorage::unblockShutdown() {
    const auto lock = beginWriteStorage();
    --shutdownBlocks_;
}

bool TWMetadataStorage::shutdownBlocked() const {
    const auto lock = beginReadStorage();
    return shutdownBlocks_ > 0;
}

void TWMetadataStorage::beginTermination() {
    const auto lock = beginWriteStorage();
    isTerminating_ = true;
}

bool TWMetadataStorage::terminating() const {
    const auto lock = beginReadStorage();
    return isTerminating_;
}

bool TWMetadataStorage::storageEmpty() const {
    const auto lock = beginReadStorage();
    return storageEmpty_;
}

void TWMetadataStorage::setStorageEmpty(bool empty) {
    const auto lock = beginWriteStorage();
    storageEmpty_ = empty;
}

std::string TWMetadataStorage::globalLoginResponce() const {
    const auto lock = beginReadStorage();
    return globalLoginResponce_;
}

void TWMetadataStorage::setGlobalLoginResponce(std::string text) {
    const auto lock = beginWriteStorage();
    if (!text.empty()) storageEmpty_ = false;
    globalLoginResponce_ = std::move(text);
}

TWVirtualFilePtr TWMetadataStorage::fileWithId(std::string_view internalName) const {
    const auto lock = beginReadStorage();
    return index_.fileWithId(internalName);
}

ManagedSharePtr TWMetadataStorage::shareWithId(std::string_view shareId) const {
    const auto lock = beginReadStorage();
    return index_.shareWithId(shareId);
}

TWVirtualFilePtr TWMetadataStorage::fileWithPath(std::string_view drivePath) const {
    const auto lock = beginReadStorage();
    return index_.fileWithPath(drivePath);
}

ManagedSharePtr TWMetadataStorage::shareWithPath(std::string_view path) const {
    const auto lock = beginReadStorage();
    return index_.shareWithPath(path);
}

ManagedSharePtr TWMetadataStorage::shareWithFilePath(std::string_view drivePath) const {
    if (drivePath.empty()) return nullptr;
    std::size_t cut = drivePath.find('/', 1);
    if (cut == std::string_view::npos) {
        // Back to the start of the last character.
        cut = drivePath.size() - 1;
        while (cut > 0 && (static_cast<unsigned char>(drivePath[cut]) & 0xC0U) == 0x80U)
            --cut;
    }
    return shareWithPath(drivePath.substr(0, cut));
}

std::string TWMetadataStorage::pathForItemWithId(std::string_view id) const {
    const auto lock = beginReadStorage();
    if (const auto file = index_.fileWithId(id)) return file->FullPath.str();
    if (const auto share = index_.shareWithId(id)) return "/" + share->DisplayName.value_or("");
    return {};
}

std::vector<ManagedSharePtr> TWMetadataStorage::shares() const {
    const auto lock = beginReadStorage();
    std::vector<ManagedSharePtr> result;
    result.reserve(index_.shares().size());
    for (const auto& [id, share] : index_.shares()) {
        result.push_back(share);
    }
    return result;
}

std::vector<TWVirtualFilePtr> TWMetadataStorage::allFiles() const {
    const auto lock = beginReadStorage();
    std::vector<TWVirtualFilePtr> result;
    result.reserve(index_.files().size());
    for (const auto& stored : index_.files())
        result.push_back(stored.file);
    return result;
}

std::size_t TWMetadataStorage::fileCount() const {
    const auto lock = beginReadStorage();
    return index_.files().size();
}

DirectoryItems* TWMetadataStorage::directoryItemsWithParent(std::string_view parentId) {
    return parentId.empty() ? nullptr : &index_.childrenOrNew(parentId);
}

std::vector<TWVirtualFilePtr> TWMetadataStorage::allShareSiblings(const ManagedShare& share,
                                                                  bool includingFolders) const {
    const auto lock = beginReadStorage();
    if (!share.ShareId || !index_.shareWithId(*share.ShareId)) return {};
    auto files = index_.descendants(*share.ShareId, includingFolders);
    std::erase_if(files, [&](const TWVirtualFilePtr& file) { return file->ShareId != *share.ShareId; });
    return files;
}

std::vector<TWVirtualFilePtr> TWMetadataStorage::allSiblings(const TWVirtualFile& folder,
                                                             bool includingFolders) const {
    const auto lock = beginReadStorage();
    if (folder.IsFile) return {};
    return index_.descendants(folder.InternalName.view(), includingFolders);
}

bool TWMetadataStorage::isFileOrphaned(const TWVirtualFile& file) const {
    const auto lock = beginReadStorage();
    return index_.isOrphaned(file);
}

bool TWMetadataStorage::isFileSynchronized(const TWVirtualFilePtr& file) const {
    const auto lock = beginReadStorage();
    int levels = 0;
    for (TWVirtualFilePtr at = file; at;) {
        if (at->Synchronize.value_or(false)) return true;
        auto parent = index_.fileWithId(at->ParrentId.view());
        if (!parent) {
            const auto share = index_.shareWithId(at->ParrentId.view());
            return share && share->Synchronize.value_or(false);
        }
        if (++levels > kMaxInheritedLevels) return false;
        at = std::move(parent);
    }
    return false;
}

std::string TWMetadataStorage::fuseFilePath(const TWVirtualFile& file) const {
    const auto lock = beginReadStorage();
    return index_.fuseFilePath(file).str();
}

bool TWMetadataStorage::hasUnsentContents(const TWVirtualFile& file) const {
    const auto lock = beginReadStorage();
    return file.LocallyUpdated.value_or(false) || journal_->hasPendingContents(file.InternalName.view());
}

void TWMetadataStorage::addFileMetadata(const TWVirtualFilePtr& file) {
    if (file->InternalName.empty() || file->ParrentId.empty()) {
        TWLog(kLogMain, "Warning! A record without internal name or parent id cannot be stored: %@ (%@)",
              file->PublicName, file->InternalName);
        return;
    }
    const auto lock = beginWriteStorage();
    if (!file->POSIXPermissions) {
        file->POSIXPermissions = file->IsFile ? kDefaultFilePermissions : kDefaultFolderPermissions;
    }
    const auto old = index_.fileWithId(file->InternalName.view());
    const bool samePlace = old && old->ParrentId == file->ParrentId && old->PublicName == file->PublicName;
    if (old && !samePlace) noteRemoved(*old);
    index_.insert(file);
    changes_.noteFile(file->InternalName);
    if (samePlace && old->IsFile == file->IsFile) {
        noteAttributesChanged(*file);
    } else {
        noteEntryChanged(file->ParrentId.view(), file->PublicName.view());
    }
}

void TWMetadataStorage::updateFilePathes(const TWVirtualFilePtr& file) {
    const auto lock = beginWriteStorage();
    const auto stored = index_.fileWithId(file->InternalName.view());
    if (!stored) return;
    // Where it was shown until now: its old folder is found by path, since the record names the new one.
    const SharedString oldPath = stored->FullPath;
    const std::string_view oldFolder = deletingLastPathComponent(oldPath.view());
    const auto folder = index_.fileWithPath(oldFolder);
    const auto share = folder ? nullptr : index_.shareWithPath(oldFolder);
    index_.refreshPaths(stored);
    noteChanged(*stored);
    if (folder) {
        noteEntryChanged(folder->InternalName.view(), lastPathComponent(oldPath.view()));
    } else if (share) {
        noteEntryChanged(share->ShareId.value_or(""), lastPathComponent(oldPath.view()));
    }
    noteEntryChanged(stored->ParrentId.view(), stored->PublicName.view());
}

void TWMetadataStorage::deleteFileMetadata(const TWVirtualFilePtr& file) {
    const auto lock = beginWriteStorage();
    const auto removed = index_.remove(file->InternalName.view());
    if (!removed) return;
    changes_.noteFile(removed->InternalName);
    noteRemoved(*removed);
}

void TWMetadataStorage::noteIdentityChanged(const TWVirtualFile& from, const TWVirtualFile& to) {
    const auto lock = beginReadStorage();
    if (observer_) observer_->identityChanged(from.InternalName.view(), to.InternalName.view());
}

void TWMetadataStorage::noteIdentitiesExchanged(const TWVirtualFile& a, const TWVirtualFile& b) {
    const auto lock = beginReadStorage();
    if (observer_) observer_->identitiesExchanged(a.InternalName.view(), b.InternalName.view());
}

void TWMetadataStorage::noteContentsRenamed(const TWVirtualFile& file, const SharedString& from) {
    const auto lock = beginReadStorage();
    if (observer_ && file.UploadName != from)
        observer_->contentsRenamed(file.InternalName.view(), from.view(), file.UploadName.view());
}

void TWMetadataStorage::noteAttributesChanged(const TWVirtualFile& file) {
    const auto lock = beginWriteStorage();
    noteChanged(file);
    if (observer_) observer_->attributesChanged(file.InternalName.view());
}

void TWMetadataStorage::noteContentsChanged(const TWVirtualFile& file) {
    const auto lock = beginWriteStorage();
    noteChanged(file);
    if (observer_) observer_->contentsChanged(file.InternalName.view());
}

void TWMetadataStorage::noteWriteProgress(const TWVirtualFile& file) {
    const auto lock = beginWriteStorage();
    index_.markChanged(file.ShareId.view());
    if (observer_) observer_->attributesChanged(file.InternalName.view());
}

void TWMetadataStorage::markChanged(const TWVirtualFile& file) {
    const auto lock = beginWriteStorage();
    noteChanged(file);
}

void TWMetadataStorage::noteChanged(const TWVirtualFile& file) {
    index_.markChanged(file.ShareId.view());
    changes_.noteFile(file.InternalName);
}

void TWMetadataStorage::noteShareChanged(const ManagedShare& share) {
    const auto lock = beginWriteStorage();
    if (share.ShareId) changes_.noteShare(*share.ShareId);
}

void TWMetadataStorage::noteEntryChanged(std::string_view parentId, std::string_view name) const {
    if (observer_) observer_->entryChanged(parentId, name);
}

void TWMetadataStorage::noteRemoved(const TWVirtualFile& file) const {
    noteEntryChanged(file.ParrentId.view(), file.PublicName.view());
}

}  // namespace tarnwell
