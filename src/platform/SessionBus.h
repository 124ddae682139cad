#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/RunLoop.h"

class QDBusConnection;

namespace tarnwell {

/// The process's connection to the desktop's session bus.
///
/// Made in the background at construction: a bus that does not answer holds nobody up. Where the session
/// names no bus, none is started. A bus that goes takes the session with it; there is no second attempt.
///
/// Main thread only.
class SessionBus {
  public:
    /// Both outlive the bus.
    SessionBus(RunLoop& mainLoop, Executor& background);
    ~SessionBus();
    SessionBus(const SessionBus&) = delete;
    SessionBus& operator=(const SessionBus&) = delete;

    /// Runs one of the two once the attempt has ended, at once when it has already. At most a thousand wait;
    /// more are told of a failure. Dropped with the bus.
    void whenConnected(std::function<void(QDBusConnection& connection)> task,
                       std::function<void(const std::string& error)> failed);

    /// Address at which the user's bus listens; empty: there is none.
    [[nodiscard]] static std::string address();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace tarnwell
