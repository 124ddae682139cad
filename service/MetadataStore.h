#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "connector/OSXCatchUpResponse.h"
#include "store/TWVirtualFile.h"

namespace tarnwell::service {

struct DomainInfo {
    std::string id;
    std::string name;
    std::string host;     ///< lower case, without port
    std::string address;  ///< as given to clients: host suffix, a port may follow
};

struct UserInfo {
    std::string id;
    std::string email;
    std::string domainId;
    std::string password;  ///< a hash; see verifyPassword()
    Date created{};
};

struct DeviceInfo {
    std::string id;
    std::string userId;
    std::string name;
    std::string system;
    Date created{};
    bool wipe = false;  ///< the device is told to forget its login whenever it asks
};

struct ShareInfo {
    std::string id;  ///< `ShareId` on the wire
    std::string name;
    std::string domainId;
    std::int32_t tick = 0;  ///< the last tick given
};

/// A share as one user on one device may use it.
struct ShareAccess {
    ShareInfo share;
    bool readOnly = true;
    std::string token;  ///< a secret, never logged
};

/// What a share token proves.
struct AccessRight {
    std::string shareId;
    std::string userId;
    std::string email;
    std::string deviceId;
    bool readOnly = true;
};

struct ContentsInfo {
    std::string uploadName;
    std::string shareId;
    std::int64_t size = 0;
    std::string hash;
    std::string item = {};  ///< internal name of the item that they were stored for; empty: not known
};

/// A link to something, for whoever knows its id. Only the id's digest is kept.
struct LinkInfo {
    std::int64_t number = 0;  ///< for those who manage links; never given twice
    std::string digest;
    std::int32_t kind = 0;  ///< a DirectLinkType
    std::string userId;     ///< whose it is; it ends with the user's right in the share
    std::string email;
    std::string deviceId;  ///< of a log-in link
    std::string domainId;
    std::string shareId;    ///< of a link to an item
    std::string item;       ///< internal name, or the share's id
    std::string parameter;  ///< of a log-in link: what to show
    Date created{};
    std::optional<Date> expires;
    std::int64_t uses = 0;
    std::optional<std::int64_t> maxUses;
    bool revoked = false;
};

/// An upload that was announced. `digest` is that of its token.
struct TransferInfo {
    std::string digest;
    std::string shareId;
    std::string deviceId;
    std::int32_t event = 0;  ///< a LocalJournalType: create or update
    std::string record;      ///< JSON of the file record
    Date touched{};
    bool done = false;
};

/// Which device an item's newest contents and its present place come from, and the ticks of the newest ones
/// before that came from somebody else. An empty device is the service itself, somebody else to everyone.
struct Authorship {
    std::string writer;
    std::int32_t writtenBefore = -1;
    std::string mover;
    std::int32_t placeTick = -1;
    std::int32_t placedBefore = -1;

    /// The tick of the newest contents that `device` did not write itself; -1 when there are none.
    [[nodiscard]] std::int32_t foreignContents(const std::string& device, std::int32_t updateTick) const {
        return writer == device && !device.empty() ? writtenBefore : updateTick;
    }
    [[nodiscard]] std::int32_t foreignPlace(const std::string& device) const {
        return mover == device && !device.empty() ? placedBefore : placeTick;
    }
};

/// One share at one moment. Records that are handed out are copies.
class ShareView {
  public:
    virtual ~ShareView() = default;
    [[nodiscard]] virtual const ShareInfo& share() const = 0;
    /// By internal name, deleted ones too; null when the share has none.
    virtual TWVirtualFilePtr find(std::string_view internalName) = 0;
    /// The live item of that name (its path key counts) in a folder, or in the root for the share's id.
    virtual TWVirtualFilePtr childNamed(std::string_view parent, std::string_view publicName) = 0;
    /// The live items of a folder.
    virtual std::vector<TWVirtualFilePtr> children(std::string_view parent) = 0;
    virtual Authorship authorship(std::string_view internalName) = 0;
    /// Of any share, also retired ones: a name is given once.
    virtual std::optional<ContentsInfo> contents(std::string_view uploadName) = 0;
};

/// One share inside a write transaction: what it finds includes what was changed before. Only put() changes
/// the items.
///
/// Invariants that it enforces: the siblings that are not deleted have different names without regard to case
/// and Unicode form; every tick is given once. A breach throws ServiceError and ends the transaction.
class ShareChange : public ShareView {
  public:
    /// Takes the share's next tick. Throws ServiceError when none is left.
    virtual std::int32_t nextTick() = 0;
    /// Inserts the record, or replaces the one of its internal name.
    virtual void put(const TWVirtualFile& record) = 0;
    virtual void setAuthorship(std::string_view internalName, const Authorship& authorship) = 0;
    virtual void addContents(const ContentsInfo& contents) = 0;
    /// No item names the contents any more. They stay readable for a while.
    virtual void retireContents(std::string_view uploadName) = 0;
    virtual void addTransfer(const TransferInfo& transfer) = 0;
    virtual void finishTransfer(std::string_view digest) = 0;
};

/// Everything but the bytes of files: domains, users, devices, shares, rights, items. Any thread; several
/// processes may have the same store open, and each call sees what was committed before it.
///
/// Each change is one transaction, durable on return. Failures are ServiceErrors whose text names what was
/// wrong; DamagedError for every change after damage was found. "None" and null mean not found.
class MetadataStore {
  public:
    virtual ~MetadataStore() = default;

