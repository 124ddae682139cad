#pragma once

#include <chrono>
#include <optional>
#include <string_view>
#include <vector>

#include "service/Http.h"
#include "service/ServiceLog.h"

namespace tarnwell::service {

/// Finds the endpoint of a request by host role, path and method, and turns refusals into replies.
///
/// Immutable after construction. Its functions never throw but for memory; all but bodyLimit() may block on
/// the database and belong on worker threads.
class Router {
  public:
    Router(MetadataStore& store, ServiceLog& log, std::vector<Endpoint> endpoints);

    /// The largest body that any endpoint of this path takes, before anything else about the request is
    /// known.
    [[nodiscard]] std::size_t bodyLimit(std::string_view target) const;

    /// The answer, or what is to be done before it: wait for `delay`, then call finish() on a thread of
    /// `lane`.
    struct Step {
        std::optional<Reply> reply;
        const Endpoint* endpoint = nullptr;
        std::chrono::milliseconds delay{0};
        Lane lane = Lane::reading;
    };
    Step start(Request& request) const;
    Reply finish(const Endpoint& endpoint, const Request& request) const;

  private:
    [[nodiscard]] const Endpoint& resolve(Request& request) const;
    [[nodiscard]] Reply refusal(const Request& request) const;

    MetadataStore& store_;
    ServiceLog& log_;
    const std::vector<Endpoint> endpoints_;
};

}  // namespace tarnwell::service
