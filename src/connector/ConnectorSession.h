#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "connector/LoginRecords.h"

namespace tarnwell {

class UserDefaults;
struct ConnectorIdentity;

using GlobalLoginResponcePtr = std::shared_ptr<const GlobalLoginResponce>;

/// The connector's properties: who is logged in, where, and what the rest of the program asks about it.
///
/// Threads: any. Own small lock; nothing is called under it. The store may ask for the user's name with its
/// own lock held. Values that survive a restart (`userDomain`, `deviceId`) live in the settings and nowhere
/// else.
class ConnectorSession {
  public:
    /// `defaults` and `identity` outlive the session.
    ConnectorSession(UserDefaults& defaults, const ConnectorIdentity& identity);

    [[nodiscard]] std::string username() const;
    void setUsername(std::string_view username);
    [[nodiscard]] std::string password() const;
    void setPassword(std::string_view password);

    /// Reply of the last successful global login, or the one that the store saved; null when there is none.
    [[nodiscard]] GlobalLoginResponcePtr globalLoginResponce() const;
    void setGlobalLoginResponce(GlobalLoginResponcePtr responce);
    [[nodiscard]] bool loggedIn() const { return loggedInGlobal_; }
    void setLoggedInGlobal(bool loggedIn) { loggedInGlobal_ = loggedIn; }

    /// The domain of that id in the login reply, the primary one first; none without a reply.
    [[nodiscard]] std::optional<Domain> domainWithId(std::string_view domainId) const;

    /// Empty when unknown. Written through to the settings at once.
    [[nodiscard]] std::string userDomain() const;
    void setUserDomain(std::string_view domain);
    [[nodiscard]] std::string deviceId() const;
    void setDeviceId(std::string_view deviceId);

    /// Every share has to be asked from its first tick. True at start when the settings hold
    /// "needsFullRefresh".
    [[nodiscard]] bool needsFullRefresh() const { return needsFullRefresh_; }
    void setNeedsFullRefresh(bool needed) { needsFullRefresh_ = needed; }
    /// Selects the short timer intervals; counts from the next setupRefreshTimers().
    [[nodiscard]] bool fastRefresh() const { return fastRefresh_; }
    void setFastRefresh(bool fast) { fastRefresh_ = fast; }

    /// Bytes per second, as last measured.
    [[nodiscard]] double lastUploadSpeed() const { return lastUploadSpeed_; }
    void setLastUploadSpeed(double speed) { lastUploadSpeed_ = speed; }
    [[nodiscard]] double lastDownloadSpeed() const { return lastDownloadSpeed_; }
    void setLastDownloadSpeed(double speed) { lastDownloadSpeed_ = speed; }

    /// The settings key of a user setting: title + "." + name.
    [[nodiscard]] std::string settingsKey(std::string_view name) const;

  private:
    UserDefaults& defaults_;
    const ConnectorIdentity& identity_;

    std::atomic<bool> loggedInGlobal_{false};
    std::atomic<bool> needsFullRefresh_;
    std::atomic<bool> fastRefresh_{false};
    std::atomic<double> lastUploadSpeed_{0};
    std::atomic<double> lastDownloadSpeed_{0};

    mutable std::mutex mutex_;
    std::string username_;  // guarded by mutex_, as all below
    std::string password_;
    GlobalLoginResponcePtr globalLoginResponce_;
};

}  // namespace tarnwell
