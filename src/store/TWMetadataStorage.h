#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "platform/Executor.h"
#include "platform/LocalSocket.h"
#include "store/CacheLayout.h"
#include "store/ContentVersion.h"
#include "store/DirectoryItems.h"
#include "store/KeptFiles.h"
#include "store/LocalChange.h"
#include "store/ManagedShare.h"
#include "store/StoreDelegates.h"
#include "store/StoreIndex.h"
#include "store/TWVirtualFile.h"

namespace tarnwell {

class LocalChangeJournal;
class RemoteChanges;
class StorePersistence;

/// The one in-memory store of all shares and all file and folder records of the user: the face of this room.
///
/// It owns the tables (StoreIndex, plain code without a lock), the one lock, and the classes that work on
/// them: the merge of remote changes (RemoteChanges), the files on disk (StorePersistence). Every record and
/// share in the store is guarded by the lock; a caller that keeps a pointer past its lock uses it for a short
/// task and reads only fields that never change while the record is stored (`InternalName`, `ShareId`,
/// `IsFile`).
///
/// Threads: any. Every operation takes the lock itself; it is recursive, so a caller that needs several steps
/// to be one holds it around them, and whoever reads or changes fields of a record or share holds it too. The
/// few operations marked REQUIRES LOCK hand out or walk guarded state. Order of locks: this one first, then
/// any small lock, never the other way (docs/locking.md).
class TWMetadataStorage {
  public:
    /// What the store needs from outside; all outlive the store. The last three may be set later (null:
    /// nobody).
    struct Environment {
        const CacheLayout& layout;
        const Clock& clock;
        Executor& background;
        std::function<std::string()> userName;  ///< name of the logged-in user; called with the lock held
        std::function<void()> saveDelayed;      ///< asks for a delayed save; called with or without the lock
    };

    explicit TWMetadataStorage(Environment environment);
    ~TWMetadataStorage();
    TWMetadataStorage(const TWMetadataStorage&) = delete;
    TWMetadataStorage& operator=(const TWMetadataStorage&) = delete;

    /// The store of the process, for the outermost edges only; set by the composition. Null before and after.
    static TWMetadataStorage* shared();
    static void setShared(TWMetadataStorage* store);

    /// Wiring, at start-up before other threads run.
    void setDownloadScheduler(DownloadScheduler* scheduler) { downloads_ = scheduler; }
    void setFolderRefresher(FolderRefresher* refresher) { refresher_ = refresher; }
    /// Any time: the drive comes and goes while others run.
    void setDriveObserver(DriveObserver* observer);
    void setJournalObserver(JournalObserver* observer);
    void noteJournalChanged(std::string_view internalName) const;

    [[nodiscard]] StorageLock beginReadStorage() const { return StorageLock(storageLock_); }
    [[nodiscard]] StorageLock beginWriteStorage() const { return StorageLock(storageLock_); }
    /// The journal shares the store's lock on purpose: a journal and a store operation never interleave.
    [[nodiscard]] StorageLock beginReadJournal() const { return StorageLock(storageLock_); }
    [[nodiscard]] StorageLock beginWriteJournal() const { return StorageLock(storageLock_); }

    /// For changes made by the user on the drive; see LocalChange.
    [[nodiscard]] LocalChange beginLocalChange() { return LocalChange(*this); }
    /// Asked before a change of the user is begun: 0 when the change log can take it, else errno (ENOSPC on a
    /// full disk), which is the answer then.
    [[nodiscard]] int admitChange();

    void blockShutdown();
    void unblockShutdown();
    [[nodiscard]] bool shutdownBlocked() const;
    void beginTermination();
    /// Long loops poll this and stop.
    [[nodiscard]] bool terminating() const;

    /// True until a saved store was loaded or anything worth keeping came in.
    [[nodiscard]] bool storageEmpty() const;
    void setStorageEmpty(bool empty);

    /// The saved login reply (its JSON text). Worth keeping, unless it is empty.
    [[nodiscard]] std::string globalLoginResponce() const;
    void setGlobalLoginResponce(std::string text);

