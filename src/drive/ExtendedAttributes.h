#pragma once

#include <map>
#include <string>

namespace tarnwell {

/// The extended attributes of one item, as they stand in its attribute file: a property list of one map from
/// name to bytes. They stay on this machine.
using ExtendedAttributes = std::map<std::string, std::string>;

/// Stored by desktops, never shown by the drive.
inline constexpr const char* kQuarantineAttribute = "com.apple.quarantine";
/// One byte, never listed: 1 when the item takes part in synchronisation.
inline constexpr const char* kFileStatusAttribute = "com.tarnwell.ferndisk-osx.filestatus";

/// Empty when there is no file or it cannot be read as such a map (logged). Values of other types are left
/// out.
[[nodiscard]] ExtendedAttributes readExtendedAttributes(const std::string& path);

/// Replaces the file whole; without attributes it goes. 0 or errno. Not synced: the loss of power may bring
/// the former attributes back.
[[nodiscard]] int writeExtendedAttributes(const std::string& path, const ExtendedAttributes& attributes);

}  // namespace tarnwell
