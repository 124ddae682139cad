// Attributes of items, and what makes changes last.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "drive/TWFuseFileSystem.h"
#include "store/FileCopy.h"
#include "store/LocalChangeJournal.h"
#include "store/StorePersistence.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

ErrnoOr<Done> TWFuseFileSystem::setAttributes(const AttributeChanges& attributes,
                                              const std::string& ofItemAtPath, TWFuseFileData* userData) {
    TWLog(kLogFuse, "TWFuseFileSystem: setAttributes:%@ ofItemAtPath:%@", described(attributes),
          ofItemAtPath);
    if (attributes.size) {
        Resize resize;
        {
            const auto lock = store_.beginWriteStorage();
            auto begun = beginResize(ofItemAtPath, userData, *attributes.size);
            if (!begun) return Errno{begun.error()};
            resize = *std::move(begun);
        }
        if (const auto resized = finishResize(resize); !resized) return resized;
    }
    // After the size, which moves the time on.
    if (!(attributes.permissions || attributes.modification || attributes.access)) return Done{};
    LocalChange change(store_);
    TWVirtualFilePtr file;
    const bool detached = userData && userData->isDetached();
    if (detached) {
        file = userData->formerRecord();
        if (!file) return Done{};
    } else {
        if (!userData && (CacheLayout::isRootPath(ofItemAtPath) || CacheLayout::isSharePath(ofItemAtPath))) {
            TWLog(kLogFuse, "TWFuseFileSystem: setAttributes: the service keeps no attributes of a share.");
            return Errno{EACCES};
        }
        file = userData ? store_.fileWithId(userData->fileId().view()) : visibleFileWithPath(ofItemAtPath);
        if (!file) return Errno{userData ? ESTALE : ENOENT};
        if (isReadOnly(file->FullPath.str())) return Errno{EACCES};
        if (const int error = refusal()) return Errno{error};
    }
    if (attributes.permissions)
        file->POSIXPermissions = static_cast<std::int32_t>(*attributes.permissions & 07777U);
    if (attributes.modification) file->LastWriteTime = *attributes.modification;
    if (attributes.access) file->LastAccessTime = *attributes.access;
    if (detached) return Done{};
    // As what is written: programs that unpack set three attributes of each file before they close it.
    if (file->LocallyUpdated.value_or(false) && TWFuseFileData::joinBurst(file->InternalName.view())) {
        store_.noteWriteProgress(*file);
        return Done{};
    }
    store_.noteAttributesChanged(*file);
    store_.journal().attributesChanged(*file);
    return answered(change);
}

// Making it last

/// The error that a caller has to hear when what was noted did not reach the change log. It stays noted.
ErrnoOr<Done> TWFuseFileSystem::answered(LocalChange& change) {
    if (const int error = change.commit()) return Errno{error};
    return Done{};
}

ErrnoOr<Done> TWFuseFileSystem::flushFileAtPath(const std::string& /*path*/, TWFuseFileData* userData) {
    if (!userData) return Done{};
    LocalChange change(store_);
    const auto file = store_.fileWithId(userData->fileId().view());
    if (!file && !userData->isDetached()) return Errno{EIO};
    if (!userData->takeProgress() || !file) return Done{};
    store_.markChanged(*file);
    const auto lasting = answered(change);
    if (!lasting) userData->noteProgress();
    return lasting;
}

ErrnoOr<Done> TWFuseFileSystem::syncFileAtPath(const std::string& path, TWFuseFileData* userData) {
    if (CacheLayout::isSpecialPath(path)) return Done{};
    CacheFilePtr held;
    std::string cachePath;
    {
        const auto lock = store_.beginReadStorage();
        const auto file = userData ? store_.fileWithId(userData->fileId().view()) : visibleFileWithPath(path);
        if (!file && userData && !userData->isDetached()) return Errno{EIO};
        if (userData) held = userData->cacheFile();
        if (file && file->IsFile) cachePath = layout_.cachePathForFile(*file);
    }
    // The bytes before the record that speaks of them. A read-only open may hold nothing, and another open's
    // writes count as well.
    if (held) {
        const bool withStamp = userData->stampUnsynced();
        if ((withStamp ? ::fsync(held->descriptor()) : ::fdatasync(held->descriptor())) != 0)
            return Errno{errno};
        if (withStamp) userData->stampSynced();
    }
    if (cachePath.empty()) return Done{};
    if (!held) {
        const OwnedDescriptor current(::open(cachePath.c_str(), O_RDONLY | O_CLOEXEC));
        if (current && ::fdatasync(current.get()) != 0) return Errno{errno};
    }
    syncFolder(std::string(deletingLastPathComponent(cachePath)));
    if (const auto flushed = flushFileAtPath(path, userData); !flushed) return flushed;
    return syncChangeLog();
}

ErrnoOr<Done> TWFuseFileSystem::syncChangeLog() {
    if (const int error = store_.persistence().flushChanges()) return Errno{error};
    return Done{};
}

ErrnoOr<Done> TWFuseFileSystem::syncDirectoryAtPath(const std::string& path) {
    return syncCacheFolder(cacheFolderOfItemAtPath(path));
}

std::string TWFuseFileSystem::cacheFolderOfItemAtPath(const std::string& path) const {
    const auto lock = store_.beginReadStorage();
    ManagedSharePtr share = store_.shareWithPath(path);
    if (!share) share = store_.shareWithFilePath(path);
    return share ? layout_.cachePathForShare(*share) : std::string();
}

ErrnoOr<Done> TWFuseFileSystem::syncCacheFolder(const std::string& cacheFolder) {
    if (!cacheFolder.empty()) syncFolder(cacheFolder);
    return syncChangeLog();
}

}  // namespace tarnwell
