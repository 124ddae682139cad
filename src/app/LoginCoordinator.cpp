#include "app/LoginCoordinator.h"

#include "connector/Notifications.h"

namespace tarnwell {

namespace {

constexpr int kAttemptsBeforeAsking = 2;
constexpr std::chrono::seconds kRetryStep{3};
constexpr std::chrono::seconds kConnectionRetry{60};

}  // namespace

LoginCoordinator::LoginCoordinator(Mediator& mediator, RunLoop& loop, NotificationCenter& notifications)
    : mediator_(mediator),
      loop_(loop),
      notifications_(notifications),
      self_(std::make_shared<LoginCoordinator*>(this)) {}

LoginCoordinator::~LoginCoordinator() = default;

template <class Notification>
void LoginCoordinator::on(void (LoginCoordinator::*handler)()) {
    subscriptions_.push_back(notifications_.observe<Notification>(
        [weak = std::weak_ptr(self_), &loop = loop_, handler](const Notification&) {
            loop.async([weak, handler] {
                if (const auto self = weak.lock()) ((*self)->*handler)();
            });
        }));
}

void LoginCoordinator::observe() {
    on<TWConnectorGlobalLoggedIn>(&LoginCoordinator::didLoggedIn);
    on<TWConnectorDomainsLoggedIn>(&LoginCoordinator::didDomainsLogin);
    on<TWConnectorGlobalLoginFailed>(&LoginCoordinator::didLoginFailed);
    on<TWConnectorGlobalConnectionFailed>(&LoginCoordinator::didGlobalConnectionFailed);
    on<TWConnectorWipeOrdered>(&LoginCoordinator::didOrderWipe);
    on<TWConnectorGlobalLoggedOut>(&LoginCoordinator::didLoggedOut);
}

void LoginCoordinator::stop() {
    subscriptions_.clear();
    self_.reset();
    retry_.cancel();
}

void LoginCoordinator::begin() {
    failedLoginAttempts_ = 0;
    retry_.cancel();
    if (!mediator_.credentialsAvailable()) {
        phase_ = Phase::kLoggedOut;
        mediator_.askForLogin();
        return;
    }
    phase_ = Phase::kConnecting;
    if (mediator_.hasGlobalLoginResponce()) mountWhenNeeded();
    mediator_.loginToGlobalFirstTime();
}

void LoginCoordinator::didLoggedIn() {
    failedLoginAttempts_ = 0;
    retry_.cancel();
    mediator_.domainLogin();
}

void LoginCoordinator::didDomainsLogin() {
    phase_ = Phase::kOnline;
    mountWhenNeeded();
}

void LoginCoordinator::didLoginFailed() {
    if (failedLoginAttempts_++ < kAttemptsBeforeAsking) {
        retryAfter(failedLoginAttempts_ * kRetryStep);
        return;
    }
    phase_ = Phase::kLoggedOut;
    mediator_.askForLogin();
}

void LoginCoordinator::didGlobalConnectionFailed() {
    phase_ = Phase::kOffline;
    mountWhenNeeded();
    retryAfter(kConnectionRetry);
}

void LoginCoordinator::didLoggedOut() {
    phase_ = Phase::kLoggedOut;
    retry_.cancel();
    mediator_.stopFuse();
    mediator_.clearCaches();
}

void LoginCoordinator::didOrderWipe() {
    mediator_.removeKeptFiles();
}

void LoginCoordinator::mountWhenNeeded() {
    if (mediator_.fuseInitialized()) return;
    mediator_.initializeFuse();
    mediator_.setupRefreshTimers();
}

void LoginCoordinator::retryAfter(std::chrono::milliseconds delay) {
    retry_ = loop_.postAfter(delay, [this] { mediator_.loginToGlobal(); });
}

}  // namespace tarnwell
