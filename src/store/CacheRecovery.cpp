#include "store/CacheRecovery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "platform/LocalSocket.h"
#include "platform/PrivateFile.h"
#include "store/Enums.h"
#include "store/LocalChangeJournal.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kAttributesSuffix = ".attrs";
constexpr std::string_view kDone = "done\n";
constexpr std::string_view kAgain = "again\n";
constexpr std::size_t kLargestState = 64;

}  // namespace

CacheRecovery::CacheRecovery(TWMetadataStorage& store)
    : store_(store), statePath_(store.layout().rootCachePath() + "/cache-versions") {
    const auto contents = readWholeFile(statePath_, kLargestState);
    if (contents.error == 0) state_ = contents.bytes == kDone ? State::kDone : State::kAgain;
}

CacheRecovery::Action CacheRecovery::decide(const Case& file) {
    if (file.takesNoPart && !file.onServer) return Action::kLeave;
    const auto& version = file.version;
    const bool sameSize = file.size == file.recordSize;
    if (file.marked) {
        // Bytes are changed only after the file says so.
        const bool neverBegan = !version && !file.migrating && file.size == 0 && file.recordSize > 0;
        return neverBegan ? Action::kUnmark : Action::kLeave;
    }
    if (file.size == 0 && sameSize) return Action::kLeave;
    if (!version) {
        if (file.pending) return sameSize ? Action::kStampUnsent : Action::kLeave;
        return file.migrating && sameSize ? Action::kStampClean : Action::kDrop;
    }
    const bool isThat = version->isOf(file.uploadName.view());
    if (version->isEdited()) {
        if (file.takesNoPart) return Action::kLeave;
        // The journal took it over; its new name did not get onto the file.
        if (file.pending && !isThat && sameSize) return Action::kStampUnsent;
        if (file.pendingOther || isThat) return Action::kJournal;
        return file.size == 0 ? Action::kDrop : Action::kKeep;
    }
    if (!version->isOwn()) return isThat && sameSize ? Action::kLeave : Action::kDrop;
    if (!isThat) return file.size == 0 ? Action::kDrop : Action::kKeep;
    if (file.pending) return Action::kLeave;
    // It was sent, unless its entry is lost.
    return file.damaged || !sameSize ? Action::kJournal : Action::kStampClean;
}

void CacheRecovery::run(bool damaged) {
    const auto change = store_.beginLocalChange();
    damaged_ = damaged;
    if (damaged) restoreRecords();
    std::error_code error;
    fs::directory_iterator it(store_.layout().filesCachePath(), error);
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        const auto id = CacheLayout::idOfFileName(it->path().filename().native());
        const auto share = id ? store_.shareWithId(*id) : nullptr;
        if (share) walk(it->path().native(), *share);
    }
    TWLog(kLogMain,
          "Compared %d cache files with their records: %d removed, %d to be journalled, %d put aside.",
          files_, dropped_, journalled_, kept_);
    writeState(again_ ? State::kAgain : State::kDone);
}

/// Items whose records were lost, and which the journal has still to send.
void CacheRecovery::restoreRecords() {
    const auto entries = store_.journal().journalItems();
    for (const auto& entry : entries) {
        const auto& file = *entry->File;
        const bool brings = bringsContents(*entry) || entry->LocalJournalType == kJournalCreate;
        if (!brings || file.Deleted || store_.fileWithId(file.InternalName.view())) continue;
        if (!store_.shareWithId(file.ShareId.view())) continue;
        TWLog(kLogMain, "Warning! The record of %@ was lost. It is restored from the journal.",
              entry->CurrentPath);
        store_.addFileMetadata(std::make_shared<TWVirtualFile>(file));
    }
}

