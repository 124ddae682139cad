#include "connector/LoginEngine.h"

#include "connector/CatchUpEngine.h"
#include "connector/ConnectorReachability.h"
#include "connector/Endpoints.h"
#include "connector/LoginRecords.h"
#include "connector/Notifications.h"
#include "connector/StoreQueries.h"
#include "connector/TaskGate.h"
#include "connector/UrlUtil.h"
#include "platform/Keychain.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "platform/UrlLoader.h"
#include "platform/UserDefaults.h"
#include "store/RemoteChanges.h"
#include "store/TWMetadataStorage.h"
#include "util/RecordMapping.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

/// A reply that does not speak of shares is no statement that the user has none: it counts as malformed,
/// since taking it for an empty list would delete every share of the domain, unsent work included.
std::shared_ptr<ClientLoginResponse> parseShares(std::string_view text, std::string& error) {
    try {
        auto responce = parseRecord<ClientLoginResponse>(text, error);
        if (!responce || responce->ManagedShares) return responce;
        error = "ManagedShares: missing";
    } catch (const std::exception& failure) {
        error = failure.what();
    }
    return nullptr;
}

}  // namespace

/// One global login, as it was when it began.
struct LoginEngine::Exchange {
    LoginCredentials credentials;
    std::string storedUserDomain;
};

/// What came of it.
struct LoginEngine::GlobalAnswer {
    std::string foundUserDomain;  // empty: was not asked for, or not found
    UrlReply reply;
    std::shared_ptr<GlobalLoginResponce> responce;  // null: no reply, or none that can be read
    std::string parseError;
    bool userDomainWasStored = false;
};

LoginEngine::LoginEngine(const Collaborators& collaborators)
    : environment_(collaborators.environment),
      session_(collaborators.session),
      reachability_(collaborators.reachability),
      catchUps_(collaborators.catchUps),
      gate_(collaborators.gate) {}

LoginEngine::~LoginEngine() = default;

// Credentials

void LoginEngine::loadCredentials() {
    auto& keychain = environment_.keychain;
    const std::string service = session_.settingsKey("keys");
    if (const auto accounts = keychain.accounts(service); !accounts.empty()) {
        session_.setUsername(accounts.front());
        session_.setPassword(keychain.password(service, accounts.front()).value_or(""));
    } else if (const auto name = environment_.userDefaults.get(session_.settingsKey("username"))) {
        session_.setUsername(*name);
    }
}

bool LoginEngine::saveCredentials() {
    const std::string username = session_.username();
    if (username.empty()) return true;
    const bool stored =
        environment_.keychain.setPassword(session_.settingsKey("keys"), username, session_.password());
    environment_.userDefaults.set(session_.settingsKey("username"), username);
    return environment_.userDefaults.synchronize() && stored;
}

bool LoginEngine::clearCredentials(bool forgetUser) {
    bool cleared = true;
    exchange_.reset();
    session_.setLoggedInGlobal(false);
    auto& keychain = environment_.keychain;
    const std::string service = session_.settingsKey("keys");
    for (const auto& account : keychain.accounts(service)) {
        // Overwritten first: a keychain may keep what was deleted.
        keychain.setPassword(service, account, "");
        cleared = keychain.deletePassword(service, account) && cleared;
    }
    session_.setPassword("");
    session_.setUserDomain("");
    session_.setDeviceId("");
    deviceIdCleared_ = true;
    if (forgetUser) {
        environment_.userDefaults.remove(session_.settingsKey("username"));
        environment_.userDefaults.synchronize();
        session_.setUsername("");
    }
    return cleared;
}

bool LoginEngine::credentialsAvailable() const {
    return !session_.username().empty() && !session_.password().empty();
}

bool LoginEngine::logout() {
    session_.setGlobalLoginResponce(nullptr);
    ++domainPass_;
    domainsAwaitingLogin_ = 0;
    failedDomains_.clear();
    catchUps_.cancelAll();
    // Queued downloads stay on purpose: they go on, or fail, without the user.
    const bool cleared = clearCredentials(false);
    session_.setUserDomain("");
    environment_.notifications.post(TWConnectorGlobalLoggedOut{});
    return cleared;
}

