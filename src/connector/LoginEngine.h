#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "connector/ConnectorEnvironment.h"
#include "connector/ConnectorSession.h"

namespace tarnwell {

class CatchUpEngine;
class ConnectorReachability;
class TaskGate;
struct ClientLoginResponse;
struct UrlReply;

/// Logging in, in three steps: the global login (who the user and the device are, which domains there are), a
/// gateway login per domain (which shares there are), a catch-up of every share.
///
/// Threads: main only. The exchanges run elsewhere and come back to the main thread; an answer that was
/// overtaken by a logout or by other credentials changes nothing. Errors: logged and announced
/// (TWConnectorGlobalConnectionFailed, TWConnectorGlobalLoginFailed).
class LoginEngine {
  public:
    /// All outlive the engine.
    struct Collaborators {
        const ConnectorEnvironment& environment;
        ConnectorSession& session;
        ConnectorReachability& reachability;
        CatchUpEngine& catchUps;
        TaskGate& gate;
    };
    explicit LoginEngine(const Collaborators& collaborators);
    ~LoginEngine();

    // Credentials
    /// User name and password from the keychain; without one there, the user name from the settings.
    void loadCredentials();
    /// Does nothing without a user name. False when something could not be stored.
    [[nodiscard]] bool saveCredentials();
    /// Forgets password, domain and device id; with `forgetUser` the user's name as well.
    /// False when a password could not be removed.
    bool clearCredentials(bool forgetUser);
    [[nodiscard]] bool credentialsAvailable() const;

    // Logging in and out
    void loginToGlobalFirstTime();
    /// A login with the same credentials that still runs answers for this one as well.
    void loginToGlobal();
    /// Logs in to every domain of the last global reply; TWConnectorDomainsLoggedIn follows. Does nothing
    /// while such a pass runs.
    void domainLogin();
    /// As clearCredentials(false), and ends what runs.
    bool logout();

    /// The domains that could not be asked in the last domainLogin().
    [[nodiscard]] const std::vector<UserDomain>& failedDomains() const { return failedDomains_; }

    /// The global host came back: tries again if the last attempt failed for want of it.
    void globalBecameReachable();

  private:
    struct Exchange;
    struct GlobalAnswer;

    GlobalAnswer runExchange(const Exchange& exchange) const;
    std::string askForUserDomain(const Exchange& exchange) const;
    void finishGlobalLogin(const GlobalAnswer& answer);
    void applyGlobalReply(const GlobalAnswer& answer);
    void connectionFailed(std::optional<std::string> error);
    void deviceNotRecognized();
    void wipe(const GlobalLoginResponcePtr& responce);

    void gatewayLogin(const UserDomain& domain);
    void gatewayAnswered(const UserDomain& domain, std::uint64_t pass, const UrlReply& reply);
    void finishGatewayLogin(const UserDomain& domain, std::uint64_t pass, bool reached,
                            const ClientLoginResponse* responce);
    void applyShares(const UserDomain& domain, const ClientLoginResponse& responce);
    void finishedDomainLogin();

    const ConnectorEnvironment& environment_;
    ConnectorSession& session_;
    ConnectorReachability& reachability_;
    CatchUpEngine& catchUps_;
    TaskGate& gate_;

    // Main thread only.
    std::shared_ptr<const Exchange> exchange_;  // the global login that runs; null: none
    std::uint64_t domainPass_ = 0;              // answers of an earlier pass are dropped
    std::size_t domainsAwaitingLogin_ = 0;
    std::vector<UserDomain> failedDomains_;
    bool globalConnectionFailed_ = false;
    bool deviceIdCleared_ = false;
};

}  // namespace tarnwell
