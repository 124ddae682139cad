#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/TemporaryFolder.h"

namespace tarnwell::testing {

/// A blocking HTTPS/1.1 server on a loopback port with a certificate authority of its own, for the tests of
/// the loader. Each connection has a thread, which gives every request to the handler; the handler writes
/// what it likes.
class LocalTlsServer {
  public:
    struct Request {
        std::string method, target, body;
        std::multimap<std::string, std::string> headers;  ///< names in lower case
    };
    class Connection {
      public:
        virtual ~Connection() = default;
        virtual void write(std::string_view bytes) = 0;
        /// Whether the peer closed, or the server is ending. Waits a little; for handlers that never answer.
        virtual bool ended() = 0;
        void reply(int status, std::string_view body, std::string_view headers = {});
    };
    /// Returns whether the connection stays open for another request. Runs on the connection's thread.
    using Handler = std::function<bool(const Request&, Connection&)>;

    explicit LocalTlsServer(Handler handler, const std::string& certificateHost = "files.localhost");
    ~LocalTlsServer();

    /// "https://name.localhost:PORT" + target.
    [[nodiscard]] std::string url(const std::string& target,
                                  const std::string& host = "files.localhost") const;
    /// The authority that signed the server's certificate, as a PEM file.
    [[nodiscard]] std::string authorityFile() const { return folder_.path("authority.pem"); }
    [[nodiscard]] int handshakes() const { return handshakes_; }
    [[nodiscard]] int accepted() const { return accepted_; }

  private:
    class Tls;
    void acceptAll();
    void serve(int descriptor);

    TemporaryFolder folder_;
    Handler handler_;
    std::unique_ptr<Tls> tls_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_ = false;
    std::atomic<int> handshakes_ = 0, accepted_ = 0;
    std::mutex mutex_;
    std::vector<std::thread> connections_;  // guarded by mutex_
    std::thread acceptor_;
};

}  // namespace tarnwell::testing
