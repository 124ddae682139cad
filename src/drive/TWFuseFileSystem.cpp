#include "drive/TWFuseFileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "drive/DriveNames.h"
#include "drive/FileTimes.h"
#include "store/Enums.h"
#include "store/LocalChangeJournal.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {
namespace {

/// A file whose contents change each time while they are fetched is given up.
constexpr int kVersionTries = 4;
constexpr std::chrono::milliseconds kQuietPeriod = std::chrono::seconds(4);
constexpr const char* kExcessiveNotFound = "TWFuseFileSystem: attributesOfItemAtPath: failed: %@";

/// What a process that was killed while it fetched contents left behind.
void removeCutOffFetches(const std::string& folder) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().filename().native().starts_with(TWFuseFileSystem::kFetchedPrefix))
            ::unlink(entry->path().c_str());
    }
}

const char* yesNo(const void* pointer) {
    return pointer ? "present" : "(null)";
}

}  // namespace

TWFuseFileSystem::TWFuseFileSystem(TWMetadataStorage& store, const CacheLayout& layout, Executor& background,
                                   Mediator& mediator)
    : store_(store), layout_(layout), background_(background), mediator_(mediator) {
    struct stat attributes {};
    if (::stat(layout_.downloadsCachePath().c_str(), &attributes) != 0) {
        TWLog(kLogMain, "Fatal: cannot obtain attributes of cache folder. Error %@", std::strerror(errno));
        std::_Exit(1);
    }
    fileOwnerAccountID_ = attributes.st_uid;
    fileGroupOwnerAccountID_ = attributes.st_gid;
    removeCutOffFetches(layout_.downloadsCachePath());
}

std::vector<TWFuseFileSystem::DirectoryEntry> TWFuseFileSystem::contentsOfDirectoryAtPath(
    const std::string& path) const {
    TWLog(kLogFuse, "TWFuseFileSystem: contentsOfDirectoryAtPath:%@", path);
    std::vector<DirectoryEntry> entries;
    auto children = childrenOfDirectoryAtPath(path);
    // A hundred thousand names are decomposed without anybody waiting for the store.
    entries.reserve(children.size());
    for (auto& child : children)
        entries.push_back({decomposed(child.name.view()), std::move(child.id), child.isFolder});
    if (mediator_.excessiveLogging()) {
        TWLog(kLogFuse, "TWFuseFileSystem: contentsOfDirectoryAtPath: returned %d items", entries.size());
    }
    return entries;
}

std::vector<TWFuseFileSystem::Child> TWFuseFileSystem::childrenOfDirectoryAtPath(
    const std::string& path) const {
    std::vector<Child> children;
    const auto lock = store_.beginReadStorage();
    if (CacheLayout::isRootPath(path)) {
        for (const auto& share : store_.shares()) {
            const auto& name = share->DisplayName;
            if (name && !name->empty()) children.push_back({*name, share->ShareId.value_or(""), true});
        }
        children.push_back({kFuseLockName, {}, false});
        return children;
    }
    SharedString parentId;
    if (CacheLayout::isSharePath(path)) {
        if (const auto share = store_.shareWithPath(path); share && share->ShareId)
            parentId = *share->ShareId;
    } else if (const auto folder = store_.fileWithPath(path)) {
        parentId = folder->InternalName;
    }
    if (const auto* items = store_.directoryItemsWithParent(parentId.view())) {
        children.reserve(items->size());
        items->forEach([&](const TWVirtualFilePtr& file) {
            if (!file->Deleted && !CacheLayout::containsInvalidCharacters(file->PublicName.view()))
                children.push_back({file->PublicName, file->InternalName, !file->IsFile});
        });
    }
    return children;
}

ErrnoOr<TWFuseFileSystem::VolumeAttributes> TWFuseFileSystem::attributesOfFileSystemForPath(
    const std::string& /*path*/) const {
    struct statvfs volume {};
    if (::statvfs(layout_.filesCachePath().c_str(), &volume) != 0) {
        const Errno error{errno};
        TWLog(kLogFuse, "Warning! statvfs failed with error %d", error.code);
        return error;
    }
    return VolumeAttributes{static_cast<std::uint64_t>(volume.f_blocks) * volume.f_frsize,
                            static_cast<std::uint64_t>(volume.f_bfree) * volume.f_frsize,
                            static_cast<std::uint64_t>(volume.f_bavail) * volume.f_frsize, volume.f_files,
                            volume.f_ffree};
}

TWFuseFileSystem::ItemAttributes TWFuseFileSystem::ownedAttributes() const {
    ItemAttributes attributes;
    attributes.owner = fileOwnerAccountID_;
    attributes.group = fileGroupOwnerAccountID_;
    return attributes;
}

