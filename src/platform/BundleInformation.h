#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/UserDefaults.h"

namespace tarnwell {

/// What the program says about itself: the text and number entries of an installed property list
/// ("Info.plist"), with the settings' values in place of those that a user may change ("TWBrandName",
/// "TWGlobalAddress"). Read once; immutable afterwards. Any thread.
class BundleInformation {
  public:
    /// A missing or malformed file is logged and is an empty map. `settings` outlives this object.
    BundleInformation(const std::string& propertyList, const UserDefaults& settings);

    /// The text of `key`; numbers in decimal, booleans as "true" and "false". None when absent or of another
    /// kind.
    [[nodiscard]] std::optional<std::string> value(std::string_view key) const;
    /// False when the file could not be used.
    [[nodiscard]] bool loaded() const { return loaded_; }

  private:
    std::map<std::string, std::string, std::less<>> values_;
    const UserDefaults& settings_;
    bool loaded_ = false;
};

/// Where the program's resources are: `name` in $TARNWELL_RESOURCES, beside the program, or in
/// "../share/tarnwell" seen from it; the first that exists. None when there is none.
std::optional<std::string> resourcePath(const std::string& name);

}  // namespace tarnwell
