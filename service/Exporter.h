#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "service/ContentStore.h"
#include "service/MetadataStore.h"

namespace tarnwell::service {

struct ExportCounts {
    int files = 0;
    int folders = 0;
    int missing = 0;  ///< files whose contents are not there or cannot be read; each has been reported
    std::int64_t bytes = 0;
};

/// Writes what a share holds at this moment into a folder of this machine, which must not exist yet or be
/// empty: names, bytes, times and permission bits; on the disk on return. A file whose contents are missing
/// or shorter than its record says is reported and left out. Throws ServiceError for anything else; what was
/// written until then stays.
ExportCounts exportShare(MetadataStore& metadata, ContentStore& contents, const std::string& shareId,
                         const std::filesystem::path& target,
                         const std::function<void(const std::string&)>& report);

}  // namespace tarnwell::service