    virtual DomainInfo addDomain(const std::string& name, const std::string& address) = 0;
    virtual std::vector<DomainInfo> domains() = 0;
    virtual std::optional<DomainInfo> domainWithId(std::string_view id) = 0;
    virtual std::optional<DomainInfo> domainNamed(std::string_view name) = 0;
    /// `host` in any case, without port.
    virtual std::optional<DomainInfo> domainOfHost(std::string_view host) = 0;

    virtual UserInfo addUser(const std::string& email, const std::string& domainId,
                             const std::string& password) = 0;
    /// Also ends every login of the user: all tokens are refused from now on.
    virtual void setPassword(const std::string& userId, const std::string& password) = 0;
    virtual std::vector<UserInfo> users() = 0;
    virtual std::optional<UserInfo> userWithEmail(std::string_view email) = 0;
    /// The user's own domain first, then the others in which a share is granted to the user.
    virtual std::vector<DomainInfo> domainsOf(const UserInfo& user) = 0;

    virtual DeviceInfo addDevice(const std::string& userId, const std::string& name,
                                 const std::string& system) = 0;
    virtual std::vector<DeviceInfo> devicesOf(const std::string& userId) = 0;
    virtual std::optional<DeviceInfo> device(const std::string& userId, std::string_view deviceId) = 0;
    /// Marks the user's device (all of them without an id), and refuses its tokens from now on. The number
    /// marked.
    virtual int wipeDevices(const std::string& userId, const std::optional<std::string>& deviceId) = 0;

    virtual ShareInfo addShare(const std::string& name, const std::string& domainId) = 0;
    /// Throws ServiceError for a name that cannot be one, or that another share of the domain has.
    virtual void renameShare(const std::string& shareId, const std::string& name) = 0;
    virtual std::vector<ShareInfo> shares() = 0;
    virtual std::optional<ShareInfo> shareWithId(std::string_view shareId) = 0;
    virtual void grant(const std::string& shareId, const std::string& userId, bool readOnly) = 0;
    /// The tokens of the grant are refused from now on. False when there was no such grant.
    virtual bool revoke(const std::string& shareId, const std::string& userId) = 0;

    /// The token by which the device reaches the domain's gateway; made when there is none yet.
    virtual std::string domainToken(const std::string& deviceId, const std::string& domainId) = 0;
    /// The device that the token was given to, if it is that user's and the token is for that domain.
    virtual std::optional<DeviceInfo> deviceOfToken(std::string_view email, const std::string& domainId,
                                                    std::string_view token) = 0;
    /// The domain's shares that the device's user may reach, with the device's token for each.
    virtual std::vector<ShareAccess> accessOf(const DeviceInfo& device, const std::string& domainId) = 0;
    virtual std::optional<AccessRight> rightOfToken(std::string_view aclToken) = 0;
    /// What the device may do in the share now; none without a token for it.
    virtual std::optional<AccessRight> rightOfDevice(const std::string& deviceId,
                                                     const std::string& shareId) = 0;

    /// The records with ticks above `from`, by tick, at most `take`; one consistent state. None without the
    /// share. `UploadUrl` is `uploadUrl` in every record of a file.
    virtual std::optional<OSXCatchUpResponse> changesSince(const std::string& shareId, std::int32_t from,
                                                           std::int32_t take,
                                                           const std::string& uploadUrl) = 0;
    virtual std::optional<ContentsInfo> contents(std::string_view uploadName) = 0;
    /// Those of the names that are no contents' name and that no item has. An index alone is not trusted for
    /// that: reads all when there seem to be any.
    virtual std::vector<std::string> unnamedContents(std::vector<std::string> names) = 0;
    /// Looks through the whole store for damage; what was found, if anything. After that, and after damage
    /// that was met by chance, every change is refused with DamagedError. Reading goes on.
    virtual std::vector<std::string> faults() = 0;
    /// Whether damage was found: what is not found here may exist all the same.
    [[nodiscard]] virtual bool damaged() const = 0;

    enum class Durability {
        powerLoss,  ///< on the disk on return
        process     ///< survives the end of the process; for what a client can ask for again
    };
    /// Runs `work` in one transaction, committed when it returns and rolled back when it throws (which passes
    /// on).
    virtual void change(const std::string& shareId, const std::function<void(ShareChange&)>& work,
                        Durability durability = Durability::powerLoss) = 0;
    /// Runs `work` on one consistent state of the share; never waits for a writer.
    virtual void view(const std::string& shareId, const std::function<void(ShareView&)>& work) = 0;

    virtual std::optional<TransferInfo> transfer(std::string_view digest) = 0;
    /// The transfer is in use now.
    virtual void touchTransfer(std::string_view digest) = 0;
    virtual void dropTransfer(std::string_view digest) = 0;
    /// Those not in use since `before`.
    virtual void dropTransfers(Date before) = 0;

    virtual void addLink(const LinkInfo& link) = 0;
    virtual std::optional<LinkInfo> link(std::string_view digest) = 0;
    virtual std::vector<LinkInfo> links() = 0;
    virtual bool revokeLink(std::int64_t number) = 0;
    /// Counts one use; false when the link is revoked, expired or used up.
    virtual bool useLink(std::string_view digest) = 0;
    virtual void dropLinks(Date expiredBefore) = 0;

    /// Contents that no item has named since before `before`, at most `limit`.
    virtual std::vector<std::string> retiredContents(Date before, int limit) = 0;
    virtual void forgetContents(const std::vector<std::string>& uploadNames) = 0;
};

}  // namespace tarnwell::service
