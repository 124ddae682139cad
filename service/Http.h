#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "service/ContentStore.h"
#include "service/MetadataStore.h"
#include "service/UrlCodec.h"

namespace tarnwell::service {

/// What a host name stands for, by its first label.
enum class HostRole { global, gateway, fileCache, webClient };

/// One request as the endpoints see it, free of the HTTP library.
struct Request {
    std::string method;
    std::string target;  ///< path and query as sent
    std::string host;    ///< the Host header
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;

    // Filled by the router before an endpoint sees the request.
    HostRole role = HostRole::global;
    std::optional<DomainInfo> domain;  ///< of the host's remainder; always present except for the global role
    Parameters query;

    /// Null when absent. Letter case does not count.
    [[nodiscard]] const std::string* header(std::string_view name) const;

    // Each of these throws HttpError 400 when the value is absent or malformed.
    [[nodiscard]] const std::string& needHeader(std::string_view name) const;
    /// Percent-decoded: tokens and names in headers are sent encoded.
    [[nodiscard]] std::string needDecodedHeader(std::string_view name) const;
    [[nodiscard]] const std::string& needQuery(std::string_view name) const;
};

/// 400 with a text that names the field, unless `value` is a number from `smallest` on.
std::int64_t needInteger(const std::string& text, std::string_view name, std::int64_t smallest);

/// Bytes of stored contents as a reply's body.
struct ContentRange {
    std::shared_ptr<ContentReader> reader;
    std::int64_t position = 0;
    std::int64_t count = 0;
};

struct Reply {
    unsigned status = 200;
    std::string contentType;
    std::string body;
    std::optional<ContentRange> range;  ///< instead of `body`
    std::vector<std::pair<std::string, std::string>> headers;

    static Reply text(unsigned status, std::string body);
    /// Compressed by the router when the client takes it.
    static Reply json(std::string body);
};

/// The threads that an endpoint runs on, so that no kind of work holds up another.
enum class Lane {
    reading,
    writing,  ///< waits for the disk, and for other writers
    hashing,  ///< burns processor time on purpose (password hashes)
};

/// One row of the router's table. The handler runs on a worker thread, several at once; it throws HttpError
/// to refuse, and any other exception is answered 500.
struct Endpoint {
    HostRole role;
    std::string_view path;  ///< lower case: letter case of paths does not count
    std::string_view method;
    std::size_t bodyLimit;
    std::function<Reply(const Request&)> handle;
    /// Absent, or what the request has to wait for before it is handled, without holding a thread.
    std::function<std::chrono::milliseconds(const Request&)> delay = {};
    Lane lane = Lane::reading;
};

}  // namespace tarnwell::service
