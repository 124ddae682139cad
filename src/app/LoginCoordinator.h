#pragma once

#include <memory>
#include <vector>

#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"

namespace tarnwell {

/// Decides what follows a login outcome: the domain login, the mount, a retry, or the question for
/// credentials.
///
/// The connector posts the outcomes on whatever thread they come up; every one of them is handled on the main
/// loop, in the order in which it was posted. All public operations: main thread only.
///
/// At most one retry waits at a time: the newest outcome decides when it is due.
class LoginCoordinator {
  public:
    /// What it needs from the connector, the drive and the user interface. Called on the main thread.
    class Mediator {
      public:
        virtual ~Mediator() = default;
        [[nodiscard]] virtual bool credentialsAvailable() = 0;
        /// A login answer of an earlier run is known, so the drive can be shown before the service answered.
        [[nodiscard]] virtual bool hasGlobalLoginResponce() = 0;
        virtual void loginToGlobalFirstTime() = 0;
        virtual void loginToGlobal() = 0;
        virtual void domainLogin() = 0;
        virtual void setupRefreshTimers() = 0;
        [[nodiscard]] virtual bool fuseInitialized() = 0;
        virtual void initializeFuse() = 0;
        virtual void stopFuse() = 0;
        virtual void clearCaches() = 0;
        virtual void removeKeptFiles() = 0;
        virtual void askForLogin() = 0;
    };

    enum class Phase { kLoggedOut, kConnecting, kOnline, kOffline };

    LoginCoordinator(Mediator& mediator, RunLoop& loop, NotificationCenter& notifications);
    ~LoginCoordinator();

    /// Begins to listen to the connector.
    void observe();
    /// Stops listening and retrying; outcomes that are still on their way are dropped. For good.
    void stop();

    /// The first login of this run, or the first with newly entered credentials.
    void begin();
    [[nodiscard]] Phase phase() const { return phase_; }
    [[nodiscard]] int failedLoginAttempts() const { return failedLoginAttempts_; }

  private:
    void didLoggedIn();
    void didDomainsLogin();
    void didLoginFailed();
    void didGlobalConnectionFailed();
    void didLoggedOut();
    void didOrderWipe();

    template <class Notification>
    void on(void (LoginCoordinator::*handler)());
    void mountWhenNeeded();
    void retryAfter(std::chrono::milliseconds delay);

    Mediator& mediator_;
    RunLoop& loop_;
    NotificationCenter& notifications_;
    std::vector<Subscription> subscriptions_;
    std::shared_ptr<LoginCoordinator*> self_;  // outcomes on their way hold it weakly
    Timer retry_;
    Phase phase_ = Phase::kLoggedOut;
    int failedLoginAttempts_ = 0;
};

}  // namespace tarnwell
