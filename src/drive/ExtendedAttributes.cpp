#include "drive/ExtendedAttributes.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <utility>

#include "platform/LocalSocket.h"
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

int writeExtendedAttributes(const std::string& path, const ExtendedAttributes& attributes) {
    if (attributes.empty()) return ::unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
    PropertyList::Dictionary map;
    for (const auto& [name, value] : attributes)
        map.append(name, PropertyList::Data{value});
    std::string problem;
    // The binary form: names may hold any character.
    const auto bytes = serializePropertyList(std::move(map), PropertyListForm::kBinary, problem);
    if (!bytes) {
        TWLog(kLogFuse, "Warning! Attribute file %@ cannot be written. %@", path, problem);
        return EINVAL;
    }
    const std::string temporary = path + ".new";
    const OwnedDescriptor file(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) return errno;
    const auto written = ::write(file.get(), bytes->data(), bytes->size());
    int error = 0;
    if (written < 0) {
        error = errno;
    } else if (static_cast<std::size_t>(written) != bytes->size()) {
        error = ENOSPC;
    } else if (::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) ::unlink(temporary.c_str());
    return error;
}

}  // namespace tarnwell
