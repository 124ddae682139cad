#include "app/TWMachportMsgParser.h"

#include <utf8proc.h>

namespace tarnwell {

std::optional<CommandMessage> TWMachportMsgParser::parseMessage(std::string_view text) {
    const auto colon = text.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    return CommandMessage{std::string(text.substr(0, colon)), std::string(text.substr(colon + 1))};
}

std::string_view trimmedNewlines(std::string_view text) {
    const auto first = text.find_first_not_of("\r\n");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of("\r\n") - first + 1);
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        utf8proc_int32_t character = 0;
        const auto size = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                           static_cast<utf8proc_ssize_t>(text.size()), &character);
        if (size <= 0) return false;
        text.remove_prefix(static_cast<std::size_t>(size));
    }
    return true;
}

}  // namespace tarnwell
