#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "service/Database.h"
#include "service/MetadataStore.h"

namespace tarnwell::service {

/// MetadataStore in one SQLite file in write-ahead mode: readers never wait, one writer at a time over all
/// processes.
///
/// Each call borrows a connection for its duration: the writer's own one under `writing_`, readers any free
/// one. Tokens are kept as they are, because the login hands them out again; the file's mode (0600) is what
/// guards them.
class SqliteMetadataStore final : public MetadataStore {
  public:
    /// Opens or makes the file, and brings it to the present schema. Throws ServiceError.
    /// `beforeChange` is called before each write transaction.
    explicit SqliteMetadataStore(std::string path, std::function<void()> beforeChange = {});
    ~SqliteMetadataStore() override;

    DomainInfo addDomain(const std::string& name, const std::string& address) override;
    std::vector<DomainInfo> domains() override;
    std::optional<DomainInfo> domainWithId(std::string_view id) override;
    std::optional<DomainInfo> domainNamed(std::string_view name) override;
    std::optional<DomainInfo> domainOfHost(std::string_view host) override;

    UserInfo addUser(const std::string& email, const std::string& domainId,
                     const std::string& password) override;
    void setPassword(const std::string& userId, const std::string& password) override;
    std::vector<UserInfo> users() override;
    std::optional<UserInfo> userWithEmail(std::string_view email) override;
    std::vector<DomainInfo> domainsOf(const UserInfo& user) override;

    DeviceInfo addDevice(const std::string& userId, const std::string& name,
                         const std::string& system) override;
    std::vector<DeviceInfo> devicesOf(const std::string& userId) override;
    std::optional<DeviceInfo> device(const std::string& userId, std::string_view deviceId) override;
    int wipeDevices(const std::string& userId, const std::optional<std::string>& deviceId) override;

    ShareInfo addShare(const std::string& name, const std::string& domainId) override;
    void renameShare(const std::string& shareId, const std::string& name) override;
    std::vector<ShareInfo> shares() override;
    std::optional<ShareInfo> shareWithId(std::string_view shareId) override;
    void grant(const std::string& shareId, const std::string& userId, bool readOnly) override;
    bool revoke(const std::string& shareId, const std::string& userId) override;

    std::string domainToken(const std::string& deviceId, const std::string& domainId) override;
    std::optional<DeviceInfo> deviceOfToken(std::string_view email, const std::string& domainId,
                                            std::string_view token) override;
    std::vector<ShareAccess> accessOf(const DeviceInfo& device, const std::string& domainId) override;
    std::optional<AccessRight> rightOfToken(std::string_view aclToken) override;
    std::optional<AccessRight> rightOfDevice(const std::string& deviceId,
                                             const std::string& shareId) override;

    std::optional<OSXCatchUpResponse> changesSince(const std::string& shareId, std::int32_t from,
                                                   std::int32_t take, const std::string& uploadUrl) override;
    std::optional<ContentsInfo> contents(std::string_view uploadName) override;
    std::vector<std::string> unnamedContents(std::vector<std::string> names) override;
    std::vector<std::string> faults() override;
    [[nodiscard]] bool damaged() const override { return damaged_; }
    void change(const std::string& shareId, const std::function<void(ShareChange&)>& work,
                Durability durability) override;
    void view(const std::string& shareId, const std::function<void(ShareView&)>& work) override;

    std::optional<TransferInfo> transfer(std::string_view digest) override;
    void touchTransfer(std::string_view digest) override;
    void dropTransfer(std::string_view digest) override;
    void dropTransfers(Date before) override;

    void addLink(const LinkInfo& link) override;
    std::optional<LinkInfo> link(std::string_view digest) override;
    std::vector<LinkInfo> links() override;
    bool revokeLink(std::int64_t number) override;
    bool useLink(std::string_view digest) override;
    void dropLinks(Date expiredBefore) override;

    std::vector<std::string> retiredContents(Date before, int limit) override;
    void forgetContents(const std::vector<std::string>& uploadNames) override;

  private:
    /// A connection for reading, given back at the end of its scope.
    class Reader {
      public:
        explicit Reader(SqliteMetadataStore& store);
        ~Reader();
        Reader(const Reader&) = delete;
        Reader& operator=(const Reader&) = delete;
        Database* operator->() { return connection_.get(); }
        Database& operator*() { return *connection_; }

      private:
        SqliteMetadataStore& store_;
        std::unique_ptr<Database> connection_;
    };
    /// The writing connection and its lock.
    class Writer {
      public:
        /// Throws DamagedError.
        explicit Writer(SqliteMetadataStore& store);
        Database* operator->() { return &connection_; }
        Database& operator*() { return connection_; }

      private:
        std::unique_lock<std::mutex> lock_;
        Database& connection_;
    };

    /// A process that was killed may have committed what its sync never took to the disk; readers see it, and
    /// repeated requests are answered from it.
    void syncRecovered() const;

    const std::string path_;
    const std::function<void()> beforeChange_;
    std::atomic<bool> damaged_ = false;  ///< set by any connection, for good

    std::mutex writing_;
    std::unique_ptr<Database> writer_;  ///< guarded by writing_

    std::mutex pool_;
    std::vector<std::unique_ptr<Database>> readers_;  ///< idle ones; guarded by pool_
};

}  // namespace tarnwell::service
