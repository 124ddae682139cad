#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "drive/Errno.h"
#include "drive/TWFuseFileData.h"
#include "platform/Executor.h"
#include "platform/LocalSocket.h"
#include "store/TWMetadataStorage.h"

namespace tarnwell {

/// The drive: answers every operation that a program performs on the mounted volume, from the store and the
/// cache.
///
/// Path in, value or POSIX error out. Paths are drive paths: "/" is the drive's root, the first component a
/// share's display name. An operation on an open file goes by the handle's identity; its path is for log
/// lines. It knows nothing of the kernel; the adapter to libfuse stands in front of it (FuseAdapter.h). It
/// never asks the service itself: names and attributes come from the store, contents from the cache or, while
/// they are not cached, from the mediator's blocking range fetch.
///
/// Writing, in an order that a crash at any moment leaves whole (docs/journal.md, "Bytes and records"):
/// 1. The record is marked `LocallyUpdated`, in a LocalChange of its own, before its bytes are touched.
/// 2. The bytes are changed, without the store's lock where that takes time.
/// 3. Size and times follow. The change is journalled, and the mark cleared in the same step, when nobody has
///    written for more than four seconds or the last writer closes.
///
/// The bytes that an open reads and writes are those of one version (TWFuseFileData). A write to a version
/// that another one of the service has replaced brings it back as the item's contents, marked as changed by
/// the user, so that the service sees two versions of one base and keeps both.
///
/// Operations on items by path are complete, and are made of two steps where a part takes long: the first
/// acts on records and may be called, like all that is REQUIRES LOCK, within a hold of the store's lock; the
/// second works without the lock on what the first returned.
///
/// A change is refused with the error of the change log when that cannot take it (ENOSPC on a full disk).
///
/// Threads: any, several at once. The store's lock is held for look-ups and changes of records, never while
/// bytes are read, written, synced or fetched. One object per mount; everything it borrows outlives it and
/// the mount's threads.
class TWFuseFileSystem : public std::enable_shared_from_this<TWFuseFileSystem> {
  public:
    /// What the drive needs from the connector and the application.
    class Mediator {
      public:
        virtual ~Mediator() = default;
        /// The whole contents are in the cache. Called with or without the store's lock; must not block.
        [[nodiscard]] virtual bool isFileDownloaded(const TWVirtualFilePtr& file) = 0;
        /// At most `size` bytes of the current version from `position` on, or none when they cannot be had.
        /// Blocks the calling file-system thread for a bounded time; called without any lock.
        [[nodiscard]] virtual std::optional<std::string> downloadFileChunk(const TWVirtualFilePtr& file,
                                                                           std::int64_t position,
                                                                           std::int64_t size) = 0;
        /// Verbose log lines of calls that file browsers make all the time.
        [[nodiscard]] virtual bool excessiveLogging() const = 0;
    };

    struct DirectoryEntry {
        std::string name;  ///< in canonical decomposition
        SharedString id;   ///< `InternalName` or `ShareId`; absent for the special files
        bool isFolder = false;
    };

    /// As DirectoryEntry, with the name as the item is spelled.
    struct Child {
        SharedString name;
        SharedString id;
        bool isFolder = false;
    };

    struct ItemAttributes {
        SharedString id;    ///< `InternalName` or `ShareId`; absent for the root and the special files
        SharedString name;  ///< as the item is spelled; absent as above
        bool isFolder = false;
        std::int64_t size = 0;  ///< of the record, cached or not
        Date creation{};
        Date modification{};
        Date access{};
        std::uint32_t permissions = 0;
        uid_t owner = 0;
        gid_t group = 0;
        bool removed = false;  ///< lives on in an open file only
    };

    /// What setAttributes() and the creating calls change; what is absent stays.
    struct AttributeChanges {
        std::optional<std::uint32_t> permissions = {};
        std::optional<Date> modification = {};
        std::optional<Date> access = {};
        std::optional<std::int64_t> size = {};
    };

    /// How a move differs from what file browsers expect.
    struct MoveRules {
        bool replaces = true;    ///< false: EEXIST where something stands at the target
        bool takesName = false;  ///< a folder that replaces an empty one gets its name, not only its place
    };

    /// Bytes, inodes: of the disk that holds the cache.
    struct VolumeAttributes {
        std::uint64_t size = 0;
        std::uint64_t freeSize = 0;
        std::uint64_t availableSize = 0;  ///< free to this user
        std::uint64_t nodes = 0;
        std::uint64_t freeNodes = 0;
    };

