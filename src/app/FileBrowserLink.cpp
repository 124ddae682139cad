#include "app/FileBrowserLink.h"

#include <algorithm>
#include <utility>

#include "app/TWMachportMsgParser.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

constexpr std::int32_t kMessageId = 1;
constexpr std::chrono::seconds kDeadline{1};
/// Sent and not answered yet. One that does not read is not sent more than this in a second.
constexpr std::size_t kMostInFlight = 64;
/// Texts that wait for a port or a place. Overlays are asked for again, so that the oldest may go.
constexpr std::size_t kMostWaiting = 10'000;

}  // namespace

FileBrowserLink::FileBrowserLink(MessagePorts& ports, Mediator& mediator)
    : ports_(ports), mediator_(mediator), self_(std::make_shared<FileBrowserLink*>(this)) {}

void FileBrowserLink::setupMachPort() {
    const std::weak_ptr weak = self_;
    ports_.registerPort(
        localPortName,
        [weak](const MessagePorts::Message& message) {
            if (const auto self = weak.lock()) (*self)->handlePortMessage(message);
        },
        [](const std::string& error) {
            if (error.empty()) return;
            TWLog(kLogMain,
                  "Error! Cannot register mach port with name %@. Finder integration will be unavailable.",
                  localPortName);
            TWLog(kLogMain, "Message port: %@", error);
        });
    ports_.watch(remotePortName, [weak](const MessagePorts::Address& address) {
        const auto self = weak.lock();
        if (!self) return;
        auto& link = **self;
        if (!link.lastHolder_.empty() && link.lastHolder_ != address) link.mediator_.fileBrowserGone();
        link.connected(address);
    });
    connectFinderPort();
}

void FileBrowserLink::connectFinderPort() {
    sendPort_.reset();
    if (std::exchange(connecting_, true)) return;
    ports_.lookUp(remotePortName, [weak = std::weak_ptr(self_)](const MessagePorts::Address& address) {
        if (const auto self = weak.lock()) (*self)->connected(address);
    });
}

void FileBrowserLink::connected(const MessagePorts::Address& address) {
    connecting_ = false;
    lastHolder_ = address;
    if (address.empty()) {
        sendPort_.reset();
        waiting_.clear();
        return;
    }
    sendPort_ = address;
    sendWaiting();
}

void FileBrowserLink::sendFinderCommand(std::string_view command, std::string_view path) {
    if (!sendPort_) connectFinderPort();
    if (sendPort_ && waiting_.empty() && inFlight_ < kMostInFlight) {
        return send({std::string(command), std::string(path)});
    }
    if (waiting_.size() >= kMostWaiting) waiting_.pop_front();
    waiting_.push_back({std::string(command), std::string(path)});
}

void FileBrowserLink::sendWaiting() {
    while (sendPort_ && !waiting_.empty() && inFlight_ < kMostInFlight) {
        const Text text = std::move(waiting_.front());
        waiting_.pop_front();
        send(text);
    }
}

void FileBrowserLink::send(const Text& text) {
    ++inFlight_;
    ports_.send(*sendPort_, {kMessageId, text.command + ":" + text.path}, kDeadline,
                [weak = std::weak_ptr(self_), command = text.command, to = *sendPort_](bool sent) {
                    const auto self = weak.lock();
                    if (!self) return;
                    auto& link = **self;
                    --link.inFlight_;
                    if (!sent) {
                        TWLog(kLogMain,
                              "Failed to send findercommand %@ : send port is connected, but sending failed.",
                              command);
                        link.mediator_.sendingFailed();
                        // The next text looks for the port anew.
                        if (link.sendPort_ == to) link.sendPort_.reset();
                    }
                    if (!link.waiting_.empty() && !link.sendPort_) link.connectFinderPort();
                    link.sendWaiting();
                });
}

void FileBrowserLink::handlePortMessage(const MessagePorts::Message& message) {
    if (message.id != kMessageId) return TWLog(kLogMain, "Received wrong Mach message. Id %d", message.id);
    if (!isUtf8(message.bytes)) return TWLog(kLogMain, "Received wrong Mach message. Ignoring.");
    mediator_.parseRemoteCommand(message.bytes);
}

}  // namespace tarnwell
