#include "connector/UrlUtil.h"

#include <algorithm>
#include <cstddef>

namespace tarnwell {

namespace {

constexpr std::string_view kEscapedInValues = " \"%&+,-./:;?@^{|}~";
constexpr std::string_view kQueryPunctuation = "!$&'()*+,-./:;=?@_~";
constexpr std::string_view kNeverInUrls = " \"#%<>[\\]^`{|}";

bool isIn(std::string_view set, char c) {
    return set.find(c) != std::string_view::npos;
}

bool isAlphanumeric(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool isHexadecimal(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

void appendEscape(std::string& out, char c) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    out += {'%', digits[byte >> 4], digits[byte & 15]};
}

template <class Stays>
std::string escapeUnless(std::string_view text, Stays stays) {
    std::string out;
    out.reserve(text.size() + text.size() / 4);
    for (const char c : text) {
        if (stays(c))
            out += c;
        else
            appendEscape(out, c);
    }
    return out;
}

}  // namespace

std::string UrlUtil::encodeValue(std::string_view value) {
    return escapeUnless(value, [](char c) { return !isIn(kEscapedInValues, c); });
}

std::string UrlUtil::encodeUrl(std::string_view url) {
    const std::size_t query = url.find('?');
    std::string out;
    for (std::size_t i = 0; i < url.size(); ++i) {
        const bool validEscape =
            url[i] == '%' && i + 2 < url.size() && isHexadecimal(url[i + 1]) && isHexadecimal(url[i + 2]);
        if (i == query || validEscape || !isIn(kEscapedInValues, url[i]))
            out += url[i];
        else
            appendEscape(out, url[i]);
    }
    return out;
}

std::string percentEncodeHeaderParam(std::string_view value) {
    return escapeUnless(value, [](char c) { return isAlphanumeric(c) || isIn(kQueryPunctuation, c); });
}

std::string percentEscapes(std::string_view text) {
    return escapeUnless(text, [](char c) { return c > ' ' && c < '\x7f' && !isIn(kNeverInUrls, c); });
}

bool isHostAddress(std::string_view text) {
    const std::size_t colon = text.find(':');
    const std::string_view host = text.substr(0, colon);
    if (host.empty() || host.size() > 253 || host.front() == '.' || host.front() == '-') return false;
    if (host.find("..") != std::string_view::npos) return false;
    if (!std::ranges::all_of(host,
                             [](char c) { return isAlphanumeric(c) || c == '.' || c == '-' || c == '_'; })) {
        return false;
    }
    if (colon == std::string_view::npos) return true;
    const std::string_view port = text.substr(colon + 1);
    return !port.empty() && port.size() <= 5 &&
           std::ranges::all_of(port, [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace tarnwell