    /// Takes the owner of all items from the Downloads folder. A folder that cannot be asked is fatal: logs
    /// and ends the process with status 1.
    TWFuseFileSystem(TWMetadataStorage& store, const CacheLayout& layout, Executor& background,
                     Mediator& mediator);

    /// Shares in the store's order and ".fuselock" at the root; the visible children elsewhere. An unknown
    /// folder has no entries.
    [[nodiscard]] std::vector<DirectoryEntry> contentsOfDirectoryAtPath(const std::string& path) const;
    [[nodiscard]] std::vector<Child> childrenOfDirectoryAtPath(const std::string& path) const;
    ErrnoOr<VolumeAttributes> attributesOfFileSystemForPath(const std::string& path) const;
    /// `userData` may be null. A detached handle answers for itself.
    ErrnoOr<ItemAttributes> attributesOfItemAtPath(const std::string& path,
                                                   const TWFuseFileData* userData) const;
    /// The value may be null: special files have no user data. `caller` is the opening process, -1 unknown.
    /// O_TRUNC empties the file.
    ErrnoOr<TWFuseFileDataPtr> openFileAtPath(const std::string& path, int mode, pid_t caller);
    /// The same without the truncation, which beginResize() does. REQUIRES LOCK.
    ErrnoOr<TWFuseFileDataPtr> openItem(const std::string& path, int mode, pid_t caller);
    /// Reads into `buffer`; 0 at the end of the file. Never past the record's size. ESTALE: the open has
    /// begun with another version than the present one, and its bytes cannot be had any more.
    ErrnoOr<std::size_t> readFileAtPath(const std::string& path, TWFuseFileData* userData, char* buffer,
                                        std::size_t size, std::int64_t offset);
    /// The last close of one open.
    void releaseFileAtPath(const std::string& path, TWFuseFileData* userData);
    ErrnoOr<std::vector<std::string>> extendedAttributesOfItemAtPath(const std::string& path) const;
    ErrnoOr<std::string> valueOfExtendedAttribute(const std::string& name, const std::string& ofItemAtPath,
                                                  std::int64_t position) const;

    /// Creates the file and opens it. One that stands there already is emptied; with O_EXCL in `mode` it is
    /// EEXIST, without O_TRUNC it is opened as it is. The value is null for special files.
    ErrnoOr<TWFuseFileDataPtr> createFileAtPath(const std::string& path, const AttributeChanges& attributes,
                                                pid_t caller, int mode = O_RDWR | O_CREAT | O_TRUNC);
    /// A file that was created, or that is to be emptied.
    struct Creation {
        TWFuseFileDataPtr handle;
        bool empties = false;
    };
    /// createFileAtPath() in two steps. The first REQUIRES LOCK. After an error of the second the handle is
    /// to be released.
    ErrnoOr<Creation> createItem(const std::string& path, const AttributeChanges& attributes, pid_t caller,
                                 int mode);
    ErrnoOr<Done> finishCreation(const Creation& creation, const AttributeChanges& attributes);
    ErrnoOr<Done> createDirectoryAtPath(const std::string& path, const AttributeChanges& attributes);
    /// Writes at `offset`, or with `append` at the end of the file. Contents that are not here are fetched
    /// first, unless the write replaces all of them; ENOENT when they cannot be had.
    ErrnoOr<std::size_t> writeFileAtPath(const std::string& path, TWFuseFileData* userData,
                                         const char* buffer, std::size_t size, std::int64_t offset,
                                         bool append = false);
    /// Reserves or frees space in an open file; `mode` as for fallocate(2).
    ErrnoOr<Done> allocateFileAtPath(const std::string& path, TWFuseFileData& userData, int mode,
                                     std::int64_t offset, std::int64_t length);
    /// `userData` may be null. A new size is part of the open's burst, or journalled at once without an open.
    ErrnoOr<Done> setAttributes(const AttributeChanges& attributes, const std::string& ofItemAtPath,
                                TWFuseFileData* userData);
    /// A change of size in two steps.
    struct Resize {
        TWFuseFileDataPtr handle;
        std::int64_t size = 0;
        bool isOwn = false;  ///< `handle` is none of a program: what it does is journalled at once
    };
    /// `userData` may be null. No handle: there is nothing to do. REQUIRES LOCK.
    ErrnoOr<Resize> beginResize(const std::string& path, TWFuseFileData* userData, std::int64_t size);
    ErrnoOr<Done> finishResize(const Resize& resize);
    /// On return what was written through this open survives the end of the process. EIO: its item is gone,
    /// and not removed by the user.
    ErrnoOr<Done> flushFileAtPath(const std::string& path, TWFuseFileData* userData);
    /// On return contents, record and journal survive the loss of power. `userData` may be null. ENOSPC, EIO:
    /// they do not.
    ErrnoOr<Done> syncFileAtPath(const std::string& path, TWFuseFileData* userData);
    ErrnoOr<Done> syncDirectoryAtPath(const std::string& path);
    /// syncDirectoryAtPath() in two steps. REQUIRES LOCK; without it.
    [[nodiscard]] std::string cacheFolderOfItemAtPath(const std::string& path) const;
    ErrnoOr<Done> syncCacheFolder(const std::string& cacheFolder);

