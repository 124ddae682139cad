#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "service/ContentStore.h"
#include "service/MetadataStore.h"

namespace tarnwell::service {

struct ExportCounts {
    int files = 0;
    int folders = 0;
    std::int64_t bytes = 0;
};

/// Writes what a share holds at this moment into a folder of this machine, which must not exist yet or be
/// empty: names, bytes, times and permission bits. Throws ServiceError, also when contents are missing or
/// shorter than their record says; what was written until then stays.
ExportCounts exportShare(MetadataStore& metadata, ContentStore& contents, const std::string& shareId,
                         const std::filesystem::path& target);

}  // namespace tarnwell::service
