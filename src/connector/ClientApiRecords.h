#pragma once

#include <boost/describe.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "store/TWVirtualFile.h"

/// The records of the client API: operations on items, and direct links. Keys are the service's, misspellings
/// included.
namespace tarnwell {

struct RequestCommand {
    std::string Token;  ///< of the share, or of the domain for a log-in link; a secret, never logged
    std::string UserId;
    std::string Method;
    std::optional<std::string> DeviceId;
    std::optional<std::string> Ip;
};
BOOST_DESCRIBE_STRUCT(RequestCommand, (), (Token, UserId, Method, DeviceId, Ip))

struct CreateFolderRequest {
    std::string Parent;  ///< a folder's internal name, or the share's id
    std::string ShareId;
    std::optional<std::string> Vshare;
    std::string FolderName;
};
BOOST_DESCRIBE_STRUCT(CreateFolderRequest, (), (Parent, ShareId, Vshare, FolderName))

struct DeleteRequest {
    std::string TwVirtualFileId;
    std::string ShareId;
    std::optional<std::string> Vshare;
    std::optional<std::int32_t> Tick;  ///< what the device knew of the item
};
BOOST_DESCRIBE_STRUCT(DeleteRequest, (), (TwVirtualFileId, ShareId, Vshare, Tick))

struct RenameRequest {
    std::string TwVirtualFileId;
    std::string ShareId;
    std::optional<std::string> Vshare;
    std::string Rename;
};
BOOST_DESCRIBE_STRUCT(RenameRequest, (), (TwVirtualFileId, ShareId, Vshare, Rename))

struct MoveRequest {
    std::string TwVirtualFileId;
    std::string ShareId;
    std::optional<std::string> Vshare;
    std::string NewParentId;
};
BOOST_DESCRIBE_STRUCT(MoveRequest, (), (TwVirtualFileId, ShareId, Vshare, NewParentId))

/// `ResponceMessage` begins with "101:Ok" for success.
struct GeneralResponce {
    std::string ResponceMessage;
};
BOOST_DESCRIBE_STRUCT(GeneralResponce, (), (ResponceMessage))

struct CreateFolderResponse : GeneralResponce {
    TWVirtualFilePtr responce;
};
BOOST_DESCRIBE_STRUCT(CreateFolderResponse, (GeneralResponce), (responce))

struct RenameResponse : GeneralResponce {
    TWVirtualFilePtr responce;
};
BOOST_DESCRIBE_STRUCT(RenameResponse, (GeneralResponce), (responce))

struct DeleteResponse : GeneralResponce {
    TWVirtualFilePtr responce;
};
BOOST_DESCRIBE_STRUCT(DeleteResponse, (GeneralResponce), (responce))

/// Its record has the one key that is spelled right.
struct MoveResponse : GeneralResponce {
    TWVirtualFilePtr response;
};
BOOST_DESCRIBE_STRUCT(MoveResponse, (GeneralResponce), (response))

/// What a direct link is for.
enum DirectLinkType : std::int32_t {
    kLinkWebClient = 2,
    kLinkFile = 3,
    kLinkFolder = 4,
};

struct CreateDirectLinkRequest {
    std::int32_t LinkType = 0;
    std::int64_t MinutesExpire = 0;  ///< kLinkUnlimited: never
    std::int64_t MaxUse = 0;         ///< kLinkUnlimited: any number
    std::string JsonData;            ///< the JSON of one of the tokens below
};
BOOST_DESCRIBE_STRUCT(CreateDirectLinkRequest, (), (LinkType, MinutesExpire, MaxUse, JsonData))
inline constexpr std::int64_t kLinkUnlimited = 4294967295;

struct CreateDirectLinkResponce : GeneralResponce {
    std::optional<std::string> responce;
    std::optional<std::string> LinkId;
};
BOOST_DESCRIBE_STRUCT(CreateDirectLinkResponce, (GeneralResponce), (responce, LinkId))

/// What is encrypted into the address of a log-in link.
struct DirectLinkUrl {
    std::string DomainToken, DirectLinkId, UserId;
};
BOOST_DESCRIBE_STRUCT(DirectLinkUrl, (), (DomainToken, DirectLinkId, UserId))

struct ShareAShareToken {
    std::string A;  ///< user name
    std::string B;  ///< password
    std::string C;  ///< parameter of the function
    std::string D;  ///< time stamp
    std::optional<std::string> F;
};
BOOST_DESCRIBE_STRUCT(ShareAShareToken, (), (A, B, C, D, F))

struct ShareFileToken2 {
    std::string A;                 ///< internal name of the item
    std::string B;                 ///< share
    std::optional<std::string> C;  ///< virtual share
    std::string D;                 ///< token of the share
    std::string E;                 ///< user name
};
BOOST_DESCRIBE_STRUCT(ShareFileToken2, (), (A, B, C, D, E))

struct ShareFolderToken2 : ShareFileToken2 {};
BOOST_DESCRIBE_STRUCT(ShareFolderToken2, (ShareFileToken2), ())

}  // namespace tarnwell
