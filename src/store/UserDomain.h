#pragma once

#include <boost/describe.hpp>
#include <optional>
#include <string>

namespace tarnwell {

/// One server domain. `Url` is a DNS name suffix (a port may follow), never a full URL.
struct Domain {
    std::optional<std::string> DomainId;
    std::optional<std::string> Url;
    std::optional<std::string> DomainName;
    std::optional<std::string> ResellerId;
};
BOOST_DESCRIBE_STRUCT(Domain, (), (DomainId, Url, DomainName, ResellerId))

/// The user's tie to one domain.
struct UserDomain {
    std::optional<struct Domain> Domain;
    std::optional<std::string> UserDomainToken;  ///< a secret, never logged
};
BOOST_DESCRIBE_STRUCT(UserDomain, (), (Domain, UserDomainToken))

}  // namespace tarnwell
