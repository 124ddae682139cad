#include "app/StoredCredentials.h"

#include "app/CacheCleaner.h"
#include "app/Foundation.h"

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
