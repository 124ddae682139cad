#pragma once

#include <memory>

#include "platform/MessagePorts.h"

namespace tarnwell {

class SessionBus;

/// Message ports on the session bus: a port's name is a well-known name there, its address the unique name of
/// the holder. docs/file-browser.md describes the object and its one method.
class DBusMessagePorts final : public MessagePorts {
  public:
    explicit DBusMessagePorts(SessionBus& bus);
    ~DBusMessagePorts() override;

    void registerPort(const std::string& name, Handler handler,
                      std::function<void(std::string error)> registered) override;
    void lookUp(const std::string& name, std::function<void(Address address)> found) override;
    void watch(const std::string& name, std::function<void(Address address)> changed) override;
    void send(const Address& address, const Message& message, std::chrono::milliseconds deadline,
              std::function<void(bool sent)> sent) override;

  private:
    struct State;
    SessionBus& bus_;
    std::unique_ptr<State> state_;
};

}  // namespace tarnwell