ErrnoOr<TWFuseFileSystem::ItemAttributes> TWFuseFileSystem::rootAttributes() const {
    struct stat folder {};
    if (::stat(layout_.filesCachePath().c_str(), &folder) != 0) return Errno{ENOENT};
    ItemAttributes attributes;
    attributes.isFolder = true;
    attributes.creation = dateOf(folder.st_ctim);
    attributes.modification = dateOf(folder.st_mtim);
    attributes.access = dateOf(folder.st_atim);
    attributes.permissions = folder.st_mode & 07777;
    attributes.owner = folder.st_uid;
    attributes.group = folder.st_gid;
    return attributes;
}

/// REQUIRES LOCK.
TWFuseFileSystem::ItemAttributes TWFuseFileSystem::attributesOfRecord(const TWVirtualFile& file) const {
    ItemAttributes attributes = ownedAttributes();
    attributes.id = file.InternalName;
    attributes.name = file.PublicName;
    attributes.isFolder = !file.IsFile;
    attributes.size = file.IsFile ? std::max<std::int64_t>(file.size(), 0) : 0;
    attributes.creation = file.CreationTime;
    attributes.modification = file.LastWriteTime;
    attributes.access = file.LastAccessTime;
    attributes.permissions = static_cast<std::uint32_t>(file.POSIXPermissions.value_or(
                                 file.IsFile ? kDefaultFilePermissions : kDefaultFolderPermissions)) &
                             07777;
    return attributes;
}

ErrnoOr<TWFuseFileSystem::ItemAttributes> TWFuseFileSystem::attributesOfDetached(
    const TWFuseFileData& userData) const {
    const auto file = userData.cacheFile();
    const auto record = userData.formerRecord();
    if (!file && !record) return Errno{ENOENT};
    ItemAttributes attributes = ownedAttributes();
    attributes.permissions = kDefaultFilePermissions;
    if (record) {
        const auto lock = store_.beginReadStorage();
        attributes = attributesOfRecord(*record);
    }
    struct stat bytes {};
    if (file && ::fstat(file->descriptor(), &bytes) == 0) {
        attributes.size = bytes.st_size;
        attributes.modification = dateOf(bytes.st_mtim);
        if (!record) attributes.creation = attributes.access = attributes.modification;
    }
    attributes.removed = true;
    return attributes;
}

ErrnoOr<TWFuseFileSystem::ItemAttributes> TWFuseFileSystem::attributesOfItemAtPath(
    const std::string& path, const TWFuseFileData* userData) const {
    const bool verbose = mediator_.excessiveLogging();
    if (verbose) {
        TWLog(kLogFuse, "TWFuseFileSystem: attributesOfItemAtPath:%@ userData: %@", path, yesNo(userData));
    }
    if (userData && userData->isDetached()) return attributesOfDetached(*userData);
    ItemAttributes attributes = ownedAttributes();
    if (CacheLayout::isSpecialPath(path)) {
        attributes.creation = attributes.modification = attributes.access = store_.clock().now();
        attributes.permissions = 0700;
        return attributes;
    }
    bool found = false;
    if (CacheLayout::isRootPath(path)) {
        if (auto root = rootAttributes()) return root;
    } else if (CacheLayout::isSharePath(path)) {
        const auto lock = store_.beginReadStorage();
        if (const auto share = store_.shareWithPath(path)) {
            found = true;
            attributes.id = share->ShareId.value_or("");
            attributes.name = share->DisplayName.value_or("");
            attributes.isFolder = true;
            attributes.creation = share->CreationDate.value_or(Date{});
            attributes.modification = attributes.access =
                share->ModificationDate.value_or(attributes.creation);
            attributes.permissions = 0700;
        }
    } else {
        const auto lock = store_.beginReadStorage();
        if (const auto file = visibleFileWithPath(path)) return attributesOfRecord(*file);
    }
    if (found) return attributes;
    if (verbose) TWLog(kLogFuse, kExcessiveNotFound, path);
    return Errno{ENOENT};
}

bool TWFuseFileSystem::isReadOnly(const std::string& path) const {
    const auto lock = store_.beginReadStorage();
    const auto share = store_.shareWithFilePath(path);
    return share && share->ShareAcl && share->ShareAcl->AclType == kAclReadOnly;
}

TWVirtualFilePtr TWFuseFileSystem::visibleFileWithPath(const std::string& path) const {
    auto file = store_.fileWithPath(path);
    return file && !file->Deleted ? file : nullptr;
}

ErrnoOr<TWFuseFileDataPtr> TWFuseFileSystem::openFileAtPath(const std::string& path, int mode, pid_t caller) {
    TWFuseFileDataPtr handle;
    Resize resize;
    {
        const auto lock = store_.beginWriteStorage();
        auto opened = openItem(path, mode, caller);
        if (!opened || !*opened || (mode & O_TRUNC) == 0) return opened;
        handle = *std::move(opened);
        auto begun = beginResize(path, handle.get(), 0);
        if (!begun) return Errno{begun.error()};
        resize = *std::move(begun);
    }
    if (const auto emptied = finishResize(resize); !emptied) {
        releaseFileAtPath(path, handle.get());
        return Errno{emptied.error()};
    }
    return handle;
}