// Global login

void LoginEngine::loginToGlobalFirstTime() {
    TWLog(kLogMain, "loginToGlobalFirstTime called.");
    if (!reachability_.globalReachable()) {
        TWLog(kLogMain, "Global is not reachable - no internet connection available.");
        globalConnectionFailed_ = true;
        return;
    }
    loginToGlobal();
}

void LoginEngine::globalBecameReachable() {
    if (!globalConnectionFailed_) return;
    globalConnectionFailed_ = false;
    loginToGlobal();
}

void LoginEngine::loginToGlobal() {
    TWLog(kLogMain, "loginToGlobal called.");
    if (!credentialsAvailable()) {
        TWLog(kLogMain, "No credentials available - exiting.");
        return;
    }
    LoginCredentials credentials{session_.username(), session_.password(), session_.deviceId()};
    if (exchange_ && exchange_->credentials == credentials) {
        TWLog(kLogMain, "loginToGlobal : already waiting for an answer to these credentials.");
        return;
    }
    environment_.notifications.post(TWConnectorGlobalLoginStarted{});
    if (!reachability_.globalReachable()) {
        TWLog(kLogMain, "loginToGlobal : global server is not reachable, exiting");
        connectionFailed(std::nullopt);
        return;
    }
    exchange_ = std::make_shared<const Exchange>(Exchange{std::move(credentials), session_.userDomain()});
    environment_.background.async(gate_.guard([this, exchange = exchange_] {
        auto answer = std::make_shared<GlobalAnswer>();
        try {
            *answer = runExchange(*exchange);
        } catch (const std::exception& error) {
            answer->reply = {.status = 0, .error = error.what(), .body = {}};
        }
        environment_.mainLoop.async(gate_.guard([this, exchange, answer] {
            if (exchange_ != exchange) return;
            exchange_.reset();
            finishGlobalLogin(*answer);
        }));
    }));
}

LoginEngine::GlobalAnswer LoginEngine::runExchange(const Exchange& exchange) const {
    const auto& identity = environment_.identity;
    GlobalAnswer answer;
    answer.userDomainWasStored = !exchange.storedUserDomain.empty();
    UrlRequest request;
    if (identity.isDataIsland) {
        request = endpoints::domainGlobalLogin(identity.globalAddress, exchange.credentials, identity);
    } else {
        if (!answer.userDomainWasStored) answer.foundUserDomain = askForUserDomain(exchange);
        const auto& domain = answer.userDomainWasStored ? exchange.storedUserDomain : answer.foundUserDomain;
        if (!domain.empty()) {
            request = endpoints::domainGlobalLogin(domain, exchange.credentials, identity);
        } else {
            TWLog(kLogMain, "Warning! userDomain is still empty. Trying login to global.");
            request = endpoints::globalHostLogin(identity.globalAddress, exchange.credentials, identity);
        }
    }
    answer.reply = environment_.urlLoader.sendSynchronously(request);
    if (answer.reply.succeeded()) {
        answer.responce = parseRecord<GlobalLoginResponce>(answer.reply.body, answer.parseError);
    }
    return answer;
}

std::string LoginEngine::askForUserDomain(const Exchange& exchange) const {
    const auto& globalHost = environment_.identity.globalAddress;
    TWLog(kLogMain, "Asking for user's domain at %@...", globalHost);
    const auto reply = environment_.urlLoader.sendSynchronously(
        endpoints::getUserDomain(globalHost, exchange.credentials.username));
    if (!reply.succeeded()) {
        TWLog(kLogMain, "Failed to retrieve user domain: error %@, HTTP status code: %d",
              errorText(reply.error), reply.status);
        return {};
    }
    const std::string_view text = reply.body;
    const std::size_t comma = text.find(',');
    std::string_view domain;
    if (comma != std::string_view::npos && text.find(',', comma + 1) == std::string_view::npos) {
        domain = text.substr(comma + 1);
        while (!domain.empty() && (domain.back() == '\n' || domain.back() == '\r' || domain.back() == ' ')) {
            domain.remove_suffix(1);
        }
    }
    // The password goes to this address next.
    if (!isHostAddress(domain)) {
        TWLog(kLogMain, "Invalid user domain reply: %@", forLog(text));
        return {};
    }
    TWLog(kLogMain, "Retrieved user domain: %@", domain);
    return std::string(domain);
}

