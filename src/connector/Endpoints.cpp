#include "connector/Endpoints.h"

#include "connector/ConnectorEnvironment.h"
#include "connector/UrlUtil.h"
#include "util/Format.h"
#include "util/TWUtils.h"

namespace tarnwell::endpoints {

namespace {

/// More than any login answer; a page of 10,000 records is about 10 MB.
constexpr std::uint64_t kMaximumLoginReply = 16u << 20;
constexpr std::uint64_t kMaximumPage = 256u << 20;
constexpr std::uint64_t kMaximumDomainReply = 4096;
/// One record in and out.
constexpr std::uint64_t kMaximumEventReply = 1u << 20;
/// Room for a range reply that is a little longer than asked, and for the text of an error page.
constexpr std::uint64_t kRangeSlack = 64u << 10;

/// A value is put into a URL as it stands, but for the characters that would end the URL or make it none.
std::string inUrl(std::string_view value) {
    std::string out;
    for (const char c : value) {
        if (c == '%' || c == '[' || c == ']')
            out += c;
        else
            out += percentEscapes({&c, 1});
    }
    return out;
}

/// The device's name is escaped twice over: once as text, then as a value.
std::string deviceName(std::string_view name) {
    const std::string encoded = UrlUtil::encodeValue(percentEscapes(name));
    return encoded.empty() ? "Unknown" : encoded;
}

UrlRequest login(std::string url, const LoginCredentials& credentials, const ConnectorIdentity& identity) {
    UrlRequest request;
    request.url = std::move(url);
    request.headers = {{"useremail", credentials.username},
                       {"password2", base64Encode(credentials.password)},
                       {"devicetype", "Mac"},
                       {"deviceid", credentials.deviceId},
                       {"devicename", deviceName(identity.deviceName)},
                       {"deviceos", format("Mac OS X %@", identity.macosVersion)},
                       {"applicationversion", identity.appVersion}};
    request.idleTimeout = kLoginTimeout;
    request.maximumReplyBytes = kMaximumLoginReply;
    request.acceptCompressed = true;
    return request;
}

}  // namespace

std::string gatewayHost(std::string_view address) {
    return "clientgateway." + std::string(address);
}

std::string fileCacheHost(std::string_view address) {
    return "filecache01." + std::string(address);
}

UrlRequest getUserDomain(std::string_view globalHost, std::string_view userEmail) {
    UrlRequest request;
    request.url = format("https://%@/GetUserDomain.aspx?useremail=%@", globalHost, inUrl(userEmail));
    request.idleTimeout = kLoginTimeout;
    request.maximumReplyBytes = kMaximumDomainReply;
    return request;
}

UrlRequest domainGlobalLogin(std::string_view userDomain, const LoginCredentials& credentials,
                             const ConnectorIdentity& identity) {
    return login(format("https://%@/login2.aspx", gatewayHost(userDomain)), credentials, identity);
}

UrlRequest globalHostLogin(std::string_view globalHost, const LoginCredentials& credentials,
                           const ConnectorIdentity& identity) {
    return login(format("https://%@/GlobalLogin.aspx", globalHost), credentials, identity);
}

UrlRequest clientLogin(std::string_view domainUrl, std::string_view userName,
                       std::string_view userDomainToken) {
    UrlRequest request;
    request.url = format("https://%@/ClientLogin.aspx?userEmail=%@&token=%@", gatewayHost(domainUrl),
                         inUrl(userName), inUrl(userDomainToken));
    request.maximumReplyBytes = kMaximumLoginReply;
    request.acceptCompressed = true;
    return request;
}

UrlRequest catchUp(const ShareAddress& share, std::int32_t tick, std::int32_t pageSize) {
    UrlRequest request;
    request.method = "POST";
    request.url = format("https://%@/CatchUp7.aspx", gatewayHost(share.gateWayUrl));
    request.headers = {{"share", share.shareId},
                       {"token", UrlUtil::encodeValue(share.aclToken)},
                       {"vshareId", share.vshareId},
                       {"tickfrom", std::to_string(tick)},
                       {"tickstart", std::to_string(tick)},
                       {"ticktake", std::to_string(pageSize)}};
    request.maximumReplyBytes = kMaximumPage;
    request.acceptCompressed = true;
    return request;
}

UrlRequest read(const ShareAddress& share, std::string_view uploadName, std::int64_t position,
                std::uint32_t chunk, std::chrono::seconds timeout) {
    UrlRequest request;
    request.url = format("https://%@/read.aspx", fileCacheHost(share.gateWayUrl));
    request.headers = {{"Token", UrlUtil::encodeValue(share.aclToken)},
                       {"fileName", std::string(uploadName)},
                       {"position", std::to_string(position)},
                       {"chunk", std::to_string(chunk)}};
    request.idleTimeout = timeout;
    request.maximumReplyBytes = chunk + kRangeSlack;
    return request;
}

UrlRequest rangeRead(const ShareAddress& share, std::string_view uploadName, std::int64_t position,
                     std::uint32_t chunk) {
    UrlRequest request = read(share, uploadName, position, chunk, kRangeReadTimeout);
    request.totalTimeout = kRangeReadLimit;
    return request;
}

UrlRequest fileApiRead(const ShareAddress& share, std::string_view userName, std::string_view uploadName,
                       std::int64_t position, std::uint32_t count) {
    UrlRequest request;
    request.method = "POST";
    request.url = format("https://%@/clientfileapi.ashx", fileCacheHost(share.gateWayUrl));
    request.body = format("action=read&file=%@&shareId=%@&position=%lld&count=%u", uploadName, share.shareId,
                          position, count);
    request.headers = {{"shareToken", UrlUtil::encodeValue(share.aclToken)},
                       {"userOrigin", std::string(userName)},
                       {"Content-Type", "application/x-www-form-urlencoded"},
                       {"Content-Length", std::to_string(request.body.size())}};
    request.idleTimeout = kRangeReadTimeout;
    request.maximumReplyBytes = count + kRangeSlack;
    return request;
}

UrlRequest fileApiEvent(const ShareAddress& share, std::string_view eventJson) {
    UrlRequest request;
    request.method = "POST";
    request.url = format("https://%@/clientfileapi.ashx", fileCacheHost(share.gateWayUrl));
    request.body = "Request=" + UrlUtil::encodeValue(eventJson);
    request.headers = {{"isRequest", "true"},
                       {"Content-Type", "application/x-www-form-urlencoded"},
                       {"Content-Length", std::to_string(request.body.size())}};
    request.idleTimeout = kFileApiTimeout;
    request.maximumReplyBytes = kMaximumEventReply;
    return request;
}

UrlRequest fileApiChunk(const ShareAddress& share, std::string_view token, std::int64_t position,
                        std::string bytes, std::string_view hash, std::chrono::seconds timeout) {
    UrlRequest request;
    request.method = "POST";
    request.url = format("https://%@/clientfileapi.ashx", fileCacheHost(share.gateWayUrl));
    request.body = std::move(bytes);
    request.headers = {{"token", std::string(token)},
                       {"position", std::to_string(position)},
                       {"size", std::to_string(request.body.size())},
                       {"hash", std::string(hash)},
                       {"Content-Length", std::to_string(request.body.size())},
                       {"Content-Type", "application/octet-stream"}};
    request.idleTimeout = timeout;
    request.maximumReplyBytes = kMaximumEventReply;
    return request;
}

namespace {

UrlRequest clientApiRequest(std::string_view address, std::string_view path, std::string_view command,
                            std::string request) {
    UrlRequest call;
    call.method = "POST";
    call.url = format("https://%@%@", gatewayHost(address), path);
    call.headers = {{"command", std::string(command)}, {"request", std::move(request)}};
    call.maximumReplyBytes = kMaximumEventReply;
    return call;
}

}  // namespace

UrlRequest clientApi(std::string_view gateWayUrl, std::string_view command, std::string_view request) {
    constexpr std::string_view path = "/clientapi.aspx";
    UrlRequest call = clientApiRequest(gateWayUrl, path, command, percentEncodeHeaderParam(request));
    call.headers.emplace_back("uri", path);
    return call;
}

UrlRequest webClientLink(std::string_view domainUrl, std::string_view command, std::string_view request) {
    return clientApiRequest(domainUrl, "/clientapi.aspx", command, std::string(request));
}

UrlRequest publicLink(std::string_view domainUrl, std::string_view command, std::string_view request) {
    return clientApiRequest(domainUrl, "/ClientApi.aspx", command, std::string(request));
}

std::string webClientAddress(std::string_view domainUrl, std::string_view encodedLink) {
    return format("https://webclient.%@/default.aspx?sas=%@", domainUrl, encodedLink);
}

std::string publicLinkAddress(std::string_view domainUrl, bool isFile, std::string_view linkId) {
    return format("https://webclient.%@/publiclink.aspx?%@=%@", domainUrl, isFile ? "saf2" : "sao2", linkId);
}

}  // namespace tarnwell::endpoints
