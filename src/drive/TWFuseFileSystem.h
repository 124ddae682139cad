#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "drive/Errno.h"
#include "drive/TWFuseFileData.h"
#include "platform/Executor.h"
#include "store/TWMetadataStorage.h"

namespace tarnwell {

/// The drive: answers every operation that a program performs on the mounted volume, from the store and the
/// cache.
///
/// Path in, value or POSIX error out. Paths are drive paths: "/" is the drive's root, the first component a
/// share's display name. It knows nothing of the kernel; the adapter to libfuse stands in front of it
/// (FuseAdapter.h). It never asks the service itself: names and attributes come from the store, contents from
/// the cache or, while they are not cached, from the mediator's blocking range fetch.
///
/// Threads: any, several at once. The store's lock is held for look-ups only, never while bytes are read or
/// fetched. One object per mount; everything it borrows outlives it and the mount's threads.
class TWFuseFileSystem {
  public:
    /// What the drive needs from the connector and the application.
    class Mediator {
      public:
        virtual ~Mediator() = default;
        /// The whole contents are in the cache. Called without the store's lock.
        [[nodiscard]] virtual bool isFileDownloaded(const TWVirtualFilePtr& file) = 0;
        /// At most `size` bytes of the current version from `position` on, or none when they cannot be had.
        /// Blocks the calling file-system thread for a bounded time; called without any lock.
        [[nodiscard]] virtual std::optional<std::string> downloadFileChunk(const TWVirtualFilePtr& file,
                                                                           std::int64_t position,
                                                                           std::int64_t size) = 0;
        /// A finished burst of writes: record it as an Update in the local journal. Called with the store's
        /// lock.
        virtual void journalUpdate(const TWVirtualFilePtr& file) = 0;
        /// Verbose log lines of calls that file browsers make all the time.
        [[nodiscard]] virtual bool excessiveLogging() const = 0;
    };

    struct DirectoryEntry {
        std::string name;  ///< in canonical decomposition
        SharedString id;   ///< `InternalName` or `ShareId`; absent for the special files
        bool isFolder = false;
    };

    struct ItemAttributes {
        SharedString id;  ///< `InternalName` or `ShareId`; absent for the root and the special files
        bool isFolder = false;
        std::int64_t size = 0;  ///< of the record, cached or not
        Date creation{};
        Date modification{};
        Date access{};
        std::uint32_t permissions = 0;
        uid_t owner = 0;
        gid_t group = 0;
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

    // --- Reading
    // ------------------------------------------------------------------------------------------------
    /// Shares in the store's order and ".fuselock" at the root; the visible children elsewhere. An unknown
    /// folder has no entries.
    [[nodiscard]] std::vector<DirectoryEntry> contentsOfDirectoryAtPath(const std::string& path) const;
    ErrnoOr<VolumeAttributes> attributesOfFileSystemForPath(const std::string& path) const;
    /// `userData` may be null.
    ErrnoOr<ItemAttributes> attributesOfItemAtPath(const std::string& path,
                                                   const TWFuseFileData* userData) const;
    /// The value may be null: special files have no user data. `caller` is the opening process, -1 unknown.
    ErrnoOr<TWFuseFileDataPtr> openFileAtPath(const std::string& path, int mode, pid_t caller);
    /// Reads into `buffer`; 0 at the end of the file. Never past the record's size.
    ErrnoOr<std::size_t> readFileAtPath(const std::string& path, TWFuseFileData* userData, char* buffer,
                                        std::size_t size, std::int64_t offset);
    /// The last close of one open.
    void releaseFileAtPath(const std::string& path, TWFuseFileData* userData);
    ErrnoOr<std::vector<std::string>> extendedAttributesOfItemAtPath(const std::string& path) const;
    ErrnoOr<std::string> valueOfExtendedAttribute(const std::string& name, const std::string& ofItemAtPath,
                                                  std::int64_t position) const;

    // --- Quiet period
    // -------------------------------------------------------------------------------------------
    /// Hands every file that was written and then left alone for more than four seconds to the journal, on
    /// the background executor. A one-second timer of the application calls this; it never blocks.
    void checkOpenedFiles();

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

    ErrnoOr<FileRange> rangeOfFileAtPath(const std::string& path, TWFuseFileData* userData, std::size_t size,
                                         std::int64_t offset);
    [[nodiscard]] ItemAttributes ownedAttributes() const;
    [[nodiscard]] ErrnoOr<ItemAttributes> rootAttributes() const;
    /// Locks.
    [[nodiscard]] bool isReadOnly(const std::string& path) const;

    // Constant after construction.
    TWMetadataStorage& store_;
    const CacheLayout& layout_;
    Executor& background_;
    Mediator& mediator_;
    uid_t fileOwnerAccountID_ = 0;
    gid_t fileGroupOwnerAccountID_ = 0;
};

}  // namespace tarnwell