ErrnoOr<TWFuseFileDataPtr> TWFuseFileSystem::openItem(const std::string& path, int mode, pid_t caller) {
    TWLog(kLogFuse, "TWFuseFileSystem: openFileAtPath:%@ mode:%@ (%d)", path, openFlagsToString(mode), mode);
    if (CacheLayout::isSpecialPath(path)) return TWFuseFileDataPtr{};
    const bool changes = (mode & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0;
    if (changes && !CacheLayout::isPathIgnored(path, false) && isReadOnly(path)) return Errno{EACCES};
    const auto file = visibleFileWithPath(path);
    if (!file) return Errno{ENOENT};
    if (!file->IsFile && changes) return Errno{EISDIR};
    return TWFuseFileData::create(mode, caller, file->InternalName);
}

/// What can still be read of a file that is not on the drive any more, or not with these contents.
ErrnoOr<TWFuseFileSystem::FileRange> TWFuseFileSystem::rangeOfHeld(const TWFuseFileData& userData,
                                                                   std::size_t size, std::int64_t offset) {
    FileRange range;
    range.offset = offset;
    range.size = size;
    range.file = userData.cacheFile();
    if (range.file) return range;
    const auto version = userData.isDetached() ? userData.formerRecord() : userData.pinned();
    if (!version) return Errno{EIO};
    std::int64_t length = 0;
    {
        const auto lock = store_.beginReadStorage();
        length = version->size();
    }
    auto fetched = fetchedRange(version, length, size, offset);
    // Programs open the file again then.
    if (!fetched && !userData.isDetached()) return Errno{ESTALE};
    return fetched;
}

ErrnoOr<TWFuseFileSystem::FileRange> TWFuseFileSystem::fetchedRange(const TWVirtualFilePtr& file,
                                                                    std::int64_t length, std::size_t size,
                                                                    std::int64_t offset) {
    FileRange range;
    range.offset = offset;
    if (offset >= length) return range;
    const auto asked = std::min<std::int64_t>(static_cast<std::int64_t>(size), length - offset);
    auto bytes = mediator_.downloadFileChunk(file, offset, asked);
    if (!bytes || bytes->empty()) return Errno{EIO};
    range.data = std::move(*bytes);
    range.size = std::min(range.data.size(), static_cast<std::size_t>(asked));
    return range;
}

ErrnoOr<TWFuseFileSystem::FileRange> TWFuseFileSystem::rangeOfFileAtPath(const std::string& path,
                                                                         TWFuseFileData* userData,
                                                                         std::size_t size,
                                                                         std::int64_t offset) {
    // Each time the contents change while they are fetched another look is needed.
    for (int attempt = 0; attempt < kVersionTries; ++attempt) {
        TWVirtualFilePtr file, version;
        std::int64_t length = 0;
        {
            const auto lock = store_.beginReadStorage();
            file = userData ? store_.fileWithId(userData->fileId().view()) : visibleFileWithPath(path);
            if (file && file->IsFile && offset >= 0) {
                FileRange range;
                range.offset = offset;
                length = file->size();
                range.size = static_cast<std::size_t>(
                    std::clamp<std::int64_t>(length - offset, 0, static_cast<std::int64_t>(size)));
                if (userData && (range.file = userData->freshCacheFile(file->UploadName))) return range;
                const auto cachePath = layout_.cachePathForFile(*file);
                const auto held = userData ? userData->cacheFile() : nullptr;
                const bool isNamed = held && held->isAt(cachePath);
                if (isNamed && (userData->usesVersion(file->UploadName) || mediator_.isFileDownloaded(file)))
                    userData->repin(*file);
                if (!userData || userData->usesVersion(file->UploadName)) {
                    if (range.size == 0) return range;
                    if (isNamed || mediator_.isFileDownloaded(file)) {
                        if (!userData) {
                            TWLog(kLogFuse, "TWFuseFileSystem: readFileAtPath:%@ failed : userData is nil",
                                  path);
                            return Errno{EBADF};
                        }
                        // Under the lock: an exchange must not bring other bytes to this place in between.
                        auto opened = userData->openCacheFile(cachePath, file->UploadName);
                        if (!opened) return Errno{opened.error()};
                        userData->pin(*file);
                        range.file = *std::move(opened);
                        return range;
                    }
                    // Dropped from the cache, and still here.
                    if (held) {
                        range.file = held;
                        return range;
                    }
                    version = std::make_shared<TWVirtualFile>(*file);
                }
            }
        }
        if (offset < 0 || (file && !file->IsFile) || (!file && !userData)) {
            TWLog(kLogFuse, "TWFuseFileSystem: readFileAtPath:%@ failed : EINVAL", path);
            return Errno{EINVAL};
        }
        if (!version) return rangeOfHeld(*userData, size, offset);
        auto fetched = fetchedRange(file, length, size, offset);
        if (!fetched) return fetched;
        const auto lock = store_.beginReadStorage();
        if (file->UploadName != version->UploadName) continue;
        if (!userData || userData->pin(*version)) return fetched;
    }
    return Errno{EIO};
}

ErrnoOr<std::size_t> TWFuseFileSystem::readFileAtPath(const std::string& path, TWFuseFileData* userData,
                                                      char* buffer, std::size_t size, std::int64_t offset) {
    const auto range = rangeOfFileAtPath(path, userData, size, offset);
    if (!range) return Errno{range.error()};
    if (!range->file) {
        std::memcpy(buffer, range->data.data(), range->size);
        return range->size;
    }
    std::size_t done = 0;
    while (done < range->size) {
        const auto count = ::pread(range->file->descriptor(), buffer + done, range->size - done,
                                   range->offset + static_cast<off_t>(done));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            const Errno error{errno};
            TWLog(kLogFuse, "TWFuseFileSystem: readFileAtPath:%@ failed : pread error %d", path, error.code);
            return error;
        }
        if (count == 0) break;
        done += static_cast<std::size_t>(count);
    }
    return done;
}

