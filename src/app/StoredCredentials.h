#pragma once

#include <string>

#include "store/UnsentContents.h"

namespace tarnwell {

struct Foundation;

/// Log-in and log-out while no client runs: works on the keychain and the settings as the client would, so
/// that its next start finds the user, or nobody. REQUIRES: the caller holds the client's lock.
class StoredCredentials {
  public:
    explicit StoredCredentials(Foundation& foundation);

    /// False when the keychain or the settings could not be written. Another user's credentials and cache go
    /// first.
    bool save(const std::string& user, const std::string& password);
    /// Forgets the password and the device, and empties the cache. The user's name stays, as a suggestion.
    bool clear();

    /// What clear() would drop. Loads the saved store, as a start would.
    [[nodiscard]] UnsentContents::Count unsent() const;
    /// What save() would drop: nothing, unless another user's cache is here.
    [[nodiscard]] UnsentContents::Count unsentOfOthers(const std::string& user) const;

  private:
    bool clearKeychain();

    Foundation& foundation_;
    const std::string service_;
};

}  // namespace tarnwell
