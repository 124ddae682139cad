#include "drive/ExtendedAttributes.h"

#include <fstream>
#include <iterator>

#include "util/PropertyList.h"
#include "util/TWLogger.h"

namespace tarnwell {

ExtendedAttributes readExtendedAttributes(const std::string& path) {
    ExtendedAttributes result;
    std::ifstream file(path, std::ios::binary);
    if (!file) return result;
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    std::string error;
    const auto list = parsePropertyList(bytes, error);
    const auto* map = list ? list->get<PropertyList::Dictionary>() : nullptr;
    if (!map) {
        TWLog(kLogFuse, "Warning! Attribute file %@ is damaged. %@", path, error);
        return result;
    }
    for (const auto& [name, value] : map->entries()) {
        if (const auto* data = value.get<PropertyList::Data>()) result.emplace(name, data->bytes);
    }
    return result;
}

}  // namespace tarnwell
