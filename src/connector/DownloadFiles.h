#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "connector/Endpoints.h"
#include "connector/FileDescriptor.h"
#include "store/TWVirtualFile.h"

namespace tarnwell {

class TWMetadataStorage;

/// One version of a file's contents: what a download needs to know about it, copied out of the store.
struct DownloadSource {
    TWVirtualFilePtr file;
    std::string internalName;
    std::string uploadName;  ///< names the version
    std::string publicName;
    std::string fullPath;
    std::int64_t size = 0;
    std::string cachePath;              ///< where the contents belong when they are whole
    std::string partialPath;            ///< where they grow
    std::optional<ShareAddress> share;  ///< none: the share is gone
};

/// Whether the item's name keeps it out of synchronisation. The caller holds the store's lock.
[[nodiscard]] bool takesNoPart(const TWVirtualFile& file);

/// None for what cannot be fetched: a folder, a record without contents on the service, or one whose ids
/// would name a place outside the cache. Locks the store.
[[nodiscard]] std::optional<DownloadSource> downloadSource(const TWMetadataStorage& store,
                                                           const TWVirtualFilePtr& file);

/// The bytes [position, position + size) of a file on disk, whole or none.
[[nodiscard]] std::optional<std::string> readFileRange(const std::string& path, std::int64_t position,
                                                       std::int64_t size);

/// As readFileRange(), where the file has that version.
[[nodiscard]] std::optional<std::string> readVersionRange(const std::string& path,
                                                          std::string_view uploadName, std::int64_t position,
                                                          std::int64_t size);

/// Writes a new file of mode 0600 with that version, not synced. An invalid descriptor after a failure, which
/// is logged and leaves nothing.
[[nodiscard]] FileDescriptor writeUnsynced(const std::string& path, std::string_view bytes,
                                           std::string_view uploadName);

/// Syncs what writeUnsynced() made, which may have its place in the cache by now, and lets it count beyond
/// this run.
void syncContents(TWMetadataStorage& store, const FileDescriptor& file, std::string_view uploadName);

enum class InstallResult {
    kInstalled,
    kOutdated,  ///< the record is gone, has another version or was changed here: the bytes belong nowhere
    kFailed,
};

/// Moves fetched contents to their place in the cache and sets `DownloadDate`, both in one change of the
/// store. Contents of that version, or the user's own, that are there already are never replaced; bytes of
/// another version are. REQUIRES: the file at `path` is whole and says which version it is (ContentVersion).
InstallResult installContents(TWMetadataStorage& store, const DownloadSource& source,
                              const std::string& path);

}  // namespace tarnwell
