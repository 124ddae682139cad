#pragma once

#include <memory>

#include "platform/LocalServer.h"

namespace tarnwell {

/// LocalServer on Qt's event loop.
///
/// Qt's own local socket is not used: it takes the end of the peer's text for the end of the connection, and
/// an answer could not be sent any more.
class QtLocalServer final : public LocalServer {
  public:
    QtLocalServer();
    /// Answers that were given are written out first, for at most a second.
    ~QtLocalServer() override;

    bool listen(const std::string& path, Handler handler, std::string& error) override;
    void close() override;

  private:
    struct Connection;
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace tarnwell