void LoginEngine::finishGlobalLogin(const GlobalAnswer& answer) {
    if (!answer.foundUserDomain.empty()) session_.setUserDomain(answer.foundUserDomain);
    if (!answer.reply.succeeded()) {
        TWLog(kLogMain, "Global connection failed: error %@, HTTP status code: %d",
              errorText(answer.reply.error), answer.reply.status);
        connectionFailed(answer.reply.error.empty() ? std::nullopt : std::optional(answer.reply.error));
        return;
    }
    globalConnectionFailed_ = false;
    if (!answer.responce) {
        TWLog(kLogMain, "Warning! Cannot parse global login responce. Error %@", answer.parseError);
        environment_.notifications.post(TWConnectorGlobalConnectionFailed{answer.parseError});
        return;
    }
    TWLog(kLogMain, "Login to global reply code: %@", forLog(answer.responce->ErrorCode.value_or("(null)")));
    const std::string deviceId = answer.responce->DeviceId.value_or("");
    if (!deviceId.empty() && session_.deviceId().empty()) {
        session_.setDeviceId(deviceId);
        TWLog(kLogMain, "LoginToGlobal: Set deviceId to %@", forLog(deviceId));
    }
    applyGlobalReply(answer);
}

void LoginEngine::applyGlobalReply(const GlobalAnswer& answer) {
    auto& notifications = environment_.notifications;
    const auto& responce = answer.responce;
    if (responce->Wipe.value_or(false)) {
        wipe(responce);
    } else if (responce->ErrorCode == "U100") {
        deviceIdCleared_ = false;
        session_.setGlobalLoginResponce(responce);
        environment_.store.setGlobalLoginResponce(answer.reply.body);
        environment_.store.saveDelayed();
        session_.setLoggedInGlobal(true);
        notifications.post(TWConnectorGlobalLoggedIn{});
    } else if (responce->ErrorCode == "U107") {
        deviceNotRecognized();
    } else if (responce->ErrorCode == "U101") {
        // The user may have moved to another domain: the next login asks again.
        if (answer.userDomainWasStored) session_.setUserDomain("");
        notifications.post(TWConnectorGlobalLoginFailed{});
    } else {
        notifications.post(TWConnectorGlobalConnectionFailed{});
    }
}

void LoginEngine::wipe(const GlobalLoginResponcePtr& responce) {
    TWLog(kLogMain, "loginToGlobal: WIPE command received. Wiping.");
    environment_.notifications.post(TWConnectorWipeOrdered{});
    logout();
    clearCredentials(true);
    session_.setGlobalLoginResponce(responce);
    environment_.notifications.post(TWConnectorGlobalLoginFailed{});
}

void LoginEngine::deviceNotRecognized() {
    if (deviceIdCleared_) {
        TWLog(kLogMain,
              "loginToGlobal: device id is not recognized on server, but it was cleared already (?"
              "?)");
        environment_.notifications.post(TWConnectorGlobalLoginFailed{});
        return;
    }
    TWLog(kLogMain,
          "loginToGlobal: device id is not recognized on server. Cleared it, trying to login again.");
    session_.setDeviceId("");
    deviceIdCleared_ = true;
    environment_.notifications.post(TWConnectorGlobalConnectionFailed{});
}

void LoginEngine::connectionFailed(std::optional<std::string> error) {
    globalConnectionFailed_ = true;
    environment_.notifications.post(TWConnectorGlobalConnectionFailed{std::move(error)});
}

// Domains

void LoginEngine::domainLogin() {
    const auto responce = session_.globalLoginResponce();
    if (domainsAwaitingLogin_ > 0 || !responce) return;
    failedDomains_.clear();
    ++domainPass_;
    const auto others = responce->UserDomains.value_or(std::vector<UserDomain>());
    domainsAwaitingLogin_ = others.size() + 1;
    gatewayLogin(responce->PrimaryUserDomain.value_or(UserDomain()));
    for (const auto& domain : others)
        gatewayLogin(domain);
}