    [[nodiscard]] TWVirtualFilePtr fileWithId(std::string_view internalName) const;
    [[nodiscard]] ManagedSharePtr shareWithId(std::string_view shareId) const;
    [[nodiscard]] TWVirtualFilePtr fileWithPath(std::string_view drivePath) const;
    [[nodiscard]] ManagedSharePtr shareWithPath(std::string_view path) const;
    /// The share that holds a drive path. "/A/b" asks for "/A"; a path without a second slash loses its last
    /// character: a share root is looked up with shareWithPath().
    [[nodiscard]] ManagedSharePtr shareWithFilePath(std::string_view drivePath) const;
    /// Drive path of a file, folder or share; empty when there is none.
    [[nodiscard]] std::string pathForItemWithId(std::string_view id) const;
    [[nodiscard]] std::vector<ManagedSharePtr> shares() const;
    [[nodiscard]] std::vector<TWVirtualFilePtr> allFiles() const;
    [[nodiscard]] std::size_t fileCount() const;
    /// The children of a folder or share root, made empty on first use; null for an empty id. Valid until the
    /// lock is released or a record is removed. REQUIRES LOCK.
    [[nodiscard]] DirectoryItems* directoryItemsWithParent(std::string_view parentId);
    /// The items of a share that hang together with its root.
    [[nodiscard]] std::vector<TWVirtualFilePtr> allShareSiblings(const ManagedShare& share,
                                                                 bool includingFolders) const;
    /// The descendants of a folder, itself not included; empty for a file.
    [[nodiscard]] std::vector<TWVirtualFilePtr> allSiblings(const TWVirtualFile& folder,
                                                            bool includingFolders) const;
    [[nodiscard]] bool isFileOrphaned(const TWVirtualFile& file) const;
    /// True when the item, an ancestor folder within 100 levels or the share says so. Null: false.
    [[nodiscard]] bool isFileSynchronized(const TWVirtualFilePtr& file) const;
    /// The drive path of a record as its parents stand now; below the orphan folder when it has no way up to
    /// a share.
    [[nodiscard]] std::string fuseFilePath(const TWVirtualFile& file) const;
    /// Contents that the service has not got yet: nothing but the user may drop them.
    [[nodiscard]] bool hasUnsentContents(const TWVirtualFile& file) const;

    /// Enters a record, in the place of the one with its id; what waits below it gets its paths.
    /// A record without `InternalName` or `ParrentId` is refused with a log line.
    void addFileMetadata(const TWVirtualFilePtr& file);
    /// For a stored record whose `PublicName` changed, or whose parent changed along with the children lists.
    void updateFilePathes(const TWVirtualFilePtr& file);
    /// Removes the record that is stored under the id of `file`. Its descendants are not touched.
    void deleteFileMetadata(const TWVirtualFilePtr& file);
    /// Whoever changes a field of a stored record says so by one of these, or by one of the three above; else
    /// the change is not saved. The notes are for what shows on the drive: they tell the drive's observer.
    void noteAttributesChanged(const TWVirtualFile& file);
    void noteContentsChanged(const TWVirtualFile& file);
    /// A write to a record that is marked `LocallyUpdated` already moved its size and times on. Not kept in
    /// the change log: what is marked so takes its size from the cache file when it is loaded, and the change
    /// that ends the burst of writes is logged. The mark has to be logged before the first byte is written.
    void noteWriteProgress(const TWVirtualFile& file);
    /// The item `from` goes on as `to`, or two items traded their places and contents. Open files follow.
    void noteIdentityChanged(const TWVirtualFile& from, const TWVirtualFile& to);
    void noteIdentitiesExchanged(const TWVirtualFile& a, const TWVirtualFile& b);
    /// The present contents of the file, whose name was `from`, have the record's `UploadName` now.
    void noteContentsRenamed(const TWVirtualFile& file, const SharedString& from);
    /// For a field that does not show.
    void markChanged(const TWVirtualFile& file);

