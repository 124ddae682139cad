// Versions of contents: fetching one, stamping an edit, bringing back the one that an open has begun with.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "drive/DescriptorWriting.h"
#include "drive/TWFuseFileSystem.h"
#include "store/ContentVersion.h"
#include "store/FileCopy.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {
namespace {

/// Contents are fetched in pieces of this size.
constexpr std::int64_t kFetchPiece = 1 << 20;

/// 0 or errno. A disk that keeps no attributes has the store tell versions in another way.
int setVersion(const ContentVersion& version, int descriptor) {
    const int error = version.set(descriptor);
    return error == EOPNOTSUPP ? 0 : error;
}

/// All by which a record names its contents and the state of the service that they are of.
void takeVersion(TWVirtualFile& record, const TWVirtualFile& from) {
    for (const auto field :
         {&TWVirtualFile::UploadName, &TWVirtualFile::UploadUrl, &TWVirtualFile::User,
          &TWVirtualFile::LastUploadName, &TWVirtualFile::ArchivedFullName, &TWVirtualFile::FilehHash}) {
        record.*field = from.*field;
    }
    for (const auto field : {&TWVirtualFile::Tick, &TWVirtualFile::ShareTick, &TWVirtualFile::UpdateTick,
                             &TWVirtualFile::CreateTick}) {
        record.*field = from.*field;
    }
    record.EndOfFile = from.EndOfFile;
    record.AllocationSize = from.AllocationSize;
    record.LastWriteTime = from.LastWriteTime;
    record.DownloadDate = from.DownloadDate;
    record.LocallyUpdated = from.LocallyUpdated;
}

/// A file of the downloads folder that goes unless it is given another name.
struct Temporary {
    std::string path;
    ~Temporary() {
        if (!path.empty()) ::unlink(path.c_str());
    }
    [[nodiscard]] int moveTo(const std::string& place) {
        if (::rename(path.c_str(), place.c_str()) != 0) return errno;
        path.clear();
        return 0;
    }
};

}  // namespace

/// Says of a cache file that it is being edited, at the beginning of a burst. 0 or errno. REQUIRES LOCK.
int TWFuseFileSystem::stamp(const TWVirtualFile& file, TWFuseFileData& userData, const CacheFile& cacheFile,
                            bool isFirst) {
    const auto former = ContentVersion::of(cacheFile.descriptor());
    const bool isEdited = former && former->isEdited() && (!isFirst || former->isOf(file.UploadName.view()));
    if (!isEdited) {
        const auto version = ContentVersion::edited(file.UploadName.view());
        if (const int error = setVersion(version, cacheFile.descriptor())) return error;
    }
    userData.noteStamp(!isEdited);
    // An open that holds a file of the same version that has been dropped from the cache since.
    if (isFirst) TWFuseFileData::cacheFileChanged(file.InternalName.view());
    return 0;
}

