#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "service/ContentStore.h"
#include "service/MetadataStore.h"

namespace tarnwell::service {

struct ImportCounts {
    int files = 0;
    int folders = 0;
    int skipped = 0;  ///< each has been reported
    int renamed = 0;  ///< their names were taken; each has been reported
    std::int64_t bytes = 0;
};

/// Copies what is in a folder of this machine into the root of a share.
///
/// The bytes are stored first, then all records appear in one transaction: a running client sees all or
/// nothing, and writers wait only for the short second part. Symbolic links, special files and names that a
/// share cannot hold are skipped. `report` gets one line for each of those. Throws ServiceError; nothing is
/// imported then.
ImportCounts importFolder(MetadataStore& metadata, ContentStore& contents, const std::string& shareId,
                          const std::filesystem::path& source,
                          const std::function<void(const std::string&)>& report);

/// Gives the file at `path` of a share the bytes and the time of a file of this machine, as a new version; a
/// new file where there is none. Throws ServiceError.
void putFile(MetadataStore& metadata, ContentStore& contents, const std::string& shareId,
             const std::filesystem::path& source, const std::string& path);

}  // namespace tarnwell::service
