#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace tarnwell {

/// Who the application is: names, versions and the service it belongs to. Constant after construction.
struct ApplicationIdentity {
    /// Reads one text of the bundle's information map, with the settings' overrides.
    using Lookup = std::function<std::optional<std::string>(std::string_view key)>;

    explicit ApplicationIdentity(const Lookup& information);

    std::string appTitle;     ///< names the mount point, the cache root, the volume, every message
    std::string brandName;    ///< empty: none
    std::string oldAppTitle;  ///< the title of earlier versions, for migrations; empty: none
    std::string version;      ///< "0.1.0 (1)"
    bool isDataIsland = false;
    std::string globalAddress;

    /// Key of a user setting. The old title is used where there is one, so that settings survive a new title.
    [[nodiscard]] std::string prependAppTitle(std::string_view name) const;
    [[nodiscard]] const std::string& settingsTitle() const {
        return oldAppTitle.empty() ? appTitle : oldAppTitle;
    }
};

/// Asked for the user's domain when no "TWGlobalAddress" is set. A reserved name: nobody else can own it.
inline constexpr std::string_view kDefaultGlobalAddress = "login.tarnwell.example";

}  // namespace tarnwell
