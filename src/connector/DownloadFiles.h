#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "connector/Endpoints.h"
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

/// Writes a new file of mode 0600 that survives a crash once this returns true. Failures are logged and leave
/// nothing.
bool writeFileDurably(const std::string& path, std::string_view bytes);

enum class InstallResult {
    kInstalled,
    kOutdated,  ///< the record is gone, has another version or was changed here: the bytes belong nowhere
    kFailed,
};

/// Moves fetched contents to their place in the cache and sets `DownloadDate`. Contents that stand there
/// already are never replaced: they are this version, or the user's own. Locks the store, so that no change
/// of the record comes between the check and the move. REQUIRES: the file at `path` is whole and durable.
InstallResult installContents(TWMetadataStorage& store, const DownloadSource& source,
                              const std::string& path);

}  // namespace tarnwell
