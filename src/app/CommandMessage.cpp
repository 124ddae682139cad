#include "app/CommandMessage.h"

namespace tarnwell {

namespace {

constexpr std::string_view kSucceeded = "ok\n";
constexpr std::string_view kFailed = "failed\n";

}  // namespace

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
