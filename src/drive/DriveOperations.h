#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "drive/Errno.h"
#include "drive/HandleTable.h"
#include "drive/InodeTable.h"
#include "drive/MountOptions.h"
#include "drive/TWFuseFileSystem.h"
#include "store/StoreDelegates.h"

namespace tarnwell {

/// The kernel's view of the drive: nodes and handles by number, one member per request. It turns a node into
/// the path that its item has at this moment, asks the path-based drive, and turns the answer into the
/// system's structures. It never replies itself and knows no fuse header: FuseAdapter binds it to libfuse.
///
/// INVARIANT: a metadata request acts on the item of the node that the kernel named, or not at all. Item and
/// parent are found by identity, and the path is formed and used, within one hold of the store's lock
/// (Place). Downloads, truncation and the freeing of large files run outside the hold and go by an open file,
/// which follows its item. A node whose item is gone answers ESTALE: the kernel then looks the name up again.
/// Attributes of a removed item are answered as long as it is open.
///
/// While it is set as the store's observer, nodes and open files follow their items to other identities.
///
/// Locks of files (POSIX and BSD) are left to the kernel: all programs that use the mount are on this
/// machine.
///
/// Threads: any.
class DriveOperations final : public DriveObserver {
  public:
    struct Attributes {
        struct stat stat {};
        double validSeconds = 0;
    };
    /// Counts as told to the kernel: forget() it when the answer does not arrive.
    struct Entry {
        std::uint64_t node = 0;
        Attributes attributes;
    };
    struct OpenFile {
        std::uint64_t handle = 0;
        bool directIo = false;
        bool noflush = false;
    };
    struct Created {
        Entry entry;
        OpenFile file;
    };
    struct AttributeRequest {
        std::optional<uid_t> owner = {};
        std::optional<gid_t> group = {};
        std::optional<mode_t> mode = {};
        std::optional<std::int64_t> size = {};
        std::optional<timespec> access = {};
        std::optional<timespec> modification = {};
        bool accessNow = false;
        bool modificationNow = false;
    };
    struct OpenDirectory {
        std::uint64_t handle = 0;
    };
    /// One listing, in order, "." and ".." first; an entry's offset is its place plus one.
    struct Listing {
        struct Entry {
            std::string name;
            std::uint64_t number;
            mode_t type;
        };
        std::vector<Entry> entries;
    };
    using ListingPtr = std::shared_ptr<const Listing>;

    DriveOperations(std::shared_ptr<TWFuseFileSystem> fileSystem, const MountOptions& options);
    /// Opens that the kernel never released end here.
    ~DriveOperations() override;

    ErrnoOr<Entry> lookup(std::uint64_t parent, std::string_view name);
    void forget(std::uint64_t node, std::uint64_t count) { nodes_.forget(node, count); }
    ErrnoOr<Attributes> getattr(std::uint64_t node) const;
    /// Special files stay as they are, whatever is asked. EPERM for another owner. `handle` 0: none.
    ErrnoOr<Attributes> setattr(std::uint64_t node, std::uint64_t handle, const AttributeRequest& request);
    ErrnoOr<Done> access(std::uint64_t node, int mask) const;

    ErrnoOr<OpenFile> open(std::uint64_t node, int flags, pid_t caller);
    ErrnoOr<std::size_t> read(std::uint64_t node, std::uint64_t handle, char* buffer, std::size_t size,
                              std::int64_t offset) const;
    /// `flags`: of the open as they are now; O_APPEND may come and go.
    ErrnoOr<std::size_t> write(std::uint64_t node, std::uint64_t handle, const char* buffer, std::size_t size,
                               std::int64_t offset, int flags);
    ErrnoOr<Done> fallocate(std::uint64_t node, std::uint64_t handle, int mode, std::int64_t offset,
                            std::int64_t length);
    /// EIO: what was written cannot reach the service, since the item's share is gone.
    ErrnoOr<Done> flush(std::uint64_t node, std::uint64_t handle);
    ErrnoOr<Done> fsync(std::uint64_t node, std::uint64_t handle);
    ErrnoOr<Done> fsyncdir(std::uint64_t node);
    void release(std::uint64_t node, std::uint64_t handle);

