#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "app/CommandMessage.h"
#include "app/TWMachportMsgParser.h"
#include "platform/LocalServer.h"

namespace tarnwell {

/// Executes the texts that come in over the command socket. Main thread only.
///
/// The requests of the command line are answered; every other text is handed to the file browser's commands,
/// which are not. Passwords travel here: the argument of a log-in is never logged.
class CommandRequests {
  public:
    using Answer = std::function<void(CommandAnswer)>;

    /// What the requests ask of the application. Called on the main thread; an Answer is called at most once,
    /// there.
    class Mediator {
      public:
        virtual ~Mediator() = default;
        [[nodiscard]] virtual std::string statusJson() = 0;
        virtual void reloadSettings() = 0;
        /// `discards`: what was not sent may be lost; else it is a reason to refuse.
        virtual void login(const std::string& user, const std::string& password, bool discards,
                           Answer answer) = 0;
        virtual void logout(bool discards, Answer answer) = 0;
        virtual void quit(Answer answer) = 0;
        /// Answers as soon as the work has begun.
        virtual void refresh(Answer answer) = 0;
        /// A text that is none of the requests.
        virtual void parseRemoteCommand(std::string_view text) = 0;
    };

    explicit CommandRequests(Mediator& mediator) : mediator_(mediator) {}

    /// One connection's text, and the way back.
    void didReceive(const std::string& text, LocalServer::Reply reply);

  private:
    bool execute(const CommandMessage& message, const Answer& answer);

    Mediator& mediator_;
};

}  // namespace tarnwell
