#include "drive/DriveNames.h"

#include <cerrno>
#include <cstdint>

namespace tarnwell {
namespace {

/// Length of the character at the start of `text`; 0 when that is none.
std::size_t characterLength(std::string_view text) {
    const auto byteAt = [&](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const std::uint32_t first = byteAt(0);
    if (first < 0x80) return 1;
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    std::uint32_t point = first & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byteAt(i) & 0xC0U) != 0x80U) return 0;
        point = point << 6U | (byteAt(i) & 0x3FU);
    }
    constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = point >= 0xD800 && point < 0xE000;
    return first < 0xC2 || point < kSmallest[length] || point > 0x10FFFF || isSurrogate ? 0 : length;
}

}  // namespace

bool isSafeName(std::string_view name) {
    return !name.empty() && name.size() <= kMaximumName && name != "." && name != ".." &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

int newNameError(std::string_view name) {
    if (name.size() > kMaximumNewName) return ENAMETOOLONG;
    if (!isSafeName(name)) return EINVAL;
    while (!name.empty()) {
        const auto length = characterLength(name);
        if (length == 0) return EILSEQ;
        name.remove_prefix(length);
    }
    return 0;
}

std::string_view attributeName(std::string_view name) {
    for (const std::string_view foreign : {"security.", "system.", "trusted."}) {
        if (name.starts_with(foreign)) return {};
    }
    if (name.starts_with(kUserPrefix)) name.remove_prefix(kUserPrefix.size());
    return name;
}

}  // namespace tarnwell