void LoginEngine::gatewayLogin(const UserDomain& domain) {
    const std::string url = domain.Domain ? domain.Domain->Url.value_or("(null)") : "(null)";
    TWLog(kLogMain, "Logging in to domain : %@", url);
    const std::uint64_t pass = domainPass_;
    if (!reachability_.domainReachable(domain.Domain)) {
        TWLog(kLogMain, "No connectivity to domain %@, will try later.", url);
        environment_.mainLoop.async(
            gate_.guard([this, domain, pass] { finishGatewayLogin(domain, pass, false, nullptr); }));
        return;
    }
    environment_.urlLoader.sendAsynchronously(
        endpoints::clientLogin(url, session_.username(), domain.UserDomainToken.value_or("")),
        environment_.loginQueue,
        gate_.guard([this, domain, pass](const UrlReply& reply) { gatewayAnswered(domain, pass, reply); }));
}

void LoginEngine::gatewayAnswered(const UserDomain& domain, std::uint64_t pass, const UrlReply& reply) {
    const auto& url = *domain.Domain->Url;
    std::shared_ptr<ClientLoginResponse> responce;
    if (reply.succeeded()) {
        std::string error;
        responce = parseShares(reply.body, error);
        if (responce)
            TWLog(kLogMain, "Received gateway login data for domain: %@.", url);
        else
            TWLog(kLogMain, "Failed to parse gateway login responce for domain: %@. Error %@.", url, error);
    } else {
        TWLog(kLogMain, "Failed connection to gateway for domain: %@. Error %@. HTTP status code: %d", url,
              errorText(reply.error), reply.status);
    }
    environment_.mainLoop.async(
        gate_.guard([this, domain, pass, reached = reply.succeeded(), responce = std::move(responce)] {
            finishGatewayLogin(domain, pass, reached, responce.get());
        }));
}

void LoginEngine::finishGatewayLogin(const UserDomain& domain, std::uint64_t pass, bool reached,
                                     const ClientLoginResponse* responce) {
    if (pass != domainPass_) return;
    if (!reached) failedDomains_.push_back(domain);
    try {
        if (responce) applyShares(domain, *responce);
    } catch (const std::exception& error) {
        TWLog(kLogMain, "Error! Cannot apply gateway login data for domain %@: %@", *domain.Domain->Url,
              error.what());
    }
    if (--domainsAwaitingLogin_ == 0) finishedDomainLogin();
}

void LoginEngine::applyShares(const UserDomain& domain, const ClientLoginResponse& responce) {
    auto& store = environment_.store;
    store.remoteChanges().updateShares(*responce.ManagedShares, domain);
    if (session_.needsFullRefresh()) return;
    TWLog(kLogMain, "Catch up for shares in domain %@", *domain.Domain->Url);
    for (const auto& listed : *responce.ManagedShares) {
        auto lock = store.beginReadStorage();
        const auto share = store.shareWithId(listed->ShareId.value_or(""));
        lock.unlock();
        if (share) catchUps_.catchUp(share);
    }
}

void LoginEngine::finishedDomainLogin() {
    environment_.notifications.post(TWConnectorDomainsLoggedIn{});
    std::vector<std::string> domainIds;
    if (const auto responce = session_.globalLoginResponce()) {
        const auto add = [&](const UserDomain& domain) {
            if (domain.Domain && domain.Domain->DomainId) domainIds.push_back(*domain.Domain->DomainId);
        };
        if (responce->PrimaryUserDomain) add(*responce->PrimaryUserDomain);
        for (const auto& domain : responce->UserDomains.value_or(std::vector<UserDomain>()))
            add(domain);
    }
    // A reply without any domain is taken for a broken one: obeying it would drop every share, unsent work
    // included.
    if (domainIds.empty())
        TWLog(kLogMain, "Warning! Login reply names no domain, keeping all shares.");
    else
        environment_.store.remoteChanges().deleteDomainShares(domainIds);
    if (session_.needsFullRefresh()) catchUps_.refreshAfterFailure();
}

}  // namespace tarnwell
