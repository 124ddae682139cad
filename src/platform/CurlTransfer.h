#pragma once

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/UrlLoader.h"

namespace tarnwell {

using SteadyTime = std::chrono::steady_clock::time_point;

struct CurlHandleDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct CurlListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlHandle = std::unique_ptr<CURL, CurlHandleDeleter>;
using CurlList = std::unique_ptr<curl_slist, CurlListDeleter>;

/// How the certificates of servers are checked; made once for all transfers.
struct CertificateTrust {
    std::string file;       ///< PEM file of authorities; empty: libcurl's own
    std::string folder;     ///< hashed folder of authorities; empty: libcurl's own
    std::string authority;  ///< PEM text of all authorities, in place of both; empty: none

    /// The system's authorities plus those of `extraFile` (may be empty). What cannot be read is logged.
    static CertificateTrust systemAnd(const std::string& extraFile);
};

/// Name or address and port of an https URL, lower case, as "host:port"; empty when the URL cannot be used.
struct UrlTarget {
    std::string host;  ///< without port and brackets
    std::string key;   ///< host and port
    static UrlTarget of(const std::string& url);
    [[nodiscard]] bool loopbackName() const;  ///< "localhost" and below
};

/// One request and its reply on the way. Made on the caller's thread, then used on the loader's thread only.
class CurlTransfer {
  public:
    CurlTransfer(UrlRequest request, std::function<void(UrlReply)> completion);
    ~CurlTransfer();
    CurlTransfer(const CurlTransfer&) = delete;
    CurlTransfer& operator=(const CurlTransfer&) = delete;

    /// Sets the handle up. False, with the reason in the reply, when the request is malformed.
    bool prepare(const CertificateTrust& trust, const std::string& userAgent, CURLSH* share);

    [[nodiscard]] CURL* handle() const { return handle_.get(); }
    [[nodiscard]] const UrlTarget& target() const { return target_; }
    /// When the transfer fails if no byte moved after `lastMove`.
    [[nodiscard]] SteadyTime expiry(SteadyTime lastMove) const {
        const auto idle = lastMove + request_.idleTimeout;
        return request_.totalTimeout.count() > 0 ? std::min(idle, made_ + request_.totalTimeout) : idle;
    }
    /// Since when the request has been idle: its making, or a later byte of its own or (see idleSince) of its
    /// host.
    [[nodiscard]] SteadyTime lastMove() const { return lastMove_; }
    /// The last byte of this transfer; the epoch when none moved.
    [[nodiscard]] SteadyTime lastByte() const { return lastByte_; }
    /// Bytes of the host's other requests moved while this one waited: it has not been idle before `time`.
    void idleSince(SteadyTime time) { lastMove_ = std::max(lastMove_, time); }

    /// Reports the end as libcurl tells it. Exactly one of these two is called, once.
    void finish(CURLcode code);
    void fail(std::string error);

  private:
    bool addHeaders(std::string& error);
    void touch() { lastMove_ = lastByte_ = std::chrono::steady_clock::now(); }
    void readHeadLine(std::string_view line);
    [[nodiscard]] bool arrivedWhole() const;
    void deliver();
    static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* self);
    static int onProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t sent);

    const UrlRequest request_;
    const UrlTarget target_;
    std::function<void(UrlReply)> completion_;
    CurlHandle handle_;
    CurlList headers_;
    CurlList resolve_;
    UrlReply reply_;
    std::string refusal_;  // why a callback ended the transfer
    const SteadyTime made_ = std::chrono::steady_clock::now();
    SteadyTime lastMove_ = made_;
    SteadyTime lastByte_{};
    curl_off_t sent_ = 0;
    bool headEnded_ = false;  // the blank line after the reply's head came
    bool framed_ = false;     // the head tells where the body ends
    char detail_[CURL_ERROR_SIZE] = {};
};

}  // namespace tarnwell