/// Brings the whole contents into the cache. Each piece is bounded by the connector's time-outs.
ErrnoOr<Done> TWFuseFileSystem::fetchContents(const TWVirtualFilePtr& file) {
    SharedString version;
    std::int64_t size = 0;
    {
        const auto lock = store_.beginReadStorage();
        version = file->UploadName;
        size = file->size();
    }
    Temporary temporary{layout_.downloadsCachePath() + "/" + std::string(kFetchedPrefix) + generateGUID()};
    const OwnedDescriptor out(::open(temporary.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!out) return Errno{errno};
    for (std::int64_t at = 0; at < size;) {
        if (mediator_.isFileDownloaded(file)) return Done{};
        const auto bytes = mediator_.downloadFileChunk(file, at, std::min(kFetchPiece, size - at));
        if (!bytes || bytes->empty()) return Errno{ENOENT};
        const auto written = writeAll(out.get(), bytes->data(), bytes->size(), at, false);
        if (!written) return Errno{written.error()};
        if (*written != bytes->size()) return Errno{ENOSPC};
        at += static_cast<std::int64_t>(bytes->size());
    }
    if (const int error = setVersion(ContentVersion::clean(version.view()), out.get())) return Errno{error};
    // They are not told from contents that were lost, should the power fail before they are on the disk.
    if (::fsync(out.get()) != 0) return Errno{errno};
    // Bytes and record in one step.
    const auto change = store_.beginLocalChange();
    const auto stored = store_.fileWithId(file->InternalName.view());
    const bool isCurrent = stored && stored->UploadName == version && stored->size() == size &&
                           !mediator_.isFileDownloaded(stored);
    if (!isCurrent) return Done{};
    if (!store_.makeRoomForContents(*stored)) return Errno{EIO};
    if (const int error = temporary.moveTo(layout_.cachePathForFile(*stored))) return Errno{error};
    stored->DownloadDate = store_.clock().now();
    store_.markChanged(*stored);
    return Done{};
}

/// The open is about to change contents that are not the item's any more, or not in the cache any more: puts
/// a copy of what it holds there. Contents that came meanwhile give way: the service has them, and makes a
/// second file of what is based on the former ones.
ErrnoOr<Done> TWFuseFileSystem::bringBack(TWFuseFileData& userData, const TWVirtualFilePtr& version,
                                          Extent extent) {
    const auto held = userData.cacheFile();
    if (!held && !extent.replacesAll(version->size())) return Errno{ESTALE};
    Temporary copy{layout_.downloadsCachePath() + "/" + std::string(kFetchedPrefix) + generateGUID()};
    std::int64_t size = 0;
    auto kind = ContentVersion::clean(version->UploadName.view());
    if (held) {
        const auto former = ContentVersion::of(held->descriptor());
        if (former && !former->isEdited() && former->isOf(version->UploadName.view())) kind = *former;
        // Opened to write only, perhaps; the descriptor's own file can be read all the same.
        const auto source = "/proc/self/fd/" + std::to_string(held->descriptor());
        const OwnedDescriptor bytes(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
        if (!bytes) return Errno{errno};
        const auto copied = copyFileContents(bytes.get(), copy.path, [] { return false; });
        if (copied.error || copied.sourceChanged) return Errno{copied.error ? copied.error.value() : EIO};
        size = copied.size;
    }
    const OwnedDescriptor out(::open(copy.path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!out) return Errno{errno};
    // It is stamped as edited by the burst that begins now.
    if (const int error = setVersion(kind, out.get())) return Errno{error};
    if (::fsync(out.get()) != 0) return Errno{errno};

    LocalChange change(store_);
    const auto stored = store_.fileWithId(userData.fileId().view());
    if (!stored) return Errno{EIO};
    const auto path = layout_.cachePathForFile(*stored);
    if (stored->UploadName == version->UploadName) {
        if (!mediator_.isFileDownloaded(stored)) {
            if (!store_.makeRoomForContents(*stored)) return Errno{EIO};
            if (const int error = copy.moveTo(path)) return Errno{error};
            stored->DownloadDate = store_.clock().now();
            store_.markChanged(*stored);
        }
        return Done{};
    }
    if (store_.hasUnsentContents(*stored)) return Errno{ESTALE};
    if (const int error = refusal()) return Errno{error};
    TWLog(kLogMain, "Warning! %@ was replaced by another version while it was written to. Both are kept.",
          stored->FullPath);
    const TWVirtualFile former = *stored;
    takeVersion(*stored, *version);
    setSize(*stored, size);
    // Before the bytes: to a run that finds it so they are the user's.
    stored->LocallyUpdated = true;
    store_.markChanged(*stored);
    int error = change.commit();
    if (error == 0 && !store_.makeRoomForContents(*stored)) error = EIO;
    if (error == 0) error = copy.moveTo(path);
    if (error != 0) {
        takeVersion(*stored, former);
        store_.markChanged(*stored);
        return Errno{error};
    }
    store_.noteContentsChanged(*stored);
    store_.noteAttributesChanged(*stored);
    return Done{};
}

}  // namespace tarnwell