    /// Two files trade their contents and sizes; open files stay with the bytes.
    ErrnoOr<Done> exchangeDataOfItemAtPath(const std::string& path, const std::string& withItemAtPath);
    /// Renames and moves within a share, or renames a share. A file that replaces another gives it its
    /// contents; the other keeps its identity. Fetches contents that the move would leave behind.
    ErrnoOr<Done> moveItemAtPath(const std::string& path, const std::string& toPath, MoveRules rules);
    ErrnoOr<Done> moveItemAtPath(const std::string& path, const std::string& toPath) {
        return moveItemAtPath(path, toPath, MoveRules{});
    }
    /// moveItemAtPath() in steps: the file whose contents have to be fetched first, null if none; the fetch,
    /// without the lock; the move. REQUIRES LOCK (first and last).
    [[nodiscard]] TWVirtualFilePtr missingForMove(const std::string& path, const std::string& toPath) const;
    ErrnoOr<Done> fetchContents(const TWVirtualFilePtr& file);
    ErrnoOr<Done> moveItem(const std::string& path, const std::string& toPath, MoveRules rules);
    /// An open of the cache file of the item at `path` when that is large: its space, which takes time to
    /// free, is freed when this is closed. To be closed without the lock.
    [[nodiscard]] OwnedDescriptor holdLargeFile(const std::string& path) const;
    /// With everything in it.
    ErrnoOr<Done> removeDirectoryAtPath(const std::string& path);
    /// As above for a folder that shows nothing, else ENOTEMPTY.
    ErrnoOr<Done> removeEmptyDirectoryAtPath(const std::string& path);
    /// Opens of the file go on with its bytes.
    ErrnoOr<Done> removeItemAtPath(const std::string& path);

    /// `options`: XATTR_CREATE or XATTR_REPLACE or 0. Without XATTR_REPLACE the bytes are written into the
    /// value that is there.
    ErrnoOr<Done> setExtendedAttribute(const std::string& name, const std::string& ofItemAtPath,
                                       std::string_view value, std::int64_t position, int options);
    ErrnoOr<Done> removeExtendedAttribute(const std::string& name, const std::string& ofItemAtPath);

    /// Whether the item may be changed as far as its share goes. The root never.
    [[nodiscard]] bool isWritable(const std::string& path) const;

    /// Hands every file that was written and then left alone for more than four seconds to the journal, on
    /// the background executor. A one-second timer of the application calls this; it never blocks.
    void checkOpenedFiles();

    /// Names of contents in the Downloads folder that are being fetched to be written to.
    static constexpr std::string_view kFetchedPrefix = ".fetched-";

    /// "O_RDWR | O_CREAT", for log lines.
    [[nodiscard]] static std::string openFlagsToString(int flags);

    [[nodiscard]] TWMetadataStorage& store() const { return store_; }

  private:
    /// Where the bytes of a read are: fetched, or a piece of a cache file (`file` set).
    struct FileRange {
        CacheFilePtr file;
        std::int64_t offset = 0;
        std::size_t size = 0;  ///< at most; the cache file may end before
        std::string data;
    };
    /// A cache file that is ready to be changed, its record marked.
    struct WriteTarget {
        CacheFilePtr file;
        /// Made for this write, of a file whose contents are not here: must not stay when the write fails.
        bool replacesUncached = false;
        bool needsSync = false;  ///< of the stamp, before the bytes are changed
    };
    /// Why a file cannot be written to as it is.
    struct Obstacle {
        TWVirtualFilePtr notHere;   ///< has to be fetched
        TWVirtualFilePtr outdated;  ///< the version of the open, which has to be brought back
        [[nodiscard]] bool isSet() const { return notHere || outdated; }
    };
    /// What a write is about to change.
    struct Extent {
        std::int64_t offset = 0;
        std::int64_t length = 0;
        bool empties = false;
        bool append = false;
        [[nodiscard]] bool replacesAll(std::int64_t size) const {
            return empties || (!append && offset == 0 && length >= size);
        }
        /// Bytes that are there are changed in their place.
        [[nodiscard]] bool overwrites(std::int64_t size) const {
            return !empties && !append && length > 0 && offset < size;
        }
    };
    struct Parent {
        ManagedSharePtr share;    ///< null: there is no such parent
        TWVirtualFilePtr folder;  ///< null: the share's root
    };

