#include "app/ApplicationIdentity.h"

namespace tarnwell {

namespace {

std::string oldTitle(std::string_view appTitle, std::string_view brandName) {
    if (appTitle == "Tarnwell") return "Fern Disk";
    if (appTitle == "TarnwellBeta") return "FerndiskBeta";
    if (brandName == "Quelto") return "Tarnwell";
    return {};
}

}  // namespace

ApplicationIdentity::ApplicationIdentity(const Lookup& information)
    : appTitle(information("CFBundleName").value_or("Tarnwell")),
      brandName(information("TWBrandName").value_or("")),
      oldAppTitle(oldTitle(appTitle, brandName)),
      version(information("CFBundleShortVersionString").value_or("0") + " (" +
              information("CFBundleVersion").value_or("0") + ")") {
    const auto configured = information("TWGlobalAddress");
    isDataIsland = configured && *configured != "*";
    globalAddress = isDataIsland ? *configured : std::string(kDefaultGlobalAddress);
}

std::string ApplicationIdentity::prependAppTitle(std::string_view name) const {
    return settingsTitle() + "." + std::string(name);
}

}  // namespace tarnwell
