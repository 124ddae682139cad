#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Executor.h"

namespace tarnwell {

struct UrlRequest {
    std::string method = "GET";
    std::string url{};
    std::vector<std::pair<std::string, std::string>> headers{};  ///< values may hold secrets: never logged
    std::string body{};
    /// No byte moved for this long, connecting included, fails the request. Not a limit on the whole
    /// transfer.
    std::chrono::milliseconds idleTimeout = std::chrono::seconds(60);
    /// The whole transfer's limit, waiting for its turn included, for requests that somebody sits and waits
    /// for: bytes that trickle in never let the idle time-out pass. 0: none.
    std::chrono::milliseconds totalTimeout{0};
    /// A longer reply fails the request.
    std::uint64_t maximumReplyBytes = 512u << 20;
    /// Ask for a compressed reply (JSON, not file contents).
    bool acceptCompressed = false;
};

/// The error of a request whose idle or total time-out passed.
inline constexpr const char* kTimedOut = "timed out";

struct UrlReply {
    int status = 0;       ///< HTTP status; 0 when no reply came
    std::string error{};  ///< transport error in words; empty when a whole reply came
    std::string body{};

    /// A reply counts as success only whole and with status exactly 200.
    [[nodiscard]] bool succeeded() const { return error.empty() && status == 200; }
};

/// HTTPS requests. TLS certificates are always verified; connections are kept and shared by all threads;
/// nothing is cached. Any thread.
class UrlLoader {
  public:
    using Completion = std::function<void(UrlReply)>;

    virtual ~UrlLoader() = default;
    /// Blocks until the reply is whole or failed. Not on the main thread.
    virtual UrlReply sendSynchronously(const UrlRequest& request) = 0;
    /// Calls `completion` once on `queue`, which outlives the request.
    virtual void sendAsynchronously(UrlRequest request, Executor& queue, Completion completion) = 0;
    /// Fails the requests that run and all later ones with "cancelled". Idempotent; used when the program
    /// ends.
    virtual void stop() = 0;
};

}  // namespace tarnwell