    ErrnoOr<FileRange> rangeOfFileAtPath(const std::string& path, TWFuseFileData* userData, std::size_t size,
                                         std::int64_t offset);
    ErrnoOr<FileRange> rangeOfHeld(const TWFuseFileData& userData, std::size_t size, std::int64_t offset);
    ErrnoOr<FileRange> fetchedRange(const TWVirtualFilePtr& file, std::int64_t length, std::size_t size,
                                    std::int64_t offset);
    [[nodiscard]] ItemAttributes ownedAttributes() const;
    [[nodiscard]] ItemAttributes attributesOfRecord(const TWVirtualFile& file) const;
    [[nodiscard]] ErrnoOr<ItemAttributes> rootAttributes() const;
    [[nodiscard]] ErrnoOr<ItemAttributes> attributesOfDetached(const TWFuseFileData& userData) const;
    /// Locks.
    [[nodiscard]] bool isReadOnly(const std::string& path) const;
    [[nodiscard]] std::string attributeFileOfItemAtPath(const std::string& path) const;

    // All REQUIRE LOCK, the store's, except where said.
    [[nodiscard]] TWVirtualFilePtr visibleFileWithPath(const std::string& path) const;
    [[nodiscard]] Parent parentOfPath(const std::string& path) const;
    [[nodiscard]] bool showsEntries(const TWVirtualFile& folder, bool alsoHidden) const;
    int mark(TWVirtualFile& file);
    void unmark(TWVirtualFile& file);
    int stamp(const TWVirtualFile& file, TWFuseFileData& userData, const CacheFile& cacheFile, bool isFirst);
    void journalUpdate(const TWVirtualFilePtr& file);
    void endBurst(const TWVirtualFilePtr& file, bool wrote, const TWFuseFileData* by);
    void setSize(TWVirtualFile& file, std::int64_t size) const;
    void detachOpens(const TWVirtualFilePtr& file) const;
    ErrnoOr<Done> replaceFile(const TWVirtualFilePtr& source, const TWVirtualFilePtr& target);
    ErrnoOr<Done> replaceByUncached(const TWVirtualFilePtr& source, const TWVirtualFilePtr& target);
    ErrnoOr<Done> replaceFolder(const TWVirtualFilePtr& source, const TWVirtualFilePtr& target,
                                std::string_view name);
    ErrnoOr<Done> moveToFreePlace(const TWVirtualFilePtr& source, const std::string& toPath);
    ErrnoOr<Done> moveShare(const std::string& path, const std::string& toPath);
    ErrnoOr<Done> moveLocked(const std::string& path, const std::string& toPath, MoveRules rules);
    ErrnoOr<TWFuseFileDataPtr> createNewFile(const std::string& path, const Parent& parent,
                                             const AttributeChanges& attributes, int mode, pid_t caller);
    /// 0, or why the change log does not take a change of the user.
    [[nodiscard]] int refusal() const;
    [[nodiscard]] static ErrnoOr<Done> answered(LocalChange& change);
    [[nodiscard]] static std::string described(const AttributeChanges& attributes);

    // Without the lock; all may take a while.
    ErrnoOr<Done> syncChangeLog();
    ErrnoOr<WriteTarget> beginWriting(const std::string& path, TWFuseFileData& userData, Extent extent);
    ErrnoOr<WriteTarget> tryToBeginWriting(TWFuseFileData& userData, Extent extent, Obstacle& obstacle);
    void endWriting(TWFuseFileData& userData, const WriteTarget& target, bool failed);
    ErrnoOr<Done> resize(const std::string& path, TWFuseFileData& userData, std::int64_t size);
    ErrnoOr<Done> bringBack(TWFuseFileData& userData, const TWVirtualFilePtr& version, Extent extent);

    // Constant after construction.
    TWMetadataStorage& store_;
    const CacheLayout& layout_;
    Executor& background_;
    Mediator& mediator_;
    uid_t fileOwnerAccountID_ = 0;
    gid_t fileGroupOwnerAccountID_ = 0;

    /// Makes the change of an attribute file one step. Innermost; held over a small read and write.
    std::mutex attributeFiles_;
};

}  // namespace tarnwell
