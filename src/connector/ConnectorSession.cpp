#include "connector/ConnectorSession.h"

#include "connector/ConnectorEnvironment.h"
#include "platform/UserDefaults.h"

namespace tarnwell {

ConnectorSession::ConnectorSession(UserDefaults& defaults, const ConnectorIdentity& identity)
    : defaults_(defaults), identity_(identity), needsFullRefresh_(defaults.contains("needsFullRefresh")) {}

std::string ConnectorSession::username() const {
    const std::lock_guard lock(mutex_);
    return username_;
}

void ConnectorSession::setUsername(std::string_view username) {
    const std::lock_guard lock(mutex_);
    username_ = username;
}

std::string ConnectorSession::password() const {
    const std::lock_guard lock(mutex_);
    return password_;
}

void ConnectorSession::setPassword(std::string_view password) {
    const std::lock_guard lock(mutex_);
    password_ = password;
}

GlobalLoginResponcePtr ConnectorSession::globalLoginResponce() const {
    const std::lock_guard lock(mutex_);
    return globalLoginResponce_;
}

void ConnectorSession::setGlobalLoginResponce(GlobalLoginResponcePtr responce) {
    const std::lock_guard lock(mutex_);
    globalLoginResponce_.swap(responce);
}

std::optional<Domain> ConnectorSession::domainWithId(std::string_view domainId) const {
    const auto responce = globalLoginResponce();
    if (!responce) return std::nullopt;
    const auto matches = [&](const UserDomain& candidate) {
        return candidate.Domain && candidate.Domain->DomainId == domainId;
    };
    if (responce->PrimaryUserDomain && matches(*responce->PrimaryUserDomain)) {
        return responce->PrimaryUserDomain->Domain;
    }
    if (responce->UserDomains) {
        for (const auto& candidate : *responce->UserDomains) {
            if (matches(candidate)) return candidate.Domain;
        }
    }
    return std::nullopt;
}

std::string ConnectorSession::userDomain() const {
    return defaults_.get(settingsKey("userDomain")).value_or("");
}

void ConnectorSession::setUserDomain(std::string_view domain) {
    defaults_.set(settingsKey("userDomain"), domain);
    defaults_.synchronize();
}

std::string ConnectorSession::deviceId() const {
    return defaults_.get(settingsKey("deviceId")).value_or("");
}

void ConnectorSession::setDeviceId(std::string_view deviceId) {
    defaults_.set(settingsKey("deviceId"), deviceId);
    defaults_.synchronize();
}

std::string ConnectorSession::settingsKey(std::string_view name) const {
    return identity_.settingsTitle + "." + std::string(name);
}

}  // namespace tarnwell
