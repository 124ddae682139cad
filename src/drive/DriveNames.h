#pragma once

#include <cstddef>
#include <string_view>

namespace tarnwell {

inline constexpr std::string_view kFuseLockName = ".fuselock";
inline constexpr std::string_view kRefreshName = ".twrefresh";
inline constexpr std::string_view kUserPrefix = "user.";
/// Longer names fail the kernel's whole listing.
inline constexpr std::size_t kMaximumName = 1024;
/// What statfs says, and what is taken of new names.
inline constexpr std::size_t kMaximumNewName = 255;

/// Names from the service that must not reach the kernel would leave the folder or void the listing.
[[nodiscard]] bool isSafeName(std::string_view name);

/// 0, or why an item cannot be given this name: ENAMETOOLONG, EILSEQ for bytes that are no UTF-8 (names
/// travel as text).
[[nodiscard]] int newNameError(std::string_view name);

/// The drive's name of an attribute; empty for the namespaces that it never has anything in.
[[nodiscard]] std::string_view attributeName(std::string_view name);

}  // namespace tarnwell
