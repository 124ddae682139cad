#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/MessagePorts.h"

namespace tarnwell {

/// The conversation with the file browser's extension over a pair of message ports: texts
/// "COMMAND:ARGUMENT" in both directions. docs/file-browser.md describes it.
///
/// The extension may come, go, and be stuck at any time. Nothing waits for it: a text that it does not take
/// is logged and forgotten, and while nobody listens nothing is sent.
///
/// Main thread only.
class FileBrowserLink {
  public:
    static constexpr const char* localPortName = "com.tarnwell.findertalk";
    static constexpr const char* remotePortName = "com.tarnwell.findertalkback";

    /// Called on the main thread.
    class Mediator {
      public:
        virtual ~Mediator() = default;
        virtual void parseRemoteCommand(std::string_view text) = 0;
        /// The extension that asked for whatever it asked for is no longer there.
        virtual void fileBrowserGone() = 0;
        /// A text could not be delivered.
        virtual void sendingFailed() = 0;
    };

    /// Both outlive the link.
    FileBrowserLink(MessagePorts& ports, Mediator& mediator);

    /// Takes the receive port's name and looks the extension's up. Once.
    void setupMachPort();
    /// Drops the send port and looks it up anew; what is to be sent meanwhile waits for the answer.
    void connectFinderPort();
    /// `path` is absolute. Returns at once.
    void sendFinderCommand(std::string_view command, std::string_view path);
    void handlePortMessage(const MessagePorts::Message& message);

    [[nodiscard]] bool isConnected() const { return sendPort_.has_value(); }

  private:
    struct Text {
        std::string command, path;
    };
    void connected(const MessagePorts::Address& address);
    void sendWaiting();
    void send(const Text& text);

    MessagePorts& ports_;
    Mediator& mediator_;
    std::shared_ptr<FileBrowserLink*> self_;  // answers on their way hold it weakly
    std::optional<MessagePorts::Address> sendPort_;
    MessagePorts::Address lastHolder_;  // also while a failure has dropped the send port
    bool connecting_ = false;
    std::deque<Text> waiting_;
    std::size_t inFlight_ = 0;
};

}  // namespace tarnwell
