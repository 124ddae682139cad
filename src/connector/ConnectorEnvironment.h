#pragma once

#include <string>

namespace tarnwell {

class Clock;
class Executor;
class Keychain;
class NotificationCenter;
class Reachability;
class RunLoop;
class TWMetadataStorage;
class UrlLoader;
class UserDefaults;

/// Who this client is to the service and to its own settings. Constant for the life of the process.
struct ConnectorIdentity {
    std::string appTitle;       ///< "Tarnwell"
    std::string settingsTitle;  ///< first part of the keys of user settings: an older title, else appTitle
    std::string appVersion;     ///< sent as `applicationversion`
    std::string macosVersion;   ///< version of the operating system, "%d.%d.%d"
    std::string deviceName;     ///< the computer's name as its user knows it; may be empty
    bool isDataIsland = false;  ///< no global server: `globalAddress` is itself a domain address
    std::string globalAddress;  ///< global login host, or the data island's domain address; a port may follow
    std::string internetProbe;  ///< host whose reachability stands for the internet; empty: `globalAddress`
};

/// What the connector needs from outside. Everything outlives the connector; the two queues also outlive the
/// loader's requests. `loginQueue` and `catchUpQueue` run one task at a time.
struct ConnectorEnvironment {
    UrlLoader& urlLoader;  ///< the connector is its only user and stops it
    Reachability& reachability;
    RunLoop& mainLoop;
    Executor& background;
    Executor& loginQueue;
    Executor& catchUpQueue;
    Keychain& keychain;
    UserDefaults& userDefaults;
    NotificationCenter& notifications;
    const Clock& clock;
    TWMetadataStorage& store;
    ConnectorIdentity identity;
};

}  // namespace tarnwell
