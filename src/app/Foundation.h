#pragma once

#include <memory>
#include <string>

#include "app/ApplicationIdentity.h"
#include "platform/BundleInformation.h"
#include "platform/FileUserDefaults.h"
#include "platform/Keychain.h"
#include "store/CacheLayout.h"

namespace tarnwell {

/// What the client and every command of the command line start from: who the program is, where its things
/// lie, the settings and the passwords. Reads files, starts no thread.
struct Foundation {
    Foundation();

    const std::string title;
    FileUserDefaults defaults;
    BundleInformation bundle;
    const ApplicationIdentity identity;
    const CacheLayout layout;
    const std::unique_ptr<Keychain> keychain;

    /// Held by the running client. Beside the settings, since the record of its shutdown is kept there.
    [[nodiscard]] std::string lockPath() const;
    /// Held by it as well: the data folder may be shared by settings folders that differ.
    [[nodiscard]] std::string dataLockPath() const;
    [[nodiscard]] std::string commandSocketPath() const;
    /// Folder of the installed resources; empty when there is none.
    [[nodiscard]] static std::string resourceFolder();
};

}  // namespace tarnwell
