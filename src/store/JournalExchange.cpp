#include "store/JournalExchange.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "store/Enums.h"
#include "store/JournalQueue.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

bool renameFile(const std::string& from, const std::string& to) {
    if (::rename(from.c_str(), to.c_str()) == 0) return true;
    TWLog(kLogMain, "Warning! Failed to rename(%@, %@) : error %d", from, to, errno);
    return false;
}

/// What belongs to the place and the contents of an item, as distinct from its identity.
template <class File, class Visit>
void forPlaceAndContents(File& a, File& b, Visit visit) {
    visit(a.PublicName, b.PublicName);
    visit(a.ParrentId, b.ParrentId);
    visit(a.FullPath, b.FullPath);
    visit(a.UploadName, b.UploadName);
    visit(a.FilehHash, b.FilehHash);
    visit(a.AllocationSize, b.AllocationSize);
    visit(a.EndOfFile, b.EndOfFile);
    visit(a.POSIXPermissions, b.POSIXPermissions);
    visit(a.LastAccessTime, b.LastAccessTime);
    visit(a.LastWriteTime, b.LastWriteTime);
    visit(a.Attributes, b.Attributes);
    visit(a.DownloadDate, b.DownloadDate);
    visit(a.LocallyUpdated, b.LocallyUpdated);
}

void resetUpload(LocalJournal& entry) {
    entry.TransmitToken.reset();
    entry.UploadedSize.reset();
    entry.FileHash.reset();
}

}  // namespace

bool JournalExchange::exchangeFileContents(const std::string& a, const std::string& with) {
    const bool hasA = exists(a);
    const bool hasB = exists(with);
    if (hasA && hasB) {
        if (::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, with.c_str(), RENAME_EXCHANGE) == 0) return true;
        TWLog(kLogMain, "Warning! Failed to exchangedata(%@, %@) : error %d", a, with, errno);
        return false;
    }
    if (hasA) return renameFile(a, with);
    return !hasB || renameFile(with, a);
}

void JournalExchange::copySomeFields(const TWVirtualFile& from, TWVirtualFile& toFile) {
    TWVirtualFile copy = from;
    forPlaceAndContents(toFile, copy, [](auto& to, auto& field) { to = std::move(field); });
}

void JournalExchange::swapSomeFields(TWVirtualFile& a, TWVirtualFile& b) {
    forPlaceAndContents(a, b, [](auto& x, auto& y) { std::swap(x, y); });
}

/// The stored record of an entry's item, where it stands as the entry says.
TWVirtualFilePtr JournalExchange::liveItem(const LocalJournal& entry) const {
    auto file = store_.fileWithId(entry.File->InternalName.view());
    const bool asSaid = file && file->IsFile && file->ParrentId == entry.File->ParrentId &&
                        file->PublicName == entry.File->PublicName;
    return asSaid ? file : nullptr;
}

bool JournalExchange::exchangeJournalEntry(LocalJournal& a, LocalJournal& b) {
    const auto first = liveItem(a);
    const auto second = liveItem(b);
    if (!first || !second) return false;
    if (!store_.hasWholeContents(*first) || !store_.hasWholeContents(*second)) return false;
    if (!store_.exchangeCachedFiles(*first, *second)) return false;

    const bool hadContents = a.LocalJournalType == kJournalUpdate;
    if (!hadContents) {
        // The new contents replace those that are put aside now, which may have come after the move.
        a.File->LastUploadName = first->UploadName;
        a.File->Tick = first->Tick;
        a.File->UpdateTick = first->UpdateTick;
    }
    store_.deleteFileMetadata(first);
    store_.deleteFileMetadata(second);
    swapSomeFields(*first, *second);
    store_.addFileMetadata(first);
    store_.addFileMetadata(second);
    store_.noteIdentitiesExchanged(*first, *second);

    swapSomeFields(*a.File, *b.File);
    std::swap(a.CurrentPath, b.CurrentPath);
    std::swap(a.JournalCreate, b.JournalCreate);
    std::swap(a.CopyingFile, b.CopyingFile);
    a.OriginalPath.reset();
    a.OriginalParent.reset();
    b.OriginalPath.reset();
    b.OriginalParent.reset();
    a.LocalJournalType = kJournalUpdate;
    b.LocalJournalType = kJournalCreate;
    resetUpload(a);
    resetUpload(b);
    if (!hadContents) {
        // The name is that of a version that the service has under the other identity.
        b.File->UploadName.reset();
        store_.stampEdited(*second);
        store_.noteContentsRenamed(*second, std::exchange(second->UploadName, {}));
    }
    return true;
}

bool JournalExchange::placeJournalItem(LocalJournal& a, LocalJournal& overPrevious) {
    return a.File->IsFile && overPrevious.File->IsFile && copyJournalDataFrom(a, overPrevious);
}

bool JournalExchange::copyJournalDataFrom(LocalJournal& from, LocalJournal& to) {
    const auto live = liveItem(from);
    if (!live || store_.fileWithId(to.File->InternalName.view())) return false;
    auto renewed = std::make_shared<TWVirtualFile>(*to.File);
    if (!store_.exchangeCachedFiles(*live, *renewed)) return false;
    copySomeFields(*live, *renewed);
    renewed->Deleted = false;
    renewed->OnlyLocal.reset();
    // A new object: whoever keeps the old one reads its id without the lock.
    store_.deleteFileMetadata(live);
    store_.addFileMetadata(renewed);
    store_.noteIdentityChanged(*live, *renewed);

    auto file = std::make_shared<TWVirtualFile>(*to.File);
    copySomeFields(*from.File, *file);
    file->Deleted = false;
    to.File = std::move(file);
    to.LocalJournalType = kJournalUpdate;
    to.queue.formerPlaces.clear();
    to.JournalCreate = from.JournalCreate;
    to.CurrentPath = from.CurrentPath;
    to.CopyingFile = from.CopyingFile;
    // Unless it is back where the service has it, it still moves.
    const auto left = JournalQueue::placesLeft(to);
    if (left.size() == 1 && left.front() == JournalQueue::placeAfter(to)) {
        to.OriginalPath.reset();
        to.OriginalParent.reset();
    }
    resetUpload(to);
    return true;
}

}  // namespace tarnwell