void CacheRecovery::walk(const std::string& folder, const ManagedShare& share) {
    std::error_code error;
    fs::directory_iterator it(folder, error);
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        const std::string& path = it->path().native();
        const auto name = it->path().filename().native();
        struct stat status {};
        if (name.ends_with(kAttributesSuffix) || ::lstat(path.c_str(), &status) != 0 ||
            !S_ISREG(status.st_mode)) {
            continue;
        }
        ++files_;
        const auto id = CacheLayout::idOfFileName(name);
        if (!id) continue;
        const auto file = store_.fileWithId(*id);
        if (file && file->IsFile && file->ShareId == share.ShareId.value_or(""))
            settle(path, file, status.st_size);
        else
            settleOrphan(path, *id, share, status.st_size);
    }
    if (error) TWLog(kLogMain, "Warning! Cannot read %@ : error %@", folder, error.message());
}

void CacheRecovery::settle(const std::string& path, const TWVirtualFilePtr& file, std::int64_t size) {
    Case known;
    known.version = ContentVersion::of(path);
    known.size = size;
    known.uploadName = file->UploadName;
    known.recordSize = file->size();
    known.marked = file->LocallyUpdated.value_or(false);
    known.takesNoPart = CacheLayout::isPathIgnored(file->PublicName.view(), false);
    known.onServer = !file->UploadUrl.empty();
    known.pending = store_.journal().isPending(file->UploadName);
    known.pendingOther = store_.journal().hasPendingContents(file->InternalName.view());
    known.damaged = damaged_;
    known.migrating = state_ == State::kNone;
    apply(decide(known), path, *file);
}

void CacheRecovery::settleOrphan(const std::string& path, std::string_view id, const ManagedShare& share,
                                 std::int64_t size) {
    const auto version = ContentVersion::of(path);
    const bool isOwn = size > 0 && version && version->isOwn();
    if (share.LastApplyedJournalTick < 0) {
        again_ = again_ || isOwn;
        return;
    }
    TWVirtualFile file;
    file.ShareId = share.ShareId.value_or("");
    file.InternalName = file.PublicName = id;
    file.FullPath = "/" + share.DisplayName.value_or("") + "/" + std::string(id);
    file.IsFile = true;
    const bool wasDeleted = store_.journal().hasPending(id, kJournalDelete);
    apply(isOwn && !wasDeleted ? Action::kKeep : Action::kDrop, path, file);
}

void CacheRecovery::apply(Action action, const std::string& path, TWVirtualFile& file) {
    int error = 0;
    switch (action) {
        case Action::kLeave:
            return;
        case Action::kStampClean:
            error = ContentVersion::clean(file.UploadName.view()).set(path);
            break;
        case Action::kStampUnsent:
            error = ContentVersion::unsent(file.UploadName.view()).set(path);
            break;
        case Action::kJournal:
            ++journalled_;
            TWLog(kLogMain, "Warning! %@ was changed here, and the journal does not know of it.",
                  file.FullPath);
            file.LocallyUpdated = true;
            store_.markChanged(file);
            break;
        case Action::kUnmark:
            file.LocallyUpdated.reset();
            file.DownloadDate.reset();
            store_.markChanged(file);
            [[fallthrough]];
        case Action::kDrop:
            ++dropped_;
            if (::unlink(path.c_str()) != 0) error = errno;
            break;
        case Action::kKeep:
            if (store_.keptFiles().keep(file, path, "they do not belong to the file's present version") == 0)
                ++kept_;
            else
                again_ = true;
            break;
    }
    if (error != 0)
        TWLog(kLogMain, "Warning! Cannot settle cache file %@ : error %@", path, std::strerror(error));
}

void CacheRecovery::writeState(State state) {
    if (state == state_) return;
    if (files_ > 0) {
        // What the state says of the files comes after the files.
        const OwnedDescriptor root(
            ::open(store_.layout().rootCachePath().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!root || ::syncfs(root.get()) != 0) return;
    }
    const std::string next = statePath_ + ".new";
    const OwnedDescriptor file(
        ::open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    const std::string_view text = state == State::kDone ? kDone : kAgain;
    const bool written = file &&
                         ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                         ::fsync(file.get()) == 0 && ::rename(next.c_str(), statePath_.c_str()) == 0;
    if (written)
        state_ = state;
    else
        TWLog(kLogMain, "Warning! Cannot write %@ : error %d", statePath_, errno);
}

}  // namespace tarnwell
