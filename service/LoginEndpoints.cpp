#include <algorithm>
#include <atomic>

#include "connector/LoginRecords.h"
#include "service/Endpoints.h"
#include "service/Names.h"
#include "service/Secrets.h"
#include "service/ServiceError.h"
#include "store/Enums.h"
#include "util/RecordMapping.h"
#include "util/TWUtils.h"

namespace tarnwell::service {

namespace {

constexpr std::size_t kSmallBody = 16 * 1024;
/// Longest password that is hashed: a bound on work before the user is known.
constexpr std::size_t kLongestPassword = 1024;
/// `AclType` of a share in which the user may write.
constexpr std::int32_t kAclReadWrite = 1;
constexpr std::int32_t kStatusActive = 1;
/// Logins that may be waiting or running at once. Each costs processor time before its user is known.
constexpr int kMaxPendingLogins = 200;

double unixSeconds(Date date) {
    return std::chrono::duration<double>(date.time_since_epoch()).count();
}

/// Cut to what a list on a screen can show; peers send what they like.
std::string displayText(const std::string* text) {
    if (!text) return "Unknown";
    // The name is escaped twice on its way: for the text, and for the header line.
    std::string out = *text;
    for (int i = 0; i < 2; ++i) {
        if (auto decoded = percentDecode(out)) out = std::move(*decoded);
    }
    if (out.size() > 100 || out.empty() || !isUtf8(out)) return "Unknown";
    return out;
}

Domain domainRecord(const DomainInfo& info) {
    Domain domain;
    domain.DomainId = info.id;
    domain.Url = info.address;
    domain.DomainName = info.name;
    return domain;
}

GlobalLoginResponce refusedLogin(const char* code) {
    GlobalLoginResponce reply;
    reply.ErrorCode = code;
    reply.Wipe = false;
    return reply;
}

class Logins {
  public:
    Logins(MetadataStore& store, LoginThrottle& throttle, ServiceLog& log)
        : store_(store), throttle_(throttle), log_(log) {}

    [[nodiscard]] Reply userDomain(const Request& request) const {
        const auto user = store_.userWithEmail(request.needQuery("useremail"));
        if (!user) throw HttpError(404, "no such user");
        const auto domain = store_.domainWithId(user->domainId);
        if (!domain) throw HttpError(404, "no such domain");
        return Reply::text(200, domain->id + "," + domain->address);
    }

    [[nodiscard]] std::chrono::milliseconds delay(const Request& request) {
        const std::string key = throttleKey(request);
        if (pending_ >= kMaxPendingLogins) throw HttpError(503, "too many logins at this moment");
        const auto wait = throttle_.admit(key);
        if (!wait) throw HttpError(429, "too many attempts for this user, try again later");
        ++pending_;
        return *wait;
    }

    /// REQUIRES: delay() has let the request pass, once.
    [[nodiscard]] Reply login(const Request& request) {
        const std::string key = throttleKey(request);
        // Whatever happens, the attempt that was admitted is judged: failed unless it is known to have
        // succeeded.
        bool succeeded = false;
        struct Judge {
            Logins& logins;
            const std::string& key;
            const bool& succeeded;
            ~Judge() {
                --logins.pending_;
                succeeded ? logins.throttle_.succeeded(key) : logins.throttle_.failed(key);
            }
        } const judge{*this, key, succeeded};

        const auto password = base64Decode(request.needHeader("password2"));
        if (!password || password->size() > kLongestPassword) {
            throw HttpError(400, "the header \"password2\" is malformed");
        }
        const auto user = store_.userWithEmail(request.needHeader("useremail"));
        if (!user) {
            spendPasswordTime(*password);
            return Reply::json(toJsonText(refusedLogin("U101")));
        }
        const bool right = verifyPassword(*password, user->password);
        const auto domains = right ? store_.domainsOf(*user) : std::vector<DomainInfo>();
        const bool here = !request.domain ||
                          std::any_of(domains.begin(), domains.end(),
                                      [&](const auto& domain) { return domain.id == request.domain->id; });
        if (!right || !here) {
            log_.warning("login refused for " + user->email);
            return Reply::json(toJsonText(refusedLogin("U101")));
        }
        succeeded = true;
        return Reply::json(toJsonText(welcome(request, *user, domains)));
    }

