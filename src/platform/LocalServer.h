#pragma once

#include <functional>
#include <string>

namespace tarnwell {

/// Serves a local socket on the main loop: one connection carries one text, read to its end.
///
/// Threads: the loop's own, for every call and every callback. A connection that sends more than
/// kLocalTextLimit, or does not end its text within five seconds, or belongs to another user, is closed
/// unheard. At most 64 connections are open at once; more wait in the kernel.
class LocalServer {
  public:
    /// Writes an answer and closes the connection. Called at most once, on the loop's thread, at any later
    /// time; it may outlive the server and then does nothing. Dropped without a call: the connection closes
    /// without an answer.
    using Reply = std::function<void(std::string answer)>;
    using Handler = std::function<void(std::string text, Reply reply)>;

    virtual ~LocalServer() = default;
    /// False with the reason in `error`.
    virtual bool listen(const std::string& path, Handler handler, std::string& error) = 0;
    /// Accepts nothing more and removes the socket file. Connections that wait for an answer stay open.
    virtual void close() = 0;
};

}  // namespace tarnwell
