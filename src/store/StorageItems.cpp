// Items and shares as wholes, and the cache files that go with them.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>
#include <unordered_set>

#include "store/ContentVersion.h"
#include "store/Enums.h"
#include "store/JournalExchange.h"
#include "store/LocalChangeJournal.h"
#include "store/RemoteChanges.h"
#include "store/StorePersistence.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace fs = std::filesystem;

namespace {

/// Folders under Files that wait for their deletion begin so. No share's folder does: ids do not begin with a
/// dot.
constexpr std::string_view kDoomedPrefix = ".deleted-";

/// What an earlier run had no time to delete.
void deleteDoomedFolders(const std::string& filesCachePath) {
    std::error_code error;
    fs::directory_iterator it(filesCachePath, error);
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        std::error_code ignored;
        if (it->path().filename().native().starts_with(kDoomedPrefix)) fs::remove_all(it->path(), ignored);
    }
}

}  // namespace

TWMetadataStorage::TWMetadataStorage(Environment environment)
    : environment_(std::move(environment)),
      changes_(environment_.layout.rootCachePath(), index_, [this] { persistence_->saveAtOnce(); }),
      remoteChanges_(std::make_unique<RemoteChanges>(*this)),
      persistence_(std::make_unique<StorePersistence>(*this)) {
    journal_ = std::make_unique<LocalChangeJournal>(*this, environment_.background);
    persistence_->setJournal(journal_.get());
    environment_.background.async(
        [files = environment_.layout.filesCachePath()] { deleteDoomedFolders(files); });
}

TWMetadataStorage::~TWMetadataStorage() {
    TWMetadataStorage* self = this;
    if (shared() == self) setShared(nullptr);
}

std::string TWMetadataStorage::pathToMetadata(const CacheLayout& layout) {
    return layout.rootCachePath() + "/metadata.plist";
}

std::string TWMetadataStorage::generateFileInternalName() {
    return "F" + generateGUID() + generateGUID();
}
std::string TWMetadataStorage::generateFileUploadName() {
    return "U" + generateGUID() + generateGUID();
}

TWVirtualFilePtr TWMetadataStorage::createFile(std::string_view name, const ManagedSharePtr& inShare,
                                               const TWVirtualFilePtr& inFolder, bool isDirectory) {
    if (!inShare) return nullptr;
    const std::string publicName = CacheLayout::fixInvalidCharacters(name);
    const auto change = beginLocalChange();
    const std::string parentPath =
        inFolder ? inFolder->FullPath.str() : "/" + inShare->DisplayName.value_or("");
    if (!parentPath.empty()) {
        if (auto existing = index_.fileWithPath(appendPathComponent(parentPath, publicName));
            existing && existing != inFolder) {
            if (existing->IsFile) {
                // Said before the bytes go: they may exist nowhere else.
                const auto before = *existing;
                existing->AllocationSize = existing->EndOfFile = 0;
                existing->LocallyUpdated = true;
                noteContentsChanged(*existing);
                if (changes_.appendNow() != 0) {
                    existing->AllocationSize = before.AllocationSize;
                    existing->EndOfFile = before.EndOfFile;
                    existing->LocallyUpdated = before.LocallyUpdated;
                    noteContentsChanged(*existing);
                    return nullptr;
                }
                deleteFileData(*existing);
            }
            return existing;
        }
    }

    const Date now = clock().now();
    auto file = std::make_shared<TWVirtualFile>();
    file->IsFile = !isDirectory;
    file->AllocationSize = 0;
    file->EndOfFile = 0;
    file->PublicName = publicName;
    file->ShareId = inShare->ShareId.value_or("");
    file->ParrentId = inFolder ? inFolder->InternalName : file->ShareId;
    file->LastAccessTime = file->CreationTime = file->LastWriteTime = now;
    file->Tick = -1;
    file->ShareTick = file->UpdateTick = file->CreateTick = inShare->LastApplyedJournalTick;
    file->User = environment_.userName();
    file->InternalName = generateFileInternalName();
    file->Attributes = isDirectory ? kAttributesFolder : kAttributesFile;
    addFileMetadata(file);
    createNewFileForFile(*file);
    storageEmpty_ = false;
    saveDelayed();
    return file;
}

bool TWMetadataStorage::renameShare(const ManagedSharePtr& share, std::string_view toName) {
    const auto change = beginLocalChange();
    if (share->DisplayName == toName) return true;
    const bool isComponent = !toName.empty() && toName != "." && toName != ".." &&
                             toName.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
    const auto other = isComponent ? index_.shareWithPath("/" + std::string(toName)) : nullptr;
    if (!isComponent || !share->ShareId || (other && other != share)) return false;
    noteEntryChanged("", share->DisplayName.value_or(""));
    share->DisplayName = toName;
    index_.insertShare(share);
    noteShareChanged(*share);
    noteEntryChanged("", toName);
    saveDelayed();
    return true;
}

