#include "app/CommandRequests.h"

#include "connector/StoreQueries.h"
#include "util/TWLogger.h"

namespace tarnwell {

void CommandRequests::didReceive(const std::string& text, LocalServer::Reply reply) {
    auto message = TWMachportMsgParser::parseMessage(text);
    if (message) message->argument = std::string(trimmedNewlines(message->argument));
    TWLog(kLogMain, "Received command: %@",
          message && message->command.starts_with("login") ? "login" : forLog(text));
    const Answer answer = [reply = std::move(reply)](const CommandAnswer& given) {
        reply(formatAnswer(given));
    };
    if (!message || !execute(*message, answer)) mediator_.parseRemoteCommand(text);
}

bool CommandRequests::execute(const CommandMessage& message, const Answer& answer) {
    if (message.command == "status") {
        answer({true, mediator_.statusJson()});
    } else if (message.command == "settings") {
        mediator_.reloadSettings();
        answer({true, ""});
    } else if (message.command == "login" || message.command == "login-discard") {
        // "EMAIL\nPASSWORD": an address has no line break, a password may have anything.
        const auto end = message.argument.find('\n');
        if (end == std::string::npos || end == 0) {
            answer({false, "malformed log-in request"});
        } else {
            mediator_.login(message.argument.substr(0, end), message.argument.substr(end + 1),
                            message.command != "login", answer);
        }
    } else if (message.command == "logout") {
        mediator_.logout(message.argument == "discard", answer);
    } else if (message.command == "quit") {
        mediator_.quit(answer);
    } else if (message.command == "refresh") {
        mediator_.refresh(answer);
    } else {
        return false;
    }
    return true;
}

}  // namespace tarnwell
