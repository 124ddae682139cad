#pragma once

#include <optional>
#include <string>
#include <string_view>

/// What travels over the command socket. One connection carries one text, "COMMAND:ARGUMENT", read to its
/// end.
///
/// Most commands are answered by closing the connection; a request (status, refresh, quit, settings, login,
/// logout) is answered with "ok\n" or "failed\n" and a text.
namespace tarnwell {

struct CommandAnswer {
    bool succeeded = false;
    std::string text;
};

std::string formatAnswer(const CommandAnswer& answer);
/// None when `text` is not an answer: the client closed without one.
std::optional<CommandAnswer> parseAnswer(std::string_view text);

}  // namespace tarnwell
