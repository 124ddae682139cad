#pragma once

#include <boost/describe.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "util/Date.h"

namespace tarnwell {

/// The user's rights in a share.
struct ShareACL {
    std::optional<std::string> ShareId;
    std::optional<std::int32_t> AclType;  ///< 0: read-only
    std::optional<std::string> ShareShareRights;
    std::optional<std::string> FileShareRights;
    std::optional<std::string> AclToken;  ///< proves the right on every request; a secret, never logged
};
BOOST_DESCRIBE_STRUCT(ShareACL, (), (ShareId, AclType, ShareShareRights, FileShareRights, AclToken))

/// One share that the user can reach: a top-level folder of the drive, named `DisplayName`.
///
/// A share in the store is guarded by the store's lock.
struct ManagedShare {
    std::optional<std::string> VshareId;
    std::optional<std::string> ShareId;  ///< key of the share, and `ParrentId` of its top-level items
    std::optional<std::string> VshareName;
    std::optional<std::string> ShareName;
    std::optional<std::string> TransmitId;
    std::optional<std::string> AliasName;
    std::optional<std::string> DisplayName;  ///< first path component in the drive; unique among shares
    std::int32_t Status = 0;
    bool ShareChanged = false;
    bool Online = false;
    std::int32_t TransmitCounter = 0;         ///< operations in flight
    std::int32_t LastApplyedJournalTick = 0;  ///< changes of the share are applied up to this tick
    std::optional<double> LastUpdate;
    std::optional<Date> LastBufferEntry;
    std::optional<std::vector<std::string>> ConflicTnternalId;
    std::optional<std::string> DomainId;
    std::optional<ShareACL> ShareAcl;
    std::optional<std::string> GateWayUrl;  ///< address of the domain that serves the share
    std::optional<Date> NextCathUp;
    std::optional<Date> CreationDate;
    std::optional<Date> ModificationDate;
    std::optional<std::string> CompanyName;
    std::optional<bool> Synchronize;  ///< last step of the inheritance of TWVirtualFile::Synchronize
};
BOOST_DESCRIBE_STRUCT(ManagedShare, (),
                      (VshareId, ShareId, VshareName, ShareName, TransmitId, AliasName, DisplayName, Status,
                       ShareChanged, Online, TransmitCounter, LastApplyedJournalTick, LastUpdate,
                       LastBufferEntry, ConflicTnternalId, DomainId, ShareAcl, GateWayUrl, NextCathUp,
                       CreationDate, ModificationDate, CompanyName, Synchronize))

using ManagedSharePtr = std::shared_ptr<ManagedShare>;

}  // namespace tarnwell
