#include "platform/BundleInformation.h"

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/PrivateFile.h"
#include "platform/SystemInformation.h"
#include "util/PropertyList.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

constexpr std::size_t kLargestPropertyList = 1u << 20;

std::optional<std::string> asText(const PropertyList& value) {
    if (const auto* text = value.get<std::string>()) return *text;
    if (const auto* flag = value.get<bool>()) return *flag ? "true" : "false";
    if (const auto number = value.integer()) return std::to_string(*number);
    return std::nullopt;
}

bool mayBeOverridden(std::string_view key) {
    return key == "TWBrandName" || key == "TWGlobalAddress";
}

}  // namespace

BundleInformation::BundleInformation(const std::string& propertyList, const UserDefaults& settings)
    : settings_(settings) {
    const auto contents = readWholeFile(propertyList, kLargestPropertyList);
    std::string error = contents.error == 0 ? "" : std::strerror(contents.error);
    const auto parsed = contents.error == 0 ? parsePropertyList(contents.bytes, error) : std::nullopt;
    const auto* entries = parsed ? parsed->get<PropertyList::Dictionary>() : nullptr;
    if (!entries) {
        TWLog(kLogMain, "Warning! Cannot use bundle information %@ : %@", propertyList,
              error.empty() ? "not a dictionary" : error);
        return;
    }
    for (const auto& [key, value] : entries->entries()) {
        if (const auto text = asText(value)) values_.emplace(key, *text);
    }
    loaded_ = true;
}

std::optional<std::string> BundleInformation::value(std::string_view key) const {
    if (mayBeOverridden(key)) {
        if (auto setting = settings_.get(key)) return setting;
    }
    const auto entry = values_.find(key);
    if (entry == values_.end()) return std::nullopt;
    return entry->second;
}

std::optional<std::string> resourcePath(const std::string& name) {
    const auto program = executablePath();
    const auto folder = program.substr(0, program.rfind('/'));
    const char* chosen = ::secure_getenv("TARNWELL_RESOURCES");
    const std::string candidates[] = {(chosen ? std::string(chosen) : folder) + "/" + name,
                                      folder + "/" + name, folder + "/../share/tarnwell/" + name};
    for (const auto& candidate : candidates) {
        if (::access(candidate.c_str(), R_OK) == 0) return candidate;
    }
    return std::nullopt;
}

}  // namespace tarnwell
