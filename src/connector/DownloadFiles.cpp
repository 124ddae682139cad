#include "connector/DownloadFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "connector/StoreQueries.h"
#include "store/ContentVersion.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

/// Names from the wire become names of files: one path component, nothing that leads elsewhere.
bool isFileName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}

}  // namespace

bool takesNoPart(const TWVirtualFile& file) {
    // The rule looks at the last component only, so a record whose path is not known yet is judged all the
    // same.
    return CacheLayout::isPathIgnored(file.PublicName.view(), !file.IsFile);
}

std::optional<DownloadSource> downloadSource(const TWMetadataStorage& store, const TWVirtualFilePtr& file) {
    const auto lock = store.beginReadStorage();
    if (!file->IsFile) return std::nullopt;
    if (!isFileName(file->UploadName.view()) || !isFileName(file->InternalName.view()) ||
        !isFileName(file->ShareId.view())) {
        return std::nullopt;
    }
    DownloadSource source;
    source.file = file;
    source.internalName = file->InternalName.str();
    source.uploadName = file->UploadName.str();
    source.publicName = file->PublicName.str();
    source.fullPath = file->FullPath.str();
    source.size = file->size();
    source.cachePath = store.layout().cachePathForFile(*file);
    source.partialPath = store.layout().cachePathForFileDownload(*file);
    if (const auto share = store.shareWithId(file->ShareId.view())) source.share = shareAddress(*share);
    return source;
}

namespace {

std::optional<std::string> readOpenRange(const FileDescriptor& file, std::int64_t position,
                                         std::int64_t size) {
    std::string bytes(static_cast<std::size_t>(size), '\0');
    std::size_t done = 0;
    while (done < bytes.size()) {
        const auto count = ::pread(file.get(), bytes.data() + done, bytes.size() - done,
                                   position + static_cast<std::int64_t>(done));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return std::nullopt;
        done += static_cast<std::size_t>(count);
    }
    return bytes;
}

}  // namespace

std::optional<std::string> readFileRange(const std::string& path, std::int64_t position, std::int64_t size) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return file ? readOpenRange(file, position, size) : std::nullopt;
}

std::optional<std::string> readVersionRange(const std::string& path, std::string_view uploadName,
                                            std::int64_t position, std::int64_t size) {
    const auto isThat = [uploadName](int descriptor) {
        const auto version = ContentVersion::of(descriptor);
        return version && !version->isEdited() && version->isOf(uploadName);
    };
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file || !isThat(file.get())) return std::nullopt;
    auto bytes = readOpenRange(file, position, size);
    // The user may have begun to change them meanwhile.
    return isThat(file.get()) ? std::move(bytes) : std::nullopt;
}

FileDescriptor writeUnsynced(const std::string& path, std::string_view bytes, std::string_view uploadName) {
    FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    int error = file && file.writeAt(bytes, 0) ? 0 : errno;
    if (error == 0) error = ContentVersion::unsynced(uploadName).set(file.get());
    if (error == 0) return file;
    TWLog(kLogMain, "Error: failed to write download file %@. Error %d", path, error);
    if (file) ::unlink(path.c_str());
    return FileDescriptor(-1);
}

void syncContents(TWMetadataStorage& store, const FileDescriptor& file, std::string_view uploadName) {
    if (::fsync(file.get()) != 0) {
        TWLog(kLogMain, "Error: failed to sync a downloaded file. Error %d", errno);
        return;
    }
    // Under the lock: the user may have begun to change the bytes, or they were journalled under a new name.
    const auto lock = store.beginWriteStorage();
    if (ContentVersion::of(file.get()) != ContentVersion::unsynced(uploadName)) return;
    if (const int error = ContentVersion::clean(uploadName).set(file.get()))
        TWLog(kLogMain, "Error: failed to mark a downloaded file. Error %d", error);
}

InstallResult installContents(TWMetadataStorage& store, const DownloadSource& source,
                              const std::string& path) {
    // Record and bytes go together. The bytes may come first: without the record they are not used.
    const auto change = store.beginLocalChange();
    const auto stored = store.fileWithId(source.internalName);
    if (!stored || stored->UploadName != source.uploadName || stored->LocallyUpdated.value_or(false)) {
        return InstallResult::kOutdated;
    }
    if (store.holdsContents(*stored)) {
        ::unlink(path.c_str());
    } else if (!store.makeRoomForContents(*stored) || ::rename(path.c_str(), source.cachePath.c_str()) != 0) {
        TWLog(kLogMain, "Error: failed to move downloaded file %@ to the cache. Error %d", source.publicName,
              errno);
        return InstallResult::kFailed;
    }
    stored->DownloadDate = store.clock().now();
    store.markChanged(*stored);
    store.saveDelayed();
    return InstallResult::kInstalled;
}

}  // namespace tarnwell
