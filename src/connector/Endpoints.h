#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/UrlLoader.h"

namespace tarnwell {

struct ConnectorIdentity;

/// What a request about a share or a file of it needs to know, copied out of the store.
struct ShareAddress {
    std::string shareId;
    std::string vshareId;
    std::string shareName;
    std::string domainId;
    std::string gateWayUrl;
    std::string aclToken;  ///< a secret
};

struct LoginCredentials {
    std::string username;
    std::string password;  ///< a secret
    std::string deviceId;

    bool operator==(const LoginCredentials&) const = default;
};

/// The service's endpoints: the one place that knows hosts, paths, header names and time-outs. Pure
/// functions.
namespace endpoints {

inline constexpr std::chrono::seconds kLoginTimeout{15};
inline constexpr std::chrono::seconds kDownloadTimeout{15};
inline constexpr std::chrono::seconds kRangeReadTimeout{10};
inline constexpr std::chrono::seconds kFileApiTimeout{10};
/// A program waits for the range: a service that lets its bytes trickle in (less than 1 MiB in this time)
/// fails it.
inline constexpr std::chrono::seconds kRangeReadLimit{60};

/// "clientgateway." + a domain's address: logins, catch-up, client API.
[[nodiscard]] std::string gatewayHost(std::string_view address);
/// "filecache01." + a domain's address: file contents, file API.
[[nodiscard]] std::string fileCacheHost(std::string_view address);

/// Which domain a user belongs to.
[[nodiscard]] UrlRequest getUserDomain(std::string_view globalHost, std::string_view userEmail);
/// The global login, at the user's domain or, when that is unknown, at the global host.
[[nodiscard]] UrlRequest domainGlobalLogin(std::string_view userDomain, const LoginCredentials& credentials,
                                           const ConnectorIdentity& identity);
[[nodiscard]] UrlRequest globalHostLogin(std::string_view globalHost, const LoginCredentials& credentials,
                                         const ConnectorIdentity& identity);
/// The login to one domain's gateway.
[[nodiscard]] UrlRequest clientLogin(std::string_view domainUrl, std::string_view userName,
                                     std::string_view userDomainToken);
/// One page of a share's changes.
[[nodiscard]] UrlRequest catchUp(const ShareAddress& share, std::int32_t tick, std::int32_t pageSize);
/// The bytes [position, position + chunk) of a file version.
[[nodiscard]] UrlRequest read(const ShareAddress& share, std::string_view uploadName, std::int64_t position,
                              std::uint32_t chunk, std::chrono::seconds timeout);
/// The same for a program that waits: with a time-out of its own and the limit.
[[nodiscard]] UrlRequest rangeRead(const ShareAddress& share, std::string_view uploadName,
                                   std::int64_t position, std::uint32_t chunk);
/// The same through the file API.
[[nodiscard]] UrlRequest fileApiRead(const ShareAddress& share, std::string_view userName,
                                     std::string_view uploadName, std::int64_t position, std::uint32_t count);

/// One journal event, its JSON text, to the file API.
[[nodiscard]] UrlRequest fileApiEvent(const ShareAddress& share, std::string_view eventJson);
/// The bytes from `position` on of the transfer `token`.
[[nodiscard]] UrlRequest fileApiChunk(const ShareAddress& share, std::string_view token,
                                      std::int64_t position, std::string bytes, std::string_view hash,
                                      std::chrono::seconds timeout);

/// A command of the client API, and the record of its method, as JSON texts.
[[nodiscard]] UrlRequest clientApi(std::string_view gateWayUrl, std::string_view command,
                                   std::string_view request);
/// The link commands: another spelling of the path, and the record goes as it is.
[[nodiscard]] UrlRequest webClientLink(std::string_view domainUrl, std::string_view command,
                                       std::string_view request);
[[nodiscard]] UrlRequest publicLink(std::string_view domainUrl, std::string_view command,
                                    std::string_view request);
/// What a browser opens: the web client with an encrypted direct link, already value-encoded, and a public
/// link.
[[nodiscard]] std::string webClientAddress(std::string_view domainUrl, std::string_view encodedLink);
[[nodiscard]] std::string publicLinkAddress(std::string_view domainUrl, bool isFile, std::string_view linkId);

}  // namespace endpoints

}  // namespace tarnwell
