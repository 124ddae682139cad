#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "drive/Errno.h"
#include "drive/HandleTable.h"
#include "drive/InodeTable.h"
#include "drive/MountOptions.h"
#include "drive/TWFuseFileSystem.h"

namespace tarnwell {

/// The kernel's view of the drive: nodes and handles by number, one member per request. It turns a node into
/// the path that its item has at this moment, asks the path-based drive, and turns the answer into the
/// system's structures. It never replies itself and knows no fuse header: FuseAdapter binds it to libfuse.
///
/// A record may be renamed between the forming of its path and the call: an answer that says "no such item"
/// for a path that has changed meanwhile is asked for again (bounded).
///
/// Changing requests are refused with EROFS, those to the special files excepted.
///
/// Threads: any.
class DriveOperations {
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

    ErrnoOr<Entry> lookup(std::uint64_t parent, std::string_view name);
    void forget(std::uint64_t node, std::uint64_t count) { nodes_.forget(node, count); }
    ErrnoOr<Attributes> getattr(std::uint64_t node) const;
    /// Special files keep whatever is asked for; all others are refused.
    ErrnoOr<Attributes> setattr(std::uint64_t node) const;
    ErrnoOr<Done> access(std::uint64_t node, int mask) const;

    ErrnoOr<OpenFile> open(std::uint64_t node, int flags, pid_t caller);
    ErrnoOr<std::size_t> read(std::uint64_t node, std::uint64_t handle, char* buffer, std::size_t size,
                              std::int64_t offset) const;
    ErrnoOr<std::size_t> write(std::uint64_t node, std::size_t size) const;
    void release(std::uint64_t node, std::uint64_t handle);

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

    ErrnoOr<Done> unlink(std::uint64_t parent, std::string_view name) const;

    /// Nodes beside the root that the kernel holds.
    [[nodiscard]] std::size_t nodeCount() const { return nodes_.size(); }

  private:
    struct FileHandle {
        TWFuseFileDataPtr userData;
    };
    struct DirectoryHandle {
        std::mutex mutex;
        ListingPtr listing;  // guarded by mutex
    };

    [[nodiscard]] std::string pathOf(const NodeIdentity& identity) const;
    /// Calls `call(path)`; see the class comment. ENOENT for a node whose item is gone.
    template <class Call>
    auto atPath(const NodeIdentity& identity, Call call) const -> decltype(call(std::string()));
    [[nodiscard]] Attributes attributesOf(const NodeIdentity& identity,
                                          const TWFuseFileSystem::ItemAttributes& item) const;
    [[nodiscard]] ErrnoOr<ListingPtr> makeListing(const NodeIdentity& identity) const;

    const std::shared_ptr<TWFuseFileSystem> fileSystem_;
    const bool directIo_;
    InodeTable nodes_;
    HandleTable<FileHandle> files_;
    HandleTable<DirectoryHandle> directories_;
};

}  // namespace tarnwell
