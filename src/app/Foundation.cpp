#include "app/Foundation.h"

#include "platform/FileKeychain.h"
#include "platform/SecretServiceKeychain.h"
#include "platform/SystemInformation.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

constexpr std::string_view kInformationFile = "Info.plist";

std::string informationPath() {
    return resourcePath(std::string(kInformationFile)).value_or("");
}

/// The title decides where the settings are, so it is read without them.
std::string bundleTitle() {
    const FileUserDefaults noSettings("/dev/null");
    return BundleInformation(informationPath(), noSettings).value("CFBundleName").value_or("Tarnwell");
}

std::string settingsFolder(const std::string& title) {
    return appendPathComponent(xdgConfigHome(), title);
}

std::unique_ptr<Keychain> openKeychain(const UserDefaults& defaults) {
    const auto file = defaults.get("TWKeychainFile");
    if (file && !file->empty()) return std::make_unique<FileKeychain>(*file);
    return std::make_unique<SecretServiceKeychain>();
}

}  // namespace

Foundation::Foundation()
    : title(bundleTitle()),
      defaults(appendPathComponent(settingsFolder(title), "settings.ini")),
      bundle(informationPath(), defaults),
      identity([this](std::string_view key) { return bundle.value(key); }),
      layout({homeFolder(), xdgDataHome(), xdgCacheHome(), identity.appTitle, identity.oldAppTitle}),
      keychain(openKeychain(defaults)) {}

std::string Foundation::lockPath() const {
    return appendPathComponent(settingsFolder(title), "client.lock");
}

std::string Foundation::dataLockPath() const {
    return appendPathComponent(layout.rootCachePath(), ".client.lock");
}

std::string Foundation::commandSocketPath() const {
    return appendPathComponent(layout.metadataPath(), ".cmdsckt");
}

std::string Foundation::resourceFolder() {
    return std::string(deletingLastPathComponent(informationPath()));
}

}  // namespace tarnwell