    /// Creates an item, or returns the one that stands there already, a file without its old cached contents.
    /// `inFolder` null: the share's root. Null for a null share, and where the change log cannot take that
    /// old contents go.
    TWVirtualFilePtr createFile(std::string_view name, const ManagedSharePtr& inShare,
                                const TWVirtualFilePtr& inFolder, bool isDirectory);
    /// False when the name cannot be a folder's or another share has it.
    bool renameShare(const ManagedSharePtr& share, std::string_view toName);
    /// Moves and renames within a share: `toId` is the id of the new parent folder or of the share. The
    /// change is journalled. A file that comes from or goes to a name that takes no part in synchronisation
    /// gets a new identity. False, with nothing changed, when the item cannot go there.
    bool changeParentOfFile(const TWVirtualFilePtr& file, std::string_view toId, std::string_view renamingTo);
    /// Removes an item with its cached contents and journals that. Not for folders with children.
    void removeFile(const TWVirtualFilePtr& file);
    /// Removes a folder with all that is in it, what is deepest first.
    void removeFolderRecursively(const TWVirtualFilePtr& folder);
    /// removeFile() without asking for a save.
    void removeFileInternal(const TWVirtualFilePtr& file);
    /// The service gave the folder another internal name.
    void changeInternalName(std::string_view toName, const TWVirtualFilePtr& forFolder);
    /// For `DisplayName` or `Synchronize` of a stored share, which the user changed within a LocalChange.
    void noteShareChanged(const ManagedShare& share);
    /// Takes a share out with all its records; its cached contents go in the background.
    void deleteShareData(const ManagedSharePtr& share);
    /// Enters a share under its id and display name; replaces one of that id. A share without an id is
    /// refused with a log line.
    void insertShare(const ManagedSharePtr& share);

    [[nodiscard]] static std::string pathToMetadata(const CacheLayout& layout);
    [[nodiscard]] static std::string generateFileInternalName();
    [[nodiscard]] static std::string generateFileUploadName();

    void createFolderForShare(const ManagedShare& share) const;
    /// Forgets what is being downloaded of the share. REQUIRES LOCK.
    void deleteShareDownloads(const ManagedShare& share) const;
    void createNewFileForFile(const TWVirtualFile& file) const;
    void deleteFileData(const TWVirtualFile& file) const;
    /// The cache files of two items, and their attribute files, trade places; one that is alone gets the name
    /// of the other. The caller changes the records under the same hold of the lock: a run that ends in
    /// between is undone by the next one. False after a failure, with nothing changed.
    bool exchangeCachedFiles(const TWVirtualFile& a, const TWVirtualFile& b);
    /// As exchangeCachedFiles(); the attribute files stay.
    bool exchangeCachedContents(const TWVirtualFile& a, const TWVirtualFile& b);
    /// The cache holds the file's present contents, and they say so themselves (ContentVersion): those of its
    /// `UploadName`, or what the user made of them. True for an empty file. Whoever serves, sends or
    /// exchanges cached bytes asks this; that a cache file exists means nothing. REQUIRES LOCK.
    [[nodiscard]] bool holdsContents(const TWVirtualFile& file) const;
    /// As holdsContents(), and they are as many as the record says. REQUIRES LOCK.
    [[nodiscard]] bool hasWholeContents(const TWVirtualFile& file) const;
    enum class OpenedVersion {
        kOpen,
        kEdited,  ///< the user goes on changing the file: its next version is about to be journalled
        kGone,
    };
    /// Opens the cache file that has the contents `uploadName` of an item, while they are its present ones.
    /// Once open they stay the same file, but the user may go on to change them: see isStillVersion().
    /// REQUIRES LOCK.
    [[nodiscard]] OwnedDescriptor openVersion(std::string_view internalName, std::string_view uploadName,
                                              OpenedVersion& state) const;
    /// What was read of that file since it was opened is all of that version. REQUIRES LOCK.
    [[nodiscard]] bool isStillVersion(int descriptor, std::string_view internalName,
                                      std::string_view uploadName) const;
    /// Before fetched contents take the place of what is there and is not the record's version: unsent bytes
    /// are put aside. False when that failed. REQUIRES LOCK.
    bool makeRoomForContents(const TWVirtualFile& file);
    /// The cached bytes are the user's own, from the contents that the record names: what was another
    /// version, exactly, is about to get a name of its own. REQUIRES LOCK.
    void stampEdited(const TWVirtualFile& file) const;
    /// Whether a program has the file open on the drive. REQUIRES LOCK.
    [[nodiscard]] bool isOpen(std::string_view internalName) const;

