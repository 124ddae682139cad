#pragma once

#include <cstdint>
#include <string>

#include "service/Database.h"
#include "service/MetadataStore.h"

namespace tarnwell::service {

/// ShareChange on a connection that is inside a transaction of its caller: a write transaction, unless it is
/// only looked at.
class SqliteShareChange final : public ShareChange {
  public:
    /// Throws ServiceError when there is no such share.
    SqliteShareChange(Database& database, const std::string& shareId);

    [[nodiscard]] const ShareInfo& share() const override { return share_; }
    std::int32_t nextTick() override;
    TWVirtualFilePtr find(std::string_view internalName) override;
    TWVirtualFilePtr childNamed(std::string_view parent, std::string_view publicName) override;
    std::vector<TWVirtualFilePtr> children(std::string_view parent) override;
    void put(const TWVirtualFile& record) override;
    Authorship authorship(std::string_view internalName) override;
    void setAuthorship(std::string_view internalName, const Authorship& authorship) override;
    std::optional<ContentsInfo> contents(std::string_view uploadName) override;
    void addContents(const ContentsInfo& contents) override;
    void retireContents(std::string_view uploadName) override;
    void addTransfer(const TransferInfo& transfer) override;
    void finishTransfer(std::string_view digest) override;

    /// Writes the share's tick counter, if it moved. Call once, before the commit.
    void finish();

  private:
    Database& database_;
    ShareInfo share_;
    std::int64_t row_ = 0;
    std::int32_t storedTick_ = 0;
    SharedString shareId_;
};

/// The columns of `items` that itemFrom() reads, in its order.
#define TARNWELL_ITEM_COLUMNS                                                                            \
    "internal_name, parent, public_name, owner, upload_name, last_upload_name, hash, tick, share_tick, " \
    "update_tick, create_tick, size, creation_time, access_time, write_time, attributes, permissions, "  \
    "deleted, is_file"
TWVirtualFilePtr itemFrom(const Rows& rows, const SharedString& shareId);

std::optional<ContentsInfo> contentsNamed(Database& database, std::string_view uploadName);

}  // namespace tarnwell::service
