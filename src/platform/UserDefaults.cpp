#include "platform/UserDefaults.h"

#include <charconv>

#include "util/TWUtils.h"

namespace tarnwell {

namespace {

std::optional<int> parsedInt(std::string_view text) {
    int number = 0;
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (code != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

}  // namespace

bool UserDefaults::getBool(std::string_view key) const {
    const auto value = get(key);
    if (!value) return false;
    if (isEqualLowercase(*value, "true") || isEqualLowercase(*value, "yes") ||
        isEqualLowercase(*value, "on")) {
        return true;
    }
    return parsedInt(*value).value_or(0) != 0;
}

int UserDefaults::getInt(std::string_view key, int fallback) const {
    const auto value = get(key);
    return value ? parsedInt(*value).value_or(fallback) : fallback;
}

}  // namespace tarnwell
