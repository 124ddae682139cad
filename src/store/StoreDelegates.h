#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "store/TWVirtualFile.h"

/// What the store asks of the rooms above it. Implemented by the connector, the drive and the application.
namespace tarnwell {

/// Downloads that a merge of remote changes starts and ends. Called with the store's lock held: must not
/// block, and must not take a lock under which the store is called.
class DownloadScheduler {
  public:
    virtual ~DownloadScheduler() = default;
    virtual void addFileDownloadTask(const TWVirtualFilePtr& file, bool isAutomatic) = 0;
    virtual void deleteFileDownload(const TWVirtualFilePtr& file) = 0;
    [[nodiscard]] virtual bool isFileDownloading(const TWVirtualFile& file, bool rightNow) = 0;
};

/// Told which folders show other entries after a merge. Called without the store's lock; must not block.
class FolderRefresher {
  public:
    virtual ~FolderRefresher() = default;
    /// Ids: `InternalName` of folders, or `ShareId`.
    virtual void refreshFinderFolders(const std::vector<std::string>& folderIds) = 0;
};

/// Hears of every item whose local changes came into the journal or left it.
/// Called with the store's lock held, from any thread: must only take note, never block or call the store.
class JournalObserver {
  public:
    virtual ~JournalObserver() = default;
    virtual void journalChanged(std::string_view internalName) = 0;
};

/// Hears of every change of a record that shows on the drive, so that the kernel's caches can follow.
/// Called with the store's lock held, from any thread: must only take note, never block or call the store.
class DriveObserver {
  public:
    virtual ~DriveObserver() = default;
    /// `name` appeared in or vanished from the folder `parentId` (empty: the root of the drive, a share).
    virtual void entryChanged(std::string_view parentId, std::string_view name) = 0;
    /// Size, times or permissions of the item changed.
    virtual void attributesChanged(std::string_view id) = 0;
    /// The bytes of the file changed other than by a write through the drive.
    virtual void contentsChanged(std::string_view id) = 0;
    /// The item that was known as `from` is `to` from now on, at the same place and with the same bytes.
    /// Nodes and open files of the one become those of the other.
    virtual void identityChanged(std::string_view /*from*/, std::string_view /*to*/) {}
    /// Each of two items has now the place and the bytes of the other. Nodes and open files stay with the
    /// bytes: those of the one become those of the other.
    virtual void identitiesExchanged(std::string_view /*a*/, std::string_view /*b*/) {}
    /// The present contents of the file, which were named `from`, are named `to` from now on: the user edited
    /// them, or they were journalled. The bytes stay where they are.
    virtual void contentsRenamed(std::string_view /*id*/, std::string_view /*from*/,
                                 std::string_view /*to*/) {}
    /// Whether a program has the file open: its bytes are left alone where that can wait.
    [[nodiscard]] virtual bool isOpen(std::string_view /*id*/) const { return false; }
};

}  // namespace tarnwell
