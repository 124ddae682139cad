#pragma once

#include <functional>
#include <string>
#include <string_view>

/// Rules for the names that the service keeps. Any thread.
namespace tarnwell::service {

/// Longest name of an item, in bytes: what file systems take.
inline constexpr std::size_t kMaxNameBytes = 255;

/// Empty when `name` may be one path component of a share, else the reason why not: empty, "." or "..", "/",
/// control characters, not UTF-8, too long.
std::string whyNotItemName(std::string_view name);
/// The same for names of domains and shares.
inline std::string whyNotShareName(std::string_view name) {
    return whyNotItemName(name);
}
/// Empty for what can be an e-mail address here, else the reason. Commas would break the reply that lists
/// fields.
std::string whyNotEmail(std::string_view email);
/// Empty for a host suffix with an optional port ("example.localhost:8443"), else the reason.
std::string whyNotAddress(std::string_view address);

bool isUtf8(std::string_view text);
std::string lowerAscii(std::string_view text);

/// The first of "name (2).ext", "name (3).ext", ... that `isTaken` denies; the part before the suffix is cut,
/// between characters, where the result would be too long. A folder's name has no extension.
std::string freeName(std::string_view name, bool isFile,
                     const std::function<bool(const std::string&)>& isTaken);

/// "name.ext" -> "name (suffix).ext", as freeName() does.
std::string suffixedName(std::string_view name, bool isFile, const std::string& suffix);
/// What a name that cannot be kept becomes: control characters replaced, cut to the length allowed.
std::string usableName(std::string_view name);

/// Whether a text that a client proposes may be the identity of an item: "F", then at most 99 letters,
/// digits,
/// "-" and "_". So it is no share's id.
bool isInternalName(std::string_view name);

/// "F" or "U" and two random UUIDs: the identity of a new item, and the name of its contents.
std::string newInternalName();
std::string newUploadName();

}  // namespace tarnwell::service
