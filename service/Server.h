#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "service/Router.h"
#include "service/ServiceLog.h"
#include "service/TlsContext.h"

namespace tarnwell::service {

struct ServerOptions {
    std::string listen = "127.0.0.1";
    std::uint16_t port = 8443;  ///< 0: a free one
    std::size_t maxConnections = 4096;

    std::chrono::milliseconds handshakeTimeout{10'000};
    std::chrono::milliseconds idleTimeout{75'000};  ///< between two requests of a connection
    std::chrono::milliseconds headerTimeout{10'000};
    std::chrono::milliseconds stallTimeout{30'000};  ///< without a byte moved, within a body or a reply
    std::chrono::milliseconds bodyTimeout{150'000};  ///< for a whole body
    std::chrono::milliseconds stopGrace{5'000};      ///< for requests in flight at stop()
};

/// The HTTPS server: connections, requests, time-outs, limits. What a request means is the router's.
///
/// Threads: connections are coroutines on a few I/O threads, each on its own strand; the router runs on
/// worker threads, changes and password hashing on further ones, so that none holds up the others. Public
/// functions: any thread.
class Server {
  public:
    /// All arguments are borrowed and must outlive the server.
    Server(ServerOptions options, Router& router, TlsContext& tls, ServiceLog& log);
    /// Stops.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Listens and returns; throws ServiceError when it cannot.
    void start();
    [[nodiscard]] std::uint16_t port() const;
    /// Runs `task` on a worker thread every `period`, the first time after one period, until stop().
    void every(std::chrono::milliseconds period, std::function<void()> task);
    /// Accepts nothing more, closes idle connections, gives running requests `stopGrace`, and returns with
    /// every thread joined. Idempotent.
    void stop();

  private:
    class Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace tarnwell::service
