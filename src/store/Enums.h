#pragma once

#include <cstdint>

namespace tarnwell {

/// What a local change is. The values are the service's; the spelling of FileNotPressent is the wire's.
enum LocalJournalType : std::int32_t {
    kJournalCreate = 0,
    kJournalDelete = 1,
    kJournalRename = 2,
    kJournalUpdate = 3,
    kJournalFileAttributes = 4,
    kJournalCatchUp = 5,
    kJournalDuplicate = 6,
    kJournalConflictNewVersion = 7,
    kJournalFileNotPressent = 8,
    kJournalIgnoreDelete = 9,
    kJournalRenameConflict = 10,
    kJournalRecover = 11,
    kJournalRestore = 12,
};

/// `AclType` of a share in which the user may not write.
inline constexpr std::int32_t kAclReadOnly = 0;

/// `Attributes` of items that the client creates itself.
inline constexpr std::int32_t kAttributesFolder = 16;
inline constexpr std::int32_t kAttributesFile = 128;

/// `POSIXPermissions` of a record that came without them.
inline constexpr std::int32_t kDefaultFilePermissions = 0600;
inline constexpr std::int32_t kDefaultFolderPermissions = 0700;

}  // namespace tarnwell