void TWFuseFileSystem::releaseFileAtPath(const std::string& path, TWFuseFileData* userData) {
    if (CacheLayout::isSpecialPath(path)) return;
    if (!userData) {
        TWLog(kLogFuse, "TWFuseFileSystem: releaseFileAtPath:%@ : empty userData.", path);
        return;
    }
    if (userData->modified() || userData->created()) {
        const auto change = store_.beginLocalChange();
        const bool wrote = userData->modified();
        if (const auto file = store_.fileWithId(userData->fileId().view())) endBurst(file, wrote, userData);
        // Under the lock: until here another open that ends must take this one for a writer.
        userData->close();
    }
    userData->close();
    TWLog(kLogFuse, "TWFuseFileSystem: releaseFileAtPath:%@ : userData released.", path);
}

void TWFuseFileSystem::checkOpenedFiles() {
    const Date now = store_.clock().now();
    for (const auto& handle : TWFuseFileData::openedFiles()) {
        if (!handle->claimQuietBurst(now, kQuietPeriod)) continue;
        background_.async([drive = weak_from_this(), handle] {
            const auto self = drive.lock();
            if (!self) return;
            const auto change = self->store_.beginLocalChange();
            // The burst ends in the step that journals it: whoever looks meanwhile sees a writer.
            if (!handle->takeQuietBurst(self->store_.clock().now(), kQuietPeriod)) return;
            if (const auto file = self->store_.fileWithId(handle->fileId().view()))
                self->endBurst(file, true, handle.get());
        });
    }
}

void TWFuseFileSystem::journalUpdate(const TWVirtualFilePtr& file) {
    auto& journal = store_.journal();
    journal.addChangeToJournal(journal.createJournalForFile(file, kJournalUpdate));
}

/// One open wrote, or made, the file and is done: the last one of them hands it to the journal.
void TWFuseFileSystem::endBurst(const TWVirtualFilePtr& file, bool wrote, const TWFuseFileData* by) {
    if (!file->LocallyUpdated.value_or(false)) return;
    if (TWFuseFileData::isWritten(file->InternalName.view(), by)) return;
    file->LocallyUpdated.reset();
    store_.markChanged(*file);
    if (wrote && !CacheLayout::isPathIgnored(file->PublicName.view(), false)) journalUpdate(file);
}

std::string TWFuseFileSystem::openFlagsToString(int flags) {
    static constexpr const char* accessModes[] = {"O_RDONLY", "O_WRONLY", "O_RDWR", nullptr};
    static constexpr std::pair<int, const char*> names[] = {
        {O_NONBLOCK, "O_NONBLOCK"}, {O_APPEND, "O_APPEND"}, {O_CREAT, "O_CREAT"},
        {O_TRUNC, "O_TRUNC"},       {O_EXCL, "O_EXCL"},     {O_NOFOLLOW, "O_NOFOLLOW"},
        {O_CLOEXEC, "O_CLOEXEC"},
    };
    std::string text;
    const auto append = [&text](const char* name) {
        if (!text.empty()) text += " | ";
        text += name;
    };
    if (const auto* mode = accessModes[flags & O_ACCMODE]) append(mode);
    for (const auto& [flag, name] : names) {
        if (flags & flag) append(name);
    }
    return text;
}

}  // namespace tarnwell
