#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarnwell {

struct CommandMessage {
    std::string command;
    std::string argument;
};

/// Takes the texts apart that travel over the message ports and the command socket: "COMMAND:ARGUMENT".
class TWMachportMsgParser {
  public:
    /// Splits at the first ":". None without one: that is no command.
    [[nodiscard]] static std::optional<CommandMessage> parseMessage(std::string_view text);
};

/// Without the line breaks at both ends, as a terminal's or a script's text comes with them.
[[nodiscard]] std::string_view trimmedNewlines(std::string_view text);

/// The text is UTF-8: neither cut nor overlong, nor half of a surrogate pair.
[[nodiscard]] bool isUtf8(std::string_view text);

}  // namespace tarnwell