    [[nodiscard]] Reply shares(const Request& request) const {
        const std::string& email = request.needQuery("userEmail");
        const auto device = store_.deviceOfToken(email, request.domain->id, request.needQuery("token"));
        if (!device) throw HttpError(403, "the token is not valid");
        ClientLoginResponse reply;
        reply.User = email;
        reply.ManagedShares.emplace();
        for (const auto& access : store_.accessOf(*device, request.domain->id)) {
            reply.ManagedShares->push_back(shareRecord(access, *request.domain));
        }
        return Reply::json(toJsonText(reply));
    }

  private:
    /// A device that has logged in before has a count of its own: strangers who guess cannot hold it up.
    [[nodiscard]] std::string throttleKey(const Request& request) const {
        const std::string& email = request.needHeader("useremail");
        std::string key = keyFromPath(email.substr(0, 254));
        const std::string* deviceId = request.header("deviceid");
        if (!deviceId || deviceId->empty()) return key;
        const auto user = store_.userWithEmail(email);
        return user && store_.device(user->id, *deviceId) ? key + "\n" + *deviceId : key;
    }

    [[nodiscard]] GlobalLoginResponce welcome(const Request& request, const UserInfo& user,
                                              const std::vector<DomainInfo>& domains) const {
        const std::string* deviceId = request.header("deviceid");
        std::optional<DeviceInfo> device;
        if (deviceId && !deviceId->empty()) {
            device = store_.device(user.id, *deviceId);
            if (!device) return refusedLogin("U107");
        } else {
            device = store_.addDevice(user.id, displayText(request.header("devicename")),
                                      displayText(request.header("deviceos")));
            log_.info("new device " + device->id + " of " + user.email);
        }
        if (device->wipe) {
            log_.warning("device " + device->id + " of " + user.email + " is told to wipe its login");
            GlobalLoginResponce wiped = refusedLogin("U100");
            wiped.Wipe = true;
            return wiped;
        }
        GlobalLoginResponce reply;
        reply.ErrorCode = "U100";
        reply.Wipe = false;
        reply.DeviceId = device->id;
        reply.UserDomains.emplace();
        for (const auto& info : domains) {
            UserDomain tie;
            tie.Domain = domainRecord(info);
            tie.UserDomainToken = store_.domainToken(device->id, info.id);
            if (info.id == user.domainId)
                reply.PrimaryUserDomain = std::move(tie);
            else
                reply.UserDomains->push_back(std::move(tie));
        }
        reply.User.emplace();
        reply.User->UserId = user.id;
        reply.User->Email = user.email;
        reply.User->Name = user.email.substr(0, user.email.find('@'));
        reply.User->CreateTime = unixSeconds(user.created);
        reply.User->Status = kStatusActive;
        return reply;
    }

    static ManagedSharePtr shareRecord(const ShareAccess& access, const DomainInfo& domain) {
        auto share = std::make_shared<ManagedShare>();
        share->ShareId = share->VshareId = access.share.id;
        share->ShareName = share->VshareName = access.share.name;
        share->Status = kStatusActive;
        share->Online = true;
        share->LastApplyedJournalTick = access.share.tick;
        share->DomainId = domain.id;
        share->GateWayUrl = domain.address;
        share->CompanyName = domain.name;
        share->ShareAcl.emplace();
        share->ShareAcl->ShareId = access.share.id;
        share->ShareAcl->AclType = access.readOnly ? kAclReadOnly : kAclReadWrite;
        share->ShareAcl->AclToken = access.token;
        return share;
    }

    MetadataStore& store_;
    LoginThrottle& throttle_;
    ServiceLog& log_;
    std::atomic<int> pending_{0};
};

}  // namespace

std::vector<Endpoint> loginEndpoints(MetadataStore& store, LoginThrottle& throttle, ServiceLog& log) {
    const auto logins = std::make_shared<Logins>(store, throttle, log);
    const auto userDomain = [logins](const Request& request) { return logins->userDomain(request); };
    const auto delay = [logins](const Request& request) { return logins->delay(request); };
    const auto login = [logins](const Request& request) { return logins->login(request); };
    const auto shares = [logins](const Request& request) { return logins->shares(request); };
    return {
        {HostRole::global, "/getuserdomain.aspx", "GET", kSmallBody, userDomain},
        {HostRole::global, "/globallogin.aspx", "GET", kSmallBody, login, delay, Lane::hashing},
        {HostRole::gateway, "/login2.aspx", "GET", kSmallBody, login, delay, Lane::hashing},
        {HostRole::gateway, "/clientlogin.aspx", "GET", kSmallBody, shares},
    };
}

}  // namespace tarnwell::service
