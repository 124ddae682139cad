#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/UrlLoader.h"

namespace tarnwell {

/// HTTPS by libcurl, all of it on one thread ("tw-http"): connections, TLS sessions and resolved names are
/// kept and shared by all callers.
///
/// - Only https. Certificates are verified against the system's authorities and, when given, one more PEM
/// file.
/// - Redirects are not followed: requests carry tokens meant for one host, and no reply of the service is a
/// redirect.
/// - At most eight requests to one host run at once; further ones wait in order. The idle time-out of a
/// waiting request
///   runs only while no byte moves for its host, so that a dead host does not double the wait of those
///   behind.
/// - Proxies are taken from the environment, except for loopback names. Names ending in ".localhost" are
/// loopback.
/// - A header with a line break, a URL with control characters, a reply cut short or longer than allowed: an
/// error.
/// - Memory: a reply is received into one buffer reserved from its Content-Length (up to 16 MiB ahead of the
/// bytes).
class CurlUrlLoader final : public UrlLoader {
  public:
    struct Options {
        std::string certificateAuthority;  ///< PEM file trusted besides the system's; empty: none
        std::string userAgent = "Tarnwell";
    };

    CurlUrlLoader() : CurlUrlLoader(Options()) {}
    explicit CurlUrlLoader(Options options);
    /// As stop(). Not inside a completion that an executor runs on the loader's own thread.
    ~CurlUrlLoader() override;

    UrlReply sendSynchronously(const UrlRequest& request) override;
    void sendAsynchronously(UrlRequest request, Executor& queue, Completion completion) override;
    void stop() override;

    /// Connections made since the start: what keeping them saves shows here.
    [[nodiscard]] std::uint64_t connectionsOpened() const;

  private:
    class Engine;
    std::unique_ptr<Engine> engine_;
};

}  // namespace tarnwell
