#include "service/UrlCodec.h"

#include <charconv>
#include <limits>

namespace tarnwell::service {

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::optional<std::string> percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;
        const int high = hexDigit(text[i + 1]);
        const int low = hexDigit(text[i + 2]);
        if (high < 0 || low < 0 || (high == 0 && low == 0)) return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

std::optional<Parameters> Parameters::parse(std::string_view text) {
    Parameters parameters;
    while (!text.empty()) {
        const auto end = text.find('&');
        const std::string_view pair = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        if (pair.empty()) continue;
        const auto equals = pair.find('=');
        auto name = percentDecode(pair.substr(0, equals));
        auto value =
            percentDecode(equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1));
        if (!name || !value) return std::nullopt;
        parameters.pairs_.emplace_back(std::move(*name), std::move(*value));
    }
    return parameters;
}

const std::string* Parameters::find(std::string_view name) const {
    for (const auto& [key, value] : pairs_) {
        if (key == name) return &value;
    }
    return nullptr;
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<std::int32_t> parseInt32(std::string_view text) {
    const auto value = parseInteger(text);
    if (!value || *value < std::numeric_limits<std::int32_t>::min() ||
        *value > std::numeric_limits<std::int32_t>::max()) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(*value);
}

}  // namespace tarnwell::service