    [[nodiscard]] RemoteChanges& remoteChanges() { return *remoteChanges_; }
    [[nodiscard]] LocalChangeJournal& journal() const { return *journal_; }
    [[nodiscard]] StorePersistence& persistence() { return *persistence_; }
    /// Where unsent contents go that the program itself has to let go.
    [[nodiscard]] KeptFiles& keptFiles() { return keptFiles_; }
    [[nodiscard]] const CacheLayout& layout() const { return environment_.layout; }
    [[nodiscard]] const Clock& clock() const { return environment_.clock; }
    /// REQUIRES LOCK.
    [[nodiscard]] std::string userName() const { return environment_.userName(); }
    void saveDelayed() const { environment_.saveDelayed(); }

  private:
    friend class LocalChange;
    friend class LocalChangeJournal;
    friend class RemoteChanges;
    friend class StorePersistence;

    void noteChanged(const TWVirtualFile& file);
    [[nodiscard]] bool isVersionOf(const TWVirtualFile& file, std::int64_t size,
                                   const std::optional<ContentVersion>& version) const;
    [[nodiscard]] bool isStillVersion(int descriptor, const TWVirtualFile& file) const;
    void deleteFileDataLater(const TWVirtualFile& file);
    void noteEntryChanged(std::string_view parentId, std::string_view name) const;
    void noteRemoved(const TWVirtualFile& file) const;
    [[nodiscard]] bool mayMoveTo(const TWVirtualFile& file, std::string_view parentId,
                                 std::string_view name) const;
    void place(const TWVirtualFilePtr& file, const SharedString& parentId, std::string_view name);
    TWVirtualFilePtr giveNewIdentity(const TWVirtualFilePtr& file);

    // Constant after construction (the wiring above excepted).
    Environment environment_;
    DownloadScheduler* downloads_ = nullptr;
    FolderRefresher* refresher_ = nullptr;

    KeptFiles keptFiles_{environment_.layout, environment_.clock};  // own lock
    StoreIndex index_;                                              // guarded by storageLock_
    ChangeRecorder changes_;  // guarded by storageLock_, its sync() excepted
    mutable StoreMutex storageLock_{changes_};
    const std::unique_ptr<RemoteChanges> remoteChanges_;
    const std::unique_ptr<StorePersistence> persistence_;
    // Guarded by storageLock_.
    DriveObserver* observer_ = nullptr;
    JournalObserver* journalObserver_ = nullptr;
    std::string globalLoginResponce_;
    int shutdownBlocks_ = 0;
    bool isTerminating_ = false;
    bool storageEmpty_ = true;

    // Last: its end waits for copies that use the store.
    std::unique_ptr<LocalChangeJournal> journal_;
};

/// Holds a shutdown block while it lives.
class ShutdownBlock {
  public:
    explicit ShutdownBlock(TWMetadataStorage& store) : store_(&store) { store.blockShutdown(); }
    ShutdownBlock(ShutdownBlock&& other) noexcept : store_(std::exchange(other.store_, nullptr)) {}
    ShutdownBlock& operator=(ShutdownBlock&&) = delete;
    ~ShutdownBlock() {
        if (store_) store_->unblockShutdown();
    }

  private:
    TWMetadataStorage* store_;
};

}  // namespace tarnwell
