#pragma once

#include <boost/describe.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "util/Date.h"
#include "util/SharedString.h"
#include "util/StoredKey.h"

namespace tarnwell {

/// One file or folder of a share, as the service, the store's files and the drive know it.
///
/// Identity is `InternalName`; the parent link is `ParrentId` (a folder's `InternalName`, or the share's
/// `ShareId` at a share's root). Field names are the service's JSON keys, misspellings included.
///
/// A record that is in the store is guarded by the store's lock; a fresh one belongs to its maker.
struct TWVirtualFile {
    SharedString ShareId;
    SharedString UploadUrl;
    SharedString UploadName;  ///< the content blob of the current version
    SharedString ArchivedFullName;
    SharedString InternalName;
    SharedString ParrentId;
    SharedString PublicName;
    SharedString User;
    SharedString LastUploadName;
    SharedString FilehHash;
    std::int32_t Tick = 0;  ///< server sequence number, not a time
    std::int32_t ShareTick = 0;
    std::int32_t UpdateTick = 0;
    std::int32_t CreateTick = 0;
    std::optional<std::int64_t> EndOfFile;       ///< bytes
    std::optional<std::int64_t> AllocationSize;  ///< bytes
    Date CreationTime{};
    Date LastAccessTime{};
    Date LastWriteTime{};
    std::optional<std::int32_t> Attributes;
    std::optional<std::int32_t> POSIXPermissions;
    std::optional<Date> DownloadDate;  ///< absent: no cached copy counts as downloaded
    bool Local = false;
    bool Deleted = false;
    bool IsFile = false;
    std::optional<bool> Synchronize;     ///< absent: inherited from the nearest ancestor, finally the share
    std::optional<bool> LocallyUpdated;  ///< contents changed through the drive and not yet sent
    SharedString FullPath;               ///< drive path; empty while it cannot be formed. Never saved.
    std::optional<bool> OnlyLocal;       ///< mark of a running full refresh. Never saved.

    static constexpr std::string_view notInJson[] = {"LocallyUpdated", "FullPath", "OnlyLocal"};

    /// The record in the store's files: its keys in their order. Checked against the fields by StoredForm.h.
    static constexpr StoredKey storedKeys[] = {
        {"ShareId", Stored::kAlways},
        {"UploadUrl", Stored::kWhenPresent},
        {"UploadName", Stored::kWhenPresent},
        {"LastUploadName", Stored::kWhenPresent},
        {"ArchivedFullName", Stored::kWhenPresent},
        {"InternalName", Stored::kAlways},
        {"ParrentId", Stored::kAlways},
        {"PublicName", Stored::kAlways},
        {"FilehHash", Stored::kWhenPresent},
        {"User", Stored::kWhenPresent},
        {"Tick", Stored::kAlways},
        {"ShareTick", Stored::kAlways},
        {"UpdateTick", Stored::kAlways},
        {"CreateTick", Stored::kAlways},
        {"EndOfFile", Stored::kAlways},
        {"AllocationSize", Stored::kAlways},
        {"CreationTime", Stored::kAlways},
        {"LastAccessTime", Stored::kAlways},
        {"LastWriteTime", Stored::kAlways},
        {"Attributes", Stored::kWhenPresent},
        {"POSIXPermissions", Stored::kWhenPresent},
        {"Local", Stored::kAlways},
        {"Deleted", Stored::kAlways},
        {"IsFile", Stored::kAlways},
        {"Synchronize", Stored::kWhenPresent},
        {"DownloadDate", Stored::kWhenPresent},
        {"LocallyUpdated", Stored::kWhenPresent},
    };
    static constexpr std::string_view notStored[] = {"FullPath", "OnlyLocal"};

    [[nodiscard]] std::int64_t size() const { return AllocationSize.value_or(0); }

    /// Where the record stands in its parent's children list (kept by DirectoryItems) and in its share's list
    /// (kept by ShareFiles); never copied.
    struct ListPosition {
        std::uint32_t index = 0;
        std::uint32_t inShare = 0;
        ListPosition() = default;
        ListPosition(const ListPosition&) {}
        ListPosition& operator=(const ListPosition&) { return *this; }
    } listPosition;
};

using TWVirtualFilePtr = std::shared_ptr<TWVirtualFile>;

BOOST_DESCRIBE_STRUCT(TWVirtualFile, (),
                      (ShareId, UploadUrl, UploadName, ArchivedFullName, InternalName, ParrentId, PublicName,
                       User, LastUploadName, FilehHash, Tick, ShareTick, UpdateTick, CreateTick, EndOfFile,
                       AllocationSize, CreationTime, LastAccessTime, LastWriteTime, Attributes,
                       POSIXPermissions, DownloadDate, Local, Deleted, IsFile, Synchronize, LocallyUpdated,
                       FullPath, OnlyLocal))

}  // namespace tarnwell
