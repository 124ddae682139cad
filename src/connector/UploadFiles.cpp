#include "connector/UploadFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "store/FileCopy.h"
#include "store/TWMetadataStorage.h"
#include "util/Hash.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

constexpr std::size_t kHashBlock = 65536;
constexpr int kBlocksBetweenLooks = 64;
/// Half-made copies are called so; the store removes what a crash left of them.
constexpr const char* kTemporaryPrefix = ".copying-";

int openForReading(const std::string& path) {
    return ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

bool isRegularFile(int descriptor) {
    struct stat status = {};
    return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

UploadSource opened(int descriptor) {
    if (descriptor < 0) return {.state = UploadSource::State::kUnreadable, .error = errno};
    UploadSource source{.state = UploadSource::State::kOpen, .file = FileDescriptor(descriptor)};
    if (isRegularFile(descriptor)) return source;
    return {.state = UploadSource::State::kUnreadable, .error = EISDIR};
}

UploadSource nothingToSend() {
    return {.state = UploadSource::State::kNothingToSend, .error = ENOENT};
}

/// Copies the cached contents to the upload path.
UploadSource copyAgain(TWMetadataStorage& store, const LocalJournalPtr& entry, const TWVirtualFile& file,
                       int cached, const std::function<bool()>& stopped) {
    const std::string target = store.layout().cachePathForUpload(file);
    TWLog(kLogMain, "Error: upload for file %@ is missing, but got a local copy.", file.PublicName);
    TWLog(kLogMain, "Copying file %@ (share %@) for upload to %@", file.InternalName, file.ShareId,
          file.UploadName);
    const std::string temporary = store.layout().uploadsCachePath() + "/" + kTemporaryPrefix + generateGUID();
    const auto result = copyFileContents(cached, temporary, stopped);
    std::error_code problem = result.error;
    if (!problem) {
        const auto lock = store.beginReadStorage();
        // What changed it is journalled in its turn.
        const bool whole = !result.sourceChanged &&
                           store.isStillVersion(cached, file.InternalName.view(), file.UploadName.view());
        if (!whole) problem = std::make_error_code(std::errc::resource_unavailable_try_again);
    }
    if (!problem) {
        const auto lock = store.beginReadStorage();
        const bool current = entry->File->UploadName == file.UploadName;
        if (!current || std::rename(temporary.c_str(), target.c_str()) != 0)
            problem = std::error_code(current ? errno : ESTALE, std::generic_category());
    }
    if (problem) {
        TWLog(kLogMain, "Warning! Cannot copy file %@ to upload path %@. Error %@", file.InternalName, target,
              problem.message());
        ::unlink(temporary.c_str());
        return {.state = UploadSource::State::kUnreadable, .error = problem.value()};
    }
    TWLog(kLogMain, "File %@ copied to upload location.", file.PublicName);
    auto source = opened(openForReading(target));
    source.renewed = true;
    return source;
}

}  // namespace

std::optional<std::string> hashOfOpenFile(int descriptor, const std::function<bool()>& stopped) {
    std::array<char, kHashBlock> block;
    Md5 hash;
    std::int64_t position = 0;
    for (int blocks = 0;; ++blocks) {
        if (blocks % kBlocksBetweenLooks == 0 && stopped()) {
            errno = ECANCELED;
            return std::nullopt;
        }
        const auto count = ::pread(descriptor, block.data(), block.size(), position);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::nullopt;
        if (count == 0) return hash.hashText();
        hash.update({block.data(), static_cast<std::size_t>(count)});
        position += count;
    }
}

bool readRange(int descriptor, std::int64_t position, std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const auto count = ::pread(descriptor, bytes.data() + done, bytes.size() - done,
                                   position + static_cast<std::int64_t>(done));
        if (count < 0 && errno == EINTR) continue;
        if (count == 0) errno = ENODATA;
        if (count <= 0) return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

UploadSource openUploadFileForReading(TWMetadataStorage& store, const LocalJournalPtr& entry,
                                      const std::function<bool()>& stopped) {
    TWVirtualFile file;
    {
        const auto lock = store.beginReadStorage();
        file = *entry->File;
    }
    const int copy = openForReading(store.layout().cachePathForUpload(file));
    if (copy >= 0 || errno != ENOENT) return opened(copy);
    OwnedDescriptor cached;
    {
        const auto lock = store.beginReadStorage();
        auto state = TWMetadataStorage::OpenedVersion::kGone;
        cached = store.openVersion(file.InternalName.view(), file.UploadName.view(), state);
        // The burst that is under way ends in the journal, with this entry.
        if (state == TWMetadataStorage::OpenedVersion::kEdited)
            return {.state = UploadSource::State::kUnreadable, .error = EAGAIN};
        const auto live = store.fileWithId(file.InternalName.view());
        if (!cached && live && live->Tick > file.Tick && live->UploadName != file.UploadName) {
            TWLog(kLogMain,
                  "Error: upload for file %@ is missing, but local file was overwritten remotely. Deleting "
                  "journal entry.",
                  file.PublicName);
            return nothingToSend();
        }
    }
    if (!cached) {
        TWLog(kLogMain,
              "Error: upload for file %@ is missing, but there is no local copy as well. Deleting journal "
              "entry.",
              file.PublicName);
        return nothingToSend();
    }
    return copyAgain(store, entry, file, cached.get(), stopped);
}

}  // namespace tarnwell
