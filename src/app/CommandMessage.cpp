#include "app/CommandMessage.h"

namespace tarnwell {

namespace {

constexpr std::string_view kSucceeded = "ok\n";
constexpr std::string_view kFailed = "failed\n";

}  // namespace

std::optional<CommandMessage> parseMessage(std::string_view text) {
    const auto colon = text.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    std::string_view argument = text.substr(colon + 1);
    while (argument.starts_with('\n') || argument.starts_with('\r'))
        argument.remove_prefix(1);
    while (argument.ends_with('\n') || argument.ends_with('\r'))
        argument.remove_suffix(1);
    return CommandMessage{std::string(text.substr(0, colon)), std::string(argument)};
}

std::string formatAnswer(const CommandAnswer& answer) {
    return std::string(answer.succeeded ? kSucceeded : kFailed) + answer.text;
}

std::optional<CommandAnswer> parseAnswer(std::string_view text) {
    for (const auto& [mark, succeeded] : {std::pair{kSucceeded, true}, std::pair{kFailed, false}}) {
        if (text.starts_with(mark)) return CommandAnswer{succeeded, std::string(text.substr(mark.size()))};
    }
    return std::nullopt;
}

}  // namespace tarnwell