void TWMetadataStorage::insertShare(const ManagedSharePtr& share) {
    if (!share->ShareId || share->ShareId->empty()) {
        TWLog(kLogMain, "Warning! Share %@ has no share id and cannot be stored.",
              share->ShareName.value_or(""));
        return;
    }
    // Whoever inserts it: what the user changes in it is worth nothing without it.
    const auto change = beginLocalChange();
    const auto old = index_.shareWithId(*share->ShareId);
    index_.insertShare(share);
    noteShareChanged(*share);
    storageEmpty_ = false;
    if (old && old->DisplayName == share->DisplayName) {
        if (observer_) observer_->attributesChanged(*share->ShareId);
        return;
    }
    if (old) noteEntryChanged("", old->DisplayName.value_or(""));
    noteEntryChanged("", share->DisplayName.value_or(""));
}

void TWMetadataStorage::deleteShareData(const ManagedSharePtr& share) {
    if (!share->ShareId) return;
    const auto change = beginLocalChange();
    journal_->deleteShareEntries(*share->ShareId);
    deleteShareDownloads(*share);
    index_.removeShare(*share->ShareId);
    index_.removeFilesOfShare(*share->ShareId);
    noteShareChanged(*share);
    noteEntryChanged("", share->DisplayName.value_or(""));

    // Renamed at once: the same share may come back, with a new folder, before the background gets to it.
    const std::string doomed = layout().filesCachePath() + "/" + std::string(kDoomedPrefix) + generateGUID();
    std::error_code error;
    fs::rename(layout().cachePathForShare(*share), doomed, error);
    const bool renamed = !error;
    fs::remove(layout().extendedAttrsPathForShare(*share), error);
    if (renamed) {
        environment_.background.async([doomed] {
            std::error_code ignored;
            fs::remove_all(doomed, ignored);
        });
    }
    saveDelayed();
}

void TWMetadataStorage::deleteShareDownloads(const ManagedShare& share) const {
    // Few files are being downloaded at a time, a share may have very many.
    std::unordered_set<std::string> begun;
    std::error_code error;
    for (fs::directory_iterator entry(layout().downloadsCachePath(), error), end; !error && entry != end;
         entry.increment(error)) {
        begun.insert(entry->path().filename().string());
    }
    if (begun.empty() || !downloads_) return;
    for (const auto& file : allShareSiblings(share, false)) {
        if (begun.contains(file->UploadName.str())) downloads_->deleteFileDownload(file);
    }
}

void TWMetadataStorage::createFolderForShare(const ManagedShare& share) const {
    const std::string path = layout().cachePathForShare(share);
    std::error_code error;
    const auto status = fs::status(path, error);
    if (fs::is_directory(status)) return;
    if (fs::exists(status)) {
        TWLog(kLogMain,
              "Warning! Cannot create cache folder for share %@ : file with the same name already exists "
              "there.",
              share.DisplayName.value_or(""));
        return;
    }
    error.clear();
    fs::create_directories(path, error);
    if (error) {
        TWLog(kLogMain, "Warning! Cannot create cache folder for share %@ : error %@",
              share.DisplayName.value_or(""), error.message());
    }
}

void TWMetadataStorage::createNewFileForFile(const TWVirtualFile& file) const {
    if (!file.IsFile) return;
    const std::string path = layout().cachePathForFile(file);
    std::error_code error;
    if (fs::is_directory(path, error)) {
        TWLog(kLogMain,
              "Warning! Cannot create cache file for file %@ : file with the same name already exists there.",
              file.FullPath);
        return;
    }
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        TWLog(kLogMain, "Warning! Cannot create cache file for file %@.", file.FullPath);
        return;
    }
    if (const int error = ContentVersion::edited("").set(descriptor))
        TWLog(kLogMain, "Warning! Cannot mark new cache file of %@ : error %d", file.FullPath, error);
    ::close(descriptor);
}

void TWMetadataStorage::deleteFileData(const TWVirtualFile& file) const {
    std::error_code error;
    // Removing what is not there is no error.
    fs::remove(layout().cachePathForFile(file), error);
    if (error) {
        TWLog(kLogMain, "Warning! Cannot delete file data for file %@. Error %@", file.FullPath,
              error.message());
    }
    fs::remove(layout().extendedAttrsPathForFile(file), error);
}

