#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace tarnwell {

/// Named message ports of the user's session: a message is a number and bytes, sent to whoever holds a name.
///
/// Threads: the main one, for every call and every callback. Nothing blocks; callbacks come later, never from
/// inside the call. Callbacks that are out when the ports go are dropped.
class MessagePorts {
  public:
    struct Message {
        std::int32_t id = 0;
        std::string bytes;
    };
    using Handler = std::function<void(Message message)>;
    /// What a port is sent to; empty: nobody. It stays with one holder of the name: the next has another.
    using Address = std::string;

    /// Longest message that is taken in, in bytes.
    static constexpr std::size_t kLargestMessage = 1u << 20;

    virtual ~MessagePorts() = default;
    /// Takes the name and hands what comes in to `handler`. `registered` hears why that failed; empty: it did
    /// not.
    virtual void registerPort(const std::string& name, Handler handler,
                              std::function<void(std::string error)> registered) = 0;
    /// Who holds the name now.
    virtual void lookUp(const std::string& name, std::function<void(Address address)> found) = 0;
    /// Tells whenever the name goes to somebody else, or to nobody. One watch for each name.
    virtual void watch(const std::string& name, std::function<void(Address address)> changed) = 0;
    /// `sent` hears whether the other side took the message before the deadline. One that did not may still
    /// get it later.
    virtual void send(const Address& address, const Message& message, std::chrono::milliseconds deadline,
                      std::function<void(bool sent)> sent) = 0;
};

}  // namespace tarnwell
