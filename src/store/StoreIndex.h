#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "store/DirectoryItems.h"
#include "store/ManagedShare.h"
#include "store/PathTable.h"
#include "store/ShareFiles.h"
#include "store/TWVirtualFile.h"

namespace tarnwell {

/// The store's tables and the rules that keep them together. Plain code: knows no lock, no files and nobody
/// above. Guarded by the lock of the TWMetadataStorage that owns it.
///
/// Texts are shared: a record's `ParrentId` is its parent's `InternalName` block, `ShareId` and `User` are
/// interned.
///
/// INVARIANTS, for every record in the tables:
/// 1. It stands in `files` under its `InternalName`, in the children list of its `ParrentId` and in the list
/// of
///    its share.
/// 2. It stands in `filesByPath` exactly when its `FullPath` is not empty. The index alone sets `FullPath`.
/// 3. Below a parent with a path it has the path made of that and its own name. Exceptions: members of a loop
/// (each
///    lies under the orphan folder), and names that cannot be a path component or paths too long (no path).
/// What hangs below a record that was removed keeps its path until refreshChildren() of the removed id.
///
/// The service decides about parents, so chains may be long, loop, or end nowhere: no walk recurses, each is
/// bounded.
class StoreIndex {
  public:
    /// Where records without a way up to a share are shown; itself not a record.
    static constexpr std::string_view kOrphanFolder = "/__orphaned_files__";
    /// Longer drive paths are not formed: programs cannot name them, and a deep chain would take quadratic
    /// memory.
    static constexpr std::size_t kMaxPathBytes = 16 * 1024;

    template <class T>
    static std::string_view textOf(const T& value) {
        if constexpr (std::is_same_v<T, SharedString>) {
            return value.view();
        } else {
            return value;
        }
    }
    struct TextHash {
        using is_transparent = void;
        using is_avalanching = void;
        template <class T>
        std::size_t operator()(const T& value) const {
            return std::hash<std::string_view>{}(textOf(value));
        }
    };
    struct TextEqual {
        using is_transparent = void;
        template <class A, class B>
        bool operator()(const A& a, const B& b) const {
            return textOf(a) == textOf(b);
        }
    };
    /// A record with the hash of its id: a table of a million that grows must not look at each record, or
    /// the drive would wait half a second.
    struct Stored {
        std::size_t hash;
        TWVirtualFilePtr file;
        explicit Stored(TWVirtualFilePtr record)
            : hash(TextHash()(record->InternalName)), file(std::move(record)) {}
    };
    struct StoredHash {
        using is_transparent = void;
        using is_avalanching = void;
        std::size_t operator()(const Stored& stored) const { return stored.hash; }
        std::size_t operator()(std::string_view id) const { return TextHash()(id); }
    };
    struct StoredEqual {
        using is_transparent = void;
        static std::string_view idOf(const Stored& stored) { return stored.file->InternalName.view(); }
        static std::string_view idOf(std::string_view id) { return id; }
        template <class A, class B>
        bool operator()(const A& a, const B& b) const {
            return idOf(a) == idOf(b);
        }
    };
    using Files = boost::unordered_flat_set<Stored, StoredHash, StoredEqual>;
    using Shares = boost::unordered_flat_map<std::string, ManagedSharePtr, TextHash, TextEqual>;
    /// Records that a pass of settlePath() has looked at.
    using Settled = boost::unordered_flat_set<TWVirtualFilePtr>;

