// What the user does to the tree on the drive: moves, renames, deletions, each with its journal entry.

#include "store/Enums.h"
#include "store/LocalChangeJournal.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

/// Deeper trees are not moved into.
constexpr int kMaxLevels = 10'000;

bool isNoName(std::string_view name) {
    return name.empty() || name == "." || name == ".." || name.find('\0') != std::string_view::npos;
}

}  // namespace

bool TWMetadataStorage::mayMoveTo(const TWVirtualFile& file, std::string_view parentId,
                                  std::string_view name) const {
    if (isNoName(name)) return false;
    if (!(file.ShareId == parentId && index_.shareWithId(parentId))) {
        auto at = index_.fileWithId(parentId);
        if (!at || at->IsFile || at->ShareId != file.ShareId) return false;
        // Not into itself.
        for (int level = 0; at; at = index_.fileWithId(at->ParrentId.view())) {
            if (at->InternalName == file.InternalName || ++level > kMaxLevels) return false;
        }
    }
    const auto other = index_.fileWithPath(appendPathComponent(pathForItemWithId(parentId), name));
    return !other || other->InternalName == file.InternalName;
}

void TWMetadataStorage::place(const TWVirtualFilePtr& file, const SharedString& parentId,
                              std::string_view name) {
    if (file->ParrentId != parentId) {
        directoryItemsWithParent(file->ParrentId.view())->remove(*file);
        file->ParrentId = parentId;
        directoryItemsWithParent(parentId.view())->add(file);
    }
    file->PublicName = name;
    updateFilePathes(file);
}

/// The item goes on under a new internal name, as one that the service has never seen. Null, with nothing
/// changed, when its bytes cannot follow.
TWVirtualFilePtr TWMetadataStorage::giveNewIdentity(const TWVirtualFilePtr& file) {
    // A new object: whoever keeps the old one reads its id without the lock.
    auto renewed = std::make_shared<TWVirtualFile>(*file);
    renewed->InternalName = generateFileInternalName();
    for (auto* name : {&renewed->UploadName, &renewed->ArchivedFullName, &renewed->UploadUrl,
                       &renewed->LastUploadName, &renewed->FilehHash}) {
        name->reset();
    }
    renewed->Tick = -1;
    renewed->DownloadDate.reset();
    renewed->LocallyUpdated = true;
    if (!exchangeCachedFiles(*file, *renewed)) return nullptr;
    deleteFileMetadata(file);
    addFileMetadata(renewed);
    noteIdentityChanged(*file, *renewed);
    noteContentsRenamed(*renewed, file->UploadName);
    return renewed;
}

bool TWMetadataStorage::changeParentOfFile(const TWVirtualFilePtr& file, std::string_view toId,
                                           std::string_view renamingTo) {
    const std::string name = CacheLayout::fixInvalidCharacters(renamingTo);
    const auto change = beginLocalChange();
    auto moved = index_.fileWithId(file->InternalName.view());
    if (!moved || !mayMoveTo(*moved, toId, name)) return false;
    const auto folder = index_.fileWithId(toId);
    const SharedString parentId = folder ? folder->InternalName : moved->ShareId;
    const SharedString oldPath = moved->FullPath;
    const SharedString oldParent = moved->ParrentId;
    const bool isFolder = !moved->IsFile;
    const bool wasIgnored = CacheLayout::isPathIgnored(oldPath.view(), isFolder);
    const bool isIgnored = CacheLayout::isPathIgnored(name, isFolder);

    if (isIgnored && !wasIgnored) {
        // It leaves the service, and stays on this machine only: its bytes have to be here.
        if (!hasWholeContents(*moved)) return false;
        const auto renewed = giveNewIdentity(moved);
        if (!renewed) return false;
        journal_->addChangeToJournal(journal_->createJournalForFile(moved, kJournalDelete));
        place(renewed, parentId, name);
    } else if (wasIgnored && !isIgnored && moved->UploadUrl.empty()) {
        const auto renewed = giveNewIdentity(moved);
        if (!renewed) return false;
        place(renewed, parentId, name);
        renewed->LocallyUpdated = false;
        journal_->addChangeToJournal(journal_->createJournalForFile(renewed, kJournalCreate));
    } else {
        place(moved, parentId, name);
        const auto entry = journal_->createJournalForFile(moved, kJournalRename);
        entry->OriginalPath = oldPath;
        if (oldParent != parentId) entry->OriginalParent = oldParent;
        journal_->addChangeToJournal(entry);
    }
    saveDelayed();
    return true;
}

void TWMetadataStorage::removeFileInternal(const TWVirtualFilePtr& file) {
    const auto change = beginLocalChange();
    const auto stored = index_.fileWithId(file->InternalName.view());
    if (!stored) return;
    TWLog(kLogMain, "removeFile: removing %@ (%@)", stored->FullPath, stored->InternalName);
    if (CacheLayout::isPathIgnored(stored->FullPath.view(), !stored->IsFile)) {
        TWLog(kLogMain, "removeFile: ignoring journal creation for %@ (%@)", stored->FullPath,
              stored->InternalName);
    } else {
        journal_->addChangeToJournal(journal_->createJournalForFile(stored, kJournalDelete));
    }
    if (stored->IsFile && downloads_) downloads_->deleteFileDownload(stored);
    deleteFileDataLater(*stored);
    stored->Deleted = true;
    deleteFileMetadata(stored);
}

void TWMetadataStorage::removeFile(const TWVirtualFilePtr& file) {
    removeFileInternal(file);
    saveDelayed();
}

void TWMetadataStorage::removeFolderRecursively(const TWVirtualFilePtr& folder) {
    const auto change = beginLocalChange();
    // A folder comes before what is in it, so the other way round what is deepest comes first.
    const auto below = index_.descendants(folder->InternalName.view(), true);
    for (auto it = below.rbegin(); it != below.rend(); ++it)
        removeFileInternal(*it);
    removeFileInternal(folder);
    saveDelayed();
}

void TWMetadataStorage::changeInternalName(std::string_view toName, const TWVirtualFilePtr& forFolder) {
    const auto change = beginLocalChange();
    const auto stored = index_.fileWithId(forFolder->InternalName.view());
    const bool isFree = !toName.empty() && !index_.fileWithId(toName) && !index_.shareWithId(toName);
    if (!stored || stored->InternalName == toName || !isFree) return;
    const SharedString oldName = stored->InternalName;
    auto renewed = std::make_shared<TWVirtualFile>(*stored);
    renewed->InternalName = toName;

    std::vector<TWVirtualFilePtr> children;
    if (const auto* list = index_.children(oldName.view())) children = list->snapshot();
    index_.remove(oldName.view());
    for (const auto& child : children) {
        index_.remove(child->InternalName.view());
        child->ParrentId = renewed->InternalName;
    }
    index_.insert(renewed);
    changes_.noteFile(oldName);
    changes_.noteFile(renewed->InternalName);
    for (const auto& child : children) {
        index_.insert(child);
        changes_.noteFile(child->InternalName);
    }
    journal_->changeInternalName(oldName.view(), renewed->InternalName);
    noteIdentityChanged(*stored, *renewed);
    storageEmpty_ = false;
    saveDelayed();
}

}  // namespace tarnwell
