#include "service/Router.h"

#include <algorithm>

#include "service/Gzip.h"
#include "service/Names.h"
#include "service/ServiceError.h"

namespace tarnwell::service {

namespace {

/// Below this, compressing costs more than it saves.
constexpr std::size_t kSmallestCompressed = 1400;

std::string pathOf(std::string_view target) {
    return lowerAscii(target.substr(0, target.find('?')));
}

/// Host without port, or none for text that cannot be a host name. A literal IPv6 address is the global
/// role's.
std::optional<std::string> hostOf(std::string_view header) {
    std::string_view host = header;
    if (host.starts_with('[')) {
        const auto end = host.find(']');
        if (end == std::string_view::npos) return std::nullopt;
        host = host.substr(0, end + 1);
    } else {
        host = host.substr(0, host.find(':'));
    }
    if (host.ends_with('.')) host.remove_suffix(1);
    if (host.empty() || host.size() > 255) return std::nullopt;
    return lowerAscii(host);
}

HostRole roleOfLabel(std::string_view label) {
    if (label == "clientgateway") return HostRole::gateway;
    if (label == "filecache01") return HostRole::fileCache;
    if (label == "webclient") return HostRole::webClient;
    return HostRole::global;
}

}  // namespace

Router::Router(MetadataStore& store, ServiceLog& log, std::vector<Endpoint> endpoints)
    : store_(store), log_(log), endpoints_(std::move(endpoints)) {}

std::size_t Router::bodyLimit(std::string_view target) const {
    const std::string path = pathOf(target);
    std::size_t limit = 0;
    for (const auto& endpoint : endpoints_) {
        if (endpoint.path == path) limit = std::max(limit, endpoint.bodyLimit);
    }
    return limit;
}

const Endpoint& Router::resolve(Request& request) const {
    if (!request.target.starts_with('/')) throw HttpError(400, "the request target is not a path");
    const auto host = hostOf(request.host);
    if (!host) throw HttpError(400, "the Host header is missing or malformed");
    const auto dot = host->find('.');
    request.role = dot == std::string::npos ? HostRole::global : roleOfLabel(host->substr(0, dot));
    if (request.role != HostRole::global) {
        request.domain = store_.domainOfHost(std::string_view(*host).substr(dot + 1));
        if (!request.domain) throw HttpError(404, "no such domain");
    }
    const auto mark = request.target.find('?');
    if (mark != std::string::npos) {
        auto query = Parameters::parse(std::string_view(request.target).substr(mark + 1));
        if (!query) throw HttpError(400, "the query is malformed");
        request.query = std::move(*query);
    }
    const std::string path = pathOf(request.target);
    const Endpoint* otherMethod = nullptr;
    for (const auto& endpoint : endpoints_) {
        if (endpoint.role != request.role || endpoint.path != path) continue;
        if (endpoint.method == (request.method == "HEAD" ? "GET" : request.method)) return endpoint;
        otherMethod = &endpoint;
    }
    if (otherMethod) throw HttpError(405, "this path takes " + std::string(otherMethod->method));
    throw HttpError(404, "no such path");
}

/// Of the exception that is being handled.
Reply Router::refusal(const Request& request) const {
    try {
        throw;
    } catch (const HttpError& error) {
        Reply reply = Reply::text(error.status, std::string(error.what()) + "\n");
        if (error.status == 405) {
            const std::string_view text = error.what();
            reply.headers.emplace_back("Allow", text.substr(text.rfind(' ') + 1));
        }
        if (error.status == 429) reply.headers.emplace_back("Retry-After", "30");
        return reply;
    } catch (const ForeignIdentityError& error) {
        return Reply::text(409, std::string(error.what()) + "\n");
    } catch (const DamagedError& error) {
        log_.warning("error in " + pathOf(request.target) + ": " + error.what());
        return Reply::text(503, "the database of the service is damaged\n");
    } catch (const StorageFullError& error) {
        log_.warning("error in " + pathOf(request.target) + ": " + error.what());
        return Reply::text(507, "the disk of the service is full\n");
    } catch (const std::exception& error) {
        log_.warning("error in " + pathOf(request.target) + ": " + error.what());
        return Reply::text(500, "internal error\n");
    }
}

Router::Step Router::start(Request& request) const {
    Step step;
    try {
        const Endpoint& endpoint = resolve(request);
        if (endpoint.delay) step.delay = endpoint.delay(request);
        if (step.delay.count() > 0 || endpoint.lane != Lane::reading) {
            step.endpoint = &endpoint;
            step.lane = endpoint.lane;
        } else {
            step.reply = finish(endpoint, request);
        }
    } catch (...) {
        step.reply = refusal(request);
    }
    return step;
}

Reply Router::finish(const Endpoint& endpoint, const Request& request) const {
    try {
        Reply reply = endpoint.handle(request);
        if (reply.range || reply.body.size() < kSmallestCompressed) return reply;
        const std::string* accepted = request.header("Accept-Encoding");
        if (reply.contentType.starts_with("application/json") && accepted && acceptsGzip(*accepted)) {
            reply.body = gzip(reply.body);
            reply.headers.emplace_back("Content-Encoding", "gzip");
            reply.headers.emplace_back("Vary", "Accept-Encoding");
        }
        return reply;
    } catch (...) {
        return refusal(request);
    }
}

}  // namespace tarnwell::service
