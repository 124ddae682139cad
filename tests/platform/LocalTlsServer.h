#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/TemporaryFolder.h"

namespace tarnwell::testing {

/// A blocking HTTPS/1.1 server on a loopback port with a certificate that signs itself, for the tests of the
/// loader. Each connection has a thread, which gives every request to the handler; the handler writes what it
/// likes.
class LocalTlsServer {
  public:
    struct Request {
        std::string method, target, body;
        std::multimap<std::string, std::string> headers;  ///< names in lower case
    };
    class Connection {
      public:
        void write(std::string_view bytes);
        /// Whether the peer closed, or the server is ending. Waits a little; for handlers that never answer.
        bool ended();
        void reply(int status, std::string_view body, std::string_view headers = {});

      private:
        friend class LocalTlsServer;
        Connection(SSL* session, const std::atomic<bool>& stopping)
            : session_(session), stopping_(stopping) {}
        /// False at the end of the connection.
        bool read(Request& request);
        bool fill();

        SSL* const session_;
        const std::atomic<bool>& stopping_;
        std::string buffer_;
    };
    /// Returns whether the connection stays open for another request. Runs on the connection's thread.
    using Handler = std::function<bool(const Request&, Connection&)>;

    explicit LocalTlsServer(Handler handler, const std::string& certificateHost = "files.localhost");
    ~LocalTlsServer();

    /// "https://name.localhost:PORT" + target.
    [[nodiscard]] std::string url(const std::string& target,
                                  const std::string& host = "files.localhost") const;
    /// The server's certificate, as a PEM file.
    [[nodiscard]] std::string authorityFile() const { return folder_.path("authority.pem"); }
    [[nodiscard]] int handshakes() const { return handshakes_; }
    [[nodiscard]] int accepted() const { return accepted_; }

  private:
    void acceptAll();
    void serve(int descriptor);

    TemporaryFolder folder_;
    Handler handler_;
    SSL_CTX* const context_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_ = false;
    std::atomic<int> handshakes_ = 0, accepted_ = 0;
    std::vector<std::thread> connections_;  // of the acceptor's thread
    std::thread acceptor_;
};

}  // namespace tarnwell::testing