/// When the change that removes the record is in the log.
void TWMetadataStorage::deleteFileDataLater(const TWVirtualFile& file) {
    changes_.deleteLater(layout().cachePathForFile(file));
    changes_.deleteLater(layout().extendedAttrsPathForFile(file));
}

bool TWMetadataStorage::makeRoomForContents(const TWVirtualFile& file) {
    const auto path = layout().cachePathForFile(file);
    const auto version = ContentVersion::of(path);
    struct stat status {};
    const bool isEmpty = ::lstat(path.c_str(), &status) != 0 || status.st_size == 0;
    if (isEmpty || !version || !version->isOwn()) return true;
    return keptFiles_.keep(file, path, "the service has newer contents of the file") == 0;
}

bool TWMetadataStorage::isVersionOf(const TWVirtualFile& file, std::int64_t size,
                                    const std::optional<ContentVersion>& version) const {
    // Marked when its contents were here or were replaced as a whole, and nobody but the user touches it
    // since.
    if (file.LocallyUpdated.value_or(false)) return true;
    const bool takesNoPart = CacheLayout::isPathIgnored(file.PublicName.view(), !file.IsFile);
    if (takesNoPart && file.UploadUrl.empty()) return true;
    if (!version) return false;
    // The journal took it over, but its new name is not on it yet: the change log cannot be written.
    if (version->isEdited()) return takesNoPart || journal_->isPending(file.UploadName);
    return version->isOf(file.UploadName.view()) &&
           (size == file.size() || journal_->hasPendingContents(file.InternalName.view()));
}

bool TWMetadataStorage::holdsContents(const TWVirtualFile& file) const {
    if (file.size() == 0) return true;
    const auto path = layout().cachePathForFile(file);
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           isVersionOf(file, status.st_size, ContentVersion::of(path));
}

bool TWMetadataStorage::hasWholeContents(const TWVirtualFile& file) const {
    if (file.size() == 0) return true;
    struct stat status {};
    return ::lstat(layout().cachePathForFile(file).c_str(), &status) == 0 && status.st_size == file.size() &&
           holdsContents(file);
}

OwnedDescriptor TWMetadataStorage::openVersion(std::string_view internalName, std::string_view uploadName,
                                               OpenedVersion& state) const {
    state = OpenedVersion::kGone;
    const auto file = fileWithId(internalName);
    if (!file || !(file->UploadName == uploadName)) return {};
    if (file->LocallyUpdated.value_or(false)) {
        state = OpenedVersion::kEdited;
        return {};
    }
    OwnedDescriptor opened(
        ::open(layout().cachePathForFile(*file).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!isStillVersion(opened.get(), *file)) return {};
    state = OpenedVersion::kOpen;
    return opened;
}

bool TWMetadataStorage::isStillVersion(int descriptor, std::string_view internalName,
                                       std::string_view uploadName) const {
    const auto file = fileWithId(internalName);
    return file && file->UploadName == uploadName && !file->LocallyUpdated.value_or(false) &&
           isStillVersion(descriptor, *file);
}

bool TWMetadataStorage::isStillVersion(int descriptor, const TWVirtualFile& file) const {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
           isVersionOf(file, status.st_size, ContentVersion::of(descriptor));
}

void TWMetadataStorage::stampEdited(const TWVirtualFile& file) const {
    const auto path = layout().cachePathForFile(file);
    const auto version = ContentVersion::of(path);
    if (!version || version->isEdited()) return;
    if (const int error = ContentVersion::edited(file.UploadName.view()).set(path))
        TWLog(kLogMain, "Warning! Cannot mark cache file %@ : error %d", path, error);
}

bool TWMetadataStorage::isOpen(std::string_view internalName) const {
    return observer_ && observer_->isOpen(internalName);
}

bool TWMetadataStorage::exchangeCachedFiles(const TWVirtualFile& a, const TWVirtualFile& b) {
    const auto lock = beginWriteStorage();
    return changes_.exchangeFiles(
        {{layout().cachePathForFile(a), layout().cachePathForFile(b)},
         {layout().extendedAttrsPathForFile(a), layout().extendedAttrsPathForFile(b)}},
        &JournalExchange::exchangeFileContents);
}

bool TWMetadataStorage::exchangeCachedContents(const TWVirtualFile& a, const TWVirtualFile& b) {
    const auto lock = beginWriteStorage();
    return changes_.exchangeFiles({{layout().cachePathForFile(a), layout().cachePathForFile(b)}},
                                  &JournalExchange::exchangeFileContents);
}

}  // namespace tarnwell