    ErrnoOr<Created> create(std::uint64_t parent, std::string_view name, mode_t mode, int flags,
                            pid_t caller);
    /// A regular file; EPERM for what a share cannot hold.
    ErrnoOr<Entry> mknod(std::uint64_t parent, std::string_view name, mode_t mode, pid_t caller);
    ErrnoOr<Entry> mkdir(std::uint64_t parent, std::string_view name, mode_t mode);
    ErrnoOr<Done> unlink(std::uint64_t parent, std::string_view name);
    ErrnoOr<Done> rmdir(std::uint64_t parent, std::string_view name);
    /// `flags`: RENAME_NOREPLACE, or RENAME_EXCHANGE, which swaps the contents of two files.
    ErrnoOr<Done> rename(std::uint64_t parent, std::string_view name, std::uint64_t newParent,
                         std::string_view newName, unsigned flags);

    ErrnoOr<OpenDirectory> opendir(std::uint64_t node);
    /// The listing as it was when the reader last was at `offset` 0, so that offsets stay true while the
    /// folder changes.
    ErrnoOr<ListingPtr> listing(std::uint64_t node, std::uint64_t handle, std::int64_t offset) const;
    void releasedir(std::uint64_t handle) { directories_.remove(handle); }

    ErrnoOr<struct statvfs> statfs() const;
    /// Names with and without "user." are the same attribute.
    ErrnoOr<std::string> getxattr(std::uint64_t node, std::string_view name) const;
    /// Names, each ended by a zero byte.
    ErrnoOr<std::string> listxattr(std::uint64_t node) const;

    ErrnoOr<Done> setxattr(std::uint64_t node, std::string_view name, std::string_view value, int flags);
    ErrnoOr<Done> removexattr(std::uint64_t node, std::string_view name);

    // The drive has nothing in the kernel's caches yet.
    void entryChanged(std::string_view, std::string_view) override {}
    void attributesChanged(std::string_view) override {}
    void contentsChanged(std::string_view) override {}
    void identityChanged(std::string_view from, std::string_view to) override;
    void identitiesExchanged(std::string_view a, std::string_view b) override;
    void contentsRenamed(std::string_view id, std::string_view from, std::string_view to) override;
    [[nodiscard]] bool isOpen(std::string_view id) const override;

    /// Nodes beside the root that the kernel holds.
    [[nodiscard]] std::size_t nodeCount() const { return nodes_.size(); }

  private:
    struct FileHandle {
        TWFuseFileDataPtr userData;
        std::uint64_t node;
    };
    struct DirectoryHandle {
        std::mutex mutex;
        ListingPtr listing;  // guarded by mutex
    };

    /// What a request holds: the store's lock, and where its item is under it.
    struct Place {
        StorageLock lock;
        NodeIdentity identity;
        std::string path;
    };

    /// ESTALE: the item is gone.
    [[nodiscard]] ErrnoOr<Place> placeOf(std::uint64_t node) const;
    /// Of the item `name` in a folder, to be made or removed; an error for names that are none of the
    /// drive's.
    [[nodiscard]] ErrnoOr<Place> placeOfChild(std::uint64_t parent, std::string_view name, bool isNew) const;
    /// Empty: the item is gone. REQUIRES LOCK.
    [[nodiscard]] std::string pathOf(const NodeIdentity& identity) const;
    /// For log lines.
    [[nodiscard]] std::string pathOf(std::uint64_t node) const;
    [[nodiscard]] Attributes attributesOf(std::uint64_t node,
                                          const TWFuseFileSystem::ItemAttributes& item) const;
    /// Of an item under the lock that `place` holds.
    [[nodiscard]] ErrnoOr<Attributes> attributesAt(const Place& place, std::uint64_t node) const;
    [[nodiscard]] ErrnoOr<Attributes> attributesOfRemoved(std::uint64_t node) const;
    /// Under the lock that `folder` holds.
    [[nodiscard]] ErrnoOr<Entry> entryIn(const Place& folder, std::string_view name);
    [[nodiscard]] TWFuseFileDataPtr removedFile(std::uint64_t node) const;
    [[nodiscard]] bool isSpecial(std::uint64_t parent, std::string_view name) const;
    [[nodiscard]] OpenFile addFile(std::uint64_t node, TWFuseFileDataPtr userData, bool changes,
                                   bool isSpecial);
    [[nodiscard]] ErrnoOr<ListingPtr> makeListing(std::uint64_t node) const;

    const std::shared_ptr<TWFuseFileSystem> fileSystem_;
    const bool directIo_;
    InodeTable nodes_;
    HandleTable<FileHandle> files_;
    HandleTable<DirectoryHandle> directories_;
};

}  // namespace tarnwell