    [[nodiscard]] const Files& files() const { return files_; }
    [[nodiscard]] const Shares& shares() const { return shares_; }
    [[nodiscard]] std::size_t pathCount() const { return filesByPath_.size(); }
    [[nodiscard]] TWVirtualFilePtr fileWithId(std::string_view id) const;
    [[nodiscard]] TWVirtualFilePtr fileWithPath(std::string_view path) const {
        return filesByPath_.find(path);
    }
    [[nodiscard]] ManagedSharePtr shareWithId(std::string_view id) const;
    [[nodiscard]] ManagedSharePtr shareWithPath(std::string_view path) const;
    /// Null when there is no list.
    [[nodiscard]] const DirectoryItems* children(std::string_view parentId) const;
    /// Made empty on first use. Valid until a record is removed.
    [[nodiscard]] DirectoryItems& childrenOrNew(std::string_view parentId);
    /// Depth first with an own stack, children in list order; `parentId` itself is not in the result.
    [[nodiscard]] std::vector<TWVirtualFilePtr> descendants(std::string_view parentId,
                                                            bool includingFolders) const;
    /// Whether the way up ends anywhere else than at a share.
    [[nodiscard]] bool isOrphaned(const TWVirtualFile& file) const;
    /// The drive path of a record as its parents stand now; empty when none can be formed.
    [[nodiscard]] SharedString fuseFilePath(const TWVirtualFile& file) const;

    /// Enters a record, or puts it in the place of the one with its id. It gets a path when its parent has
    /// one; what waits below it follows. REQUIRES: `InternalName` and `ParrentId` are not empty.
    void insert(const TWVirtualFilePtr& file);
    /// Removes the record that is stored under this id and returns it; its descendants are not touched.
    TWVirtualFilePtr remove(std::string_view id);
    /// Forms the path of a record anew, whose `PublicName` or parent changed, and those of all below it.
    void refreshPaths(const TWVirtualFilePtr& file);
    /// refreshPaths() of every child of an id, which need not be stored any more.
    void refreshChildren(std::string_view parentId);
    /// Gives a record without a path its place, under the orphan folder when its parent is missing. Every
    /// record on its way up is looked at once per pass: keep `settled` for the calls of one pass.
    void settlePath(const TWVirtualFilePtr& file, Settled& settled);
    /// Something that is saved changed in a record of the share. The index itself notes what it changes.
    void markChanged(std::string_view shareId) { shareFiles_.touch(shareId); }
    [[nodiscard]] const ShareFiles& shareFiles() const { return shareFiles_; }

    /// Makes room for so many records at once.
    void reserve(std::size_t records);
    /// Enters a record, or puts it in the place of the one with its id, without a path.
    /// REQUIRES: as insert().
    void insertWithoutPath(const TWVirtualFilePtr& file);
    /// Gives every record that can have one its path, under the orphan folder where the parent is missing.
    void formAllPaths();

    /// Enters a share under its id and display name, in the place of the one of that id.
    /// REQUIRES: `ShareId` has a value.
    void insertShare(const ManagedSharePtr& share);
    /// Takes a share out; its records stay.
    void removeShare(std::string_view shareId);
    /// Removes every record of a share.
    void removeFilesOfShare(std::string_view shareId);

  private:
    [[nodiscard]] TWVirtualFile* find(std::string_view id) const;
    [[nodiscard]] TWVirtualFile* parentOf(const TWVirtualFile& file) const;
    [[nodiscard]] bool isInLoop(const TWVirtualFile& file) const;
    [[nodiscard]] SharedString pathFromTop(const TWVirtualFile& file) const;
    [[nodiscard]] bool replaceInPlace(const TWVirtualFilePtr& old, const TWVirtualFilePtr& file);
    void shareTexts(TWVirtualFile& file);
    SharedString intern(const SharedString& text);
    void link(const TWVirtualFilePtr& file);
    void setPath(const TWVirtualFilePtr& file, SharedString path);
    void placeLoop(const TWVirtualFile& member);
    using Members = boost::unordered_flat_set<const TWVirtualFile*>;
    void refreshBelow(const TWVirtualFile& top, const Members* except = nullptr);
    void dropListIfUnused(std::string_view parentId);

    Files files_;
    PathTable filesByPath_;
    Shares shares_;
    boost::unordered_flat_map<std::string, ManagedSharePtr, TextHash, TextEqual> sharesByPath_;
    // Lists are held by pointer: callers keep one while others are made.
    boost::unordered_flat_map<SharedString, std::unique_ptr<DirectoryItems>, TextHash, TextEqual>
        directoryItems_;
    boost::unordered_flat_set<SharedString, TextHash, TextEqual> interned_;
    ShareFiles shareFiles_;
};

}  // namespace tarnwell
