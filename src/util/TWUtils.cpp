#include "util/TWUtils.h"

#include <openssl/rand.h>
#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

namespace tarnwell {

std::string generateGUID() {
    std::array<unsigned char, 16> bytes{};
    // Fails only when the kernel's random source does; a repeated identifier would merge two files into one.
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) std::abort();
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0x0F];
    }
    return text;
}

namespace {

constexpr std::string_view kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int, 256> makeBase64Values() {
    std::array<int, 256> values{};
    for (auto& value : values)
        value = -1;
    for (std::size_t i = 0; i < kBase64.size(); ++i) {
        values[static_cast<unsigned char>(kBase64[i])] = static_cast<int>(i);
    }
    return values;
}
constexpr auto kBase64Values = makeBase64Values();

}  // namespace

std::string base64Encode(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t group = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            group = group << 8 | (k < count ? static_cast<unsigned char>(bytes[i + k]) : 0U);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            text += k <= count ? kBase64[group >> (18 - 6 * k) & 0x3F] : '=';
        }
    }
    return text;
}

std::optional<std::string> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    while (padding < 2 && !text.empty() && text.back() == '=') {
        text.remove_suffix(1);
        ++padding;
    }
    std::string bytes;
    bytes.reserve(text.size() * 3 / 4);
    std::uint32_t bits = 0;
    unsigned held = 0;
    for (const char letter : text) {
        const int value = kBase64Values[static_cast<unsigned char>(letter)];
        if (value < 0) return std::nullopt;
        bits = bits << 6 | static_cast<std::uint32_t>(value);
        held += 6;
        if (held >= 8) {
            held -= 8;
            bytes += static_cast<char>(bits >> held & 0xFF);
            bits &= (1U << held) - 1;
        }
    }
    // Bits beyond the last byte must be zero: two different texts never stand for the same bytes.
    if (held >= 6 || bits != 0) return std::nullopt;
    return bytes;
}

namespace {

bool isAscii(std::string_view text) {
    std::size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, text.data() + i, 8);
        if (word & 0x8080808080808080ULL) return false;
    }
    for (; i < text.size(); ++i) {
        if (static_cast<unsigned char>(text[i]) & 0x80) return false;
    }
    return true;
}

constexpr char lowerAscii(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter | 0x20) : letter;
}

/// One code point of `text`, which is cut off from it; -1 for a byte that starts none (nothing is cut off).
utf8proc_int32_t takeCodePoint(std::string_view& text) {
    utf8proc_int32_t point = -1;
    const auto size = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                       static_cast<utf8proc_ssize_t>(text.size()), &point);
    if (size <= 0) return -1;
    text.remove_prefix(static_cast<std::size_t>(size));
    return point;
}

void appendCodePoint(std::string& out, utf8proc_int32_t point) {
    std::array<utf8proc_uint8_t, 4> bytes{};
    const auto size = utf8proc_encode_char(point, bytes.data());
    out.append(reinterpret_cast<const char*>(bytes.data()), static_cast<std::size_t>(size));
}

/// Appends the canonical decomposition of `text`, lower-cased on request. REQUIRES: valid UTF-8.
void appendDecomposed(std::string_view text, bool lower, std::string& out) {
    constexpr auto kOptions = static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE);
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    const auto size = static_cast<utf8proc_ssize_t>(text.size());
    std::array<utf8proc_int32_t, 256> few{};
    std::string many;  // room for more code points than a usual name has
    utf8proc_int32_t* points = few.data();
    auto count = utf8proc_decompose(bytes, size, points, few.size(), kOptions);
    if (count > static_cast<utf8proc_ssize_t>(few.size())) {
        many.resize(static_cast<std::size_t>(count) * sizeof(utf8proc_int32_t));
        points = reinterpret_cast<utf8proc_int32_t*>(many.data());
        count = utf8proc_decompose(bytes, size, points, count, kOptions);
    }
    if (count < 0) {
        out += text;
        return;
    }
    for (utf8proc_ssize_t i = 0; i < count; ++i) {
        appendCodePoint(out, lower ? utf8proc_tolower(points[i]) : points[i]);
    }
}

std::size_t validPrefix(std::string_view text) {
    std::string_view rest = text;
    while (!rest.empty() && takeCodePoint(rest) >= 0) {
    }
    return text.size() - rest.size();
}

}  // namespace

std::string decomposed(std::string_view text) {
    if (isAscii(text) || validPrefix(text) != text.size()) return std::string(text);
    std::string out;
    out.reserve(text.size() + text.size() / 2);
    appendDecomposed(text, false, out);
    return out;
}

void keyFromPath(std::string_view path, std::string& out) {
    out.clear();
    if (isAscii(path)) {
        out.resize(path.size());
        std::transform(path.begin(), path.end(), out.begin(), lowerAscii);
        return;
    }
    // Bytes that are no UTF-8 stand for themselves and their neighbours are mapped as usual, so that the key
    // of a folder stays the beginning of its children's keys.
    while (!path.empty()) {
        const std::size_t valid = validPrefix(path);
        if (valid > 0) appendDecomposed(path.substr(0, valid), true, out);
        path.remove_prefix(valid);
        if (!path.empty()) {
            out += path.front();
            path.remove_prefix(1);
        }
    }
}

std::string keyFromPath(std::string_view path) {
    std::string key;
    keyFromPath(path, key);
    return key;
}

bool isEqualLowercase(std::string_view a, std::string_view b) {
    while (!a.empty() && !b.empty()) {
        const char x = a.front();
        const char y = b.front();
        if (!((x | y) & 0x80)) {
            if (lowerAscii(x) != lowerAscii(y)) return false;
            a.remove_prefix(1);
            b.remove_prefix(1);
            continue;
        }
        const auto p = takeCodePoint(a);
        const auto q = takeCodePoint(b);
        if (p < 0 || q < 0) {
            if (p != q || x != y) return false;
            a.remove_prefix(1);
            b.remove_prefix(1);
        } else if (utf8proc_tolower(p) != utf8proc_tolower(q)) {
            return false;
        }
    }
    return a.empty() && b.empty();
}

std::string appendPathComponent(std::string_view path, std::string_view component) {
    while (component.starts_with('/'))
        component.remove_prefix(1);
    if (component.empty()) return std::string(path);
    std::string out;
    out.reserve(path.size() + 1 + component.size());
    out = path;
    while (out.size() > 1 && out.ends_with('/'))
        out.pop_back();
    if (!out.empty() && out.back() != '/') out += '/';
    out += component;
    return out;
}

std::string_view lastPathComponent(std::string_view path) {
    while (path.size() > 1 && path.ends_with('/'))
        path.remove_suffix(1);
    const auto slash = path.rfind('/');
    return slash == std::string_view::npos || path.size() == 1 ? path : path.substr(slash + 1);
}

std::string_view deletingLastPathComponent(std::string_view path) {
    while (path.size() > 1 && path.ends_with('/'))
        path.remove_suffix(1);
    const auto slash = path.rfind('/');
    if (slash == std::string_view::npos) return {};
    path = path.substr(0, slash + 1);
    while (path.size() > 1 && path.ends_with('/'))
        path.remove_suffix(1);
    return path;
}

}  // namespace tarnwell
