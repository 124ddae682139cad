#pragma once

#include <string>
#include <string_view>

namespace tarnwell {

/// The service's own ways of percent-encoding. Any thread.
class UrlUtil {
  public:
    /// For tokens and names in headers and queries. Not the common encoding: "-", "." and "~" are escaped,
    /// "=" and
    /// "#" are not, and neither are characters outside ASCII.
    [[nodiscard]] static std::string encodeValue(std::string_view value);
    /// The same for a whole URL: its first question mark and percent-escapes that are valid already stay.
    [[nodiscard]] static std::string encodeUrl(std::string_view url);
};

/// Percent-encodes all but the characters that may stand in the query of a URL.
[[nodiscard]] std::string percentEncodeHeaderParam(std::string_view value);

/// Percent-encodes what may not stand in a URL at all, bytes outside ASCII included; "%" too.
[[nodiscard]] std::string percentEscapes(std::string_view text);

/// Whether the text is a host name, alone or with a port: what a domain's address has to be before a label is
/// put in front of it and credentials are sent there.
[[nodiscard]] bool isHostAddress(std::string_view text);

}  // namespace tarnwell
