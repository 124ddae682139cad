#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "util/Date.h"

/// Helpers without state, shared by all rooms. Any thread.
namespace tarnwell {

/// Parses a server date: "yyyy-MM-dd'T'HH:mm:ss.SSS'Z'", the same without fraction, or with a longer fraction
/// (cut to milliseconds, never rounded) and a zone ("Z", "+01:00"). A malformed text is logged ("Warning!
/// Failed to parse date: %@") and gives kDistantPast, so a record never lacks a date.
Date NSDateFromNSString(std::string_view text);
/// UTC, three fraction digits, literal Z: "2014-01-01T00:00:00.123Z". Cut, not rounded, to milliseconds.
std::string JSONObjectFromNSDate(Date date);

/// A random (version 4) UUID in its canonical lower-case form, 36 characters.
std::string generateGUID();

std::string base64Encode(std::string_view bytes);
/// None for anything that is not padded standard base64 (white space is not skipped).
std::optional<std::string> base64Decode(std::string_view text);

/// Canonical decomposition (NFD). Text that is not valid UTF-8 is returned as it is.
std::string decomposed(std::string_view text);
/// The path key: NFD, then lower case. Two drive paths are the same place when their keys are equal. Bytes
/// that are not UTF-8 are kept, and the key of a folder is always the beginning of the keys of what is in it.
std::string keyFromPath(std::string_view path);
/// Appends the path key of `path` to `out` (cleared first), so that a caller may keep one buffer.
void keyFromPath(std::string_view path, std::string& out);
/// Equal without regard to letter case (simple lower-case mapping, no decomposition).
bool isEqualLowercase(std::string_view a, std::string_view b);

/// "a" + "b" -> "a/b"; one slash between, none doubled; an empty component leaves the path unchanged.
std::string appendPathComponent(std::string_view path, std::string_view component);
/// "/a/b" -> "b", "/a/" -> "a", "/" -> "/".
std::string_view lastPathComponent(std::string_view path);
/// "/a/b" -> "/a", "/a" -> "/", "a" -> "".
std::string_view deletingLastPathComponent(std::string_view path);

}  // namespace tarnwell
