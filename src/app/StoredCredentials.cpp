#include "app/StoredCredentials.h"

#include <filesystem>
#include <functional>

#include "app/CacheCleaner.h"
#include "app/Foundation.h"
#include "platform/Clock.h"
#include "platform/Executor.h"
#include "store/StorePersistence.h"
#include "store/TWMetadataStorage.h"

namespace tarnwell {

StoredCredentials::StoredCredentials(Foundation& foundation)
    : foundation_(foundation), service_(foundation.identity.prependAppTitle("keys")) {}

bool StoredCredentials::save(const std::string& user, const std::string& password) {
    auto& defaults = foundation_.defaults;
    const std::string userKey = foundation_.identity.prependAppTitle("username");
    const auto before = defaults.get(userKey);
    if (before && *before != user && !clear()) return false;
    if (!foundation_.keychain->setPassword(service_, user, password)) return false;
    defaults.set(userKey, user);
    return defaults.synchronize();
}

bool StoredCredentials::clear() {
    if (!clearKeychain()) return false;
    auto& defaults = foundation_.defaults;
    defaults.set(foundation_.identity.prependAppTitle("userDomain"), "");
    defaults.set(foundation_.identity.prependAppTitle("deviceId"), "");
    CacheCleaner::clearFiles(foundation_.layout, true);
    return defaults.synchronize();
}

UnsentContents::Count StoredCredentials::unsent() const {
    struct NoTasks final : Executor {
        void async(std::function<void()> /*task*/) override {}
    } noTasks;
    std::error_code error;
    if (!std::filesystem::is_directory(foundation_.layout.filesCachePath(), error)) return {};
    const SystemClock clock;
    TWMetadataStorage store({.layout = foundation_.layout,
                             .clock = clock,
                             .background = noTasks,
                             .userName = [] { return std::string(); },
                             .saveDelayed = [] {}});
    store.persistence().load();
    return store.unsentContents().count();
}

UnsentContents::Count StoredCredentials::unsentOfOthers(const std::string& user) const {
    const auto before = foundation_.defaults.get(foundation_.identity.prependAppTitle("username"));
    return before && *before != user ? unsent() : UnsentContents::Count{};
}

bool StoredCredentials::clearKeychain() {
    bool cleared = true;
    for (const auto& account : foundation_.keychain->accounts(service_)) {
        // Overwritten first: what a keychain keeps of a deleted entry is then worth nothing.
        foundation_.keychain->setPassword(service_, account, "");
        cleared = foundation_.keychain->deletePassword(service_, account) && cleared;
    }
    return cleared;
}

}  // namespace tarnwell
