#pragma once

#include <boost/describe.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/ManagedShare.h"
#include "store/UserDomain.h"

/// The replies of the login requests. Keys are the service's, misspellings included; every field is optional.
namespace tarnwell {

/// Contact data of a reseller; kept, not used.
struct MetaDatas {
    std::optional<std::string> Address, ZipCode, City, Country, Phone, HomePage, Fax, NameContact,
        EmailContact, MandrillKey, MailServiceEmail, EmailCountry;
};
BOOST_DESCRIBE_STRUCT(MetaDatas, (),
                      (Address, ZipCode, City, Country, Phone, HomePage, Fax, NameContact, EmailContact,
                       MandrillKey, MailServiceEmail, EmailCountry))

/// The reseller (branding) of the user.
struct Resellers {
    std::optional<std::string> ResellerId, ExternalId, ParrentResellerId, ProviderId, Name,
        ResellerHomePageUrl, CompanyHomePageUrl, BrowserClientHomaPage, SkinUrl;
    std::optional<std::int32_t> SkinVersion;
    std::optional<double> CreateTime;
    std::optional<MetaDatas> MetaData;
};
BOOST_DESCRIBE_STRUCT(Resellers, (),
                      (ResellerId, ExternalId, ParrentResellerId, ProviderId, Name, ResellerHomePageUrl,
                       CompanyHomePageUrl, BrowserClientHomaPage, SkinUrl, SkinVersion, CreateTime, MetaData))

struct Users {
    std::optional<std::string> UserId, Email, AltMail, Alias, Name, ResellerId;
    std::optional<double> CreateTime, LastLoginTime;
    std::optional<std::int32_t> Status;
};
BOOST_DESCRIBE_STRUCT(Users, (),
                      (UserId, Email, AltMail, Alias, Name, ResellerId, CreateTime, LastLoginTime, Status))

/// Answer of the global login. `ErrorCode`: "U100" success, "U101" wrong credentials, "U107" unknown device.
struct GlobalLoginResponce {
    std::optional<UserDomain> PrimaryUserDomain;
    std::optional<std::vector<UserDomain>> UserDomains;
    std::optional<std::string> DeviceId;
    std::optional<std::string> ErrorCode;
    std::optional<std::string> ConfirmKey;
    std::optional<bool> Wipe;
    std::optional<Users> User;
    std::optional<Resellers> Reseller;
};
BOOST_DESCRIBE_STRUCT(GlobalLoginResponce, (),
                      (PrimaryUserDomain, UserDomains, DeviceId, ErrorCode, ConfirmKey, Wipe, User, Reseller))

/// Answer of a gateway login: the domain's shares.
struct ClientLoginResponse {
    std::optional<std::string> User;
    std::optional<std::vector<ManagedSharePtr>> ManagedShares;
    std::optional<std::string> LoginTokenn;
    std::optional<std::string> Cookie;
};
BOOST_DESCRIBE_STRUCT(ClientLoginResponse, (), (User, ManagedShares, LoginTokenn, Cookie))

}  // namespace tarnwell
