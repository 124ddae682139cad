#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell::service::testing {

struct HttpsReply {
    long status = 0;  ///< 0: no reply
    std::string body;
    std::map<std::string, std::string> headers;  ///< names in lower case
    std::string error;
};

/// A client as the real ones are: libcurl, verified TLS, kept connections. Host names lead to 127.0.0.1. One
/// thread.
class HttpsClient {
  public:
    HttpsClient(std::string authorityFile, std::uint16_t port);
    ~HttpsClient();
    HttpsClient(const HttpsClient&) = delete;
    HttpsClient& operator=(const HttpsClient&) = delete;

    using Headers = std::vector<std::string>;
    HttpsReply get(const std::string& host, const std::string& target, const Headers& headers = {}) {
        return perform(host, target, headers, nullptr);
    }
    HttpsReply post(const std::string& host, const std::string& target, const Headers& headers,
                    const std::string& body) {
        return perform(host, target, headers, &body);
    }
    /// Ask for compressed replies (the body is given out plain).
    void setCompressed(bool on) { compressed_ = on; }

  private:
    HttpsReply perform(const std::string& host, const std::string& target, const Headers& headers,
                       const std::string* body);
    const std::string authorityFile_;
    const std::uint16_t port_;
    bool compressed_ = false;
    void* curl_;
};

/// A peer that sends what it likes. Every read ends after `patience`.
class RawPeer {
  public:
    explicit RawPeer(std::uint16_t port, std::chrono::milliseconds patience = std::chrono::seconds(10));
    ~RawPeer();
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    [[nodiscard]] bool connected() const { return socket_ >= 0; }
    /// False when the handshake is refused. Unverified. `maxVersion` 0: any. Offers the session of `former`,
    /// if given.
    bool handshake(int maxVersion = 0, RawPeer* former = nullptr);
    [[nodiscard]] bool resumed() const;
    /// Over TLS after a handshake, in the clear before. Errors are ignored: the other side may have closed.
    void send(std::string_view bytes);
    /// All bytes until the other side closes, or `patience` is over (then `timedOut()`).
    std::string readToEnd();
    /// Until `text` has come, or as above.
    std::string readUntil(std::string_view text);
    [[nodiscard]] bool timedOut() const { return timedOut_; }

  private:
    long readSome(char* out, std::size_t count);
    struct Tls;
    std::unique_ptr<Tls> tls_;
    int socket_ = -1;
    bool timedOut_ = false;
};

}  // namespace tarnwell::service::testing
