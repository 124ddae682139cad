#include "app/LoginCoordinator.h"

#include <string>
#include <vector>

#include "connector/Notifications.h"
#include "support/ManualRunLoop.h"

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
using testing::ManualRunLoop;
using Calls = std::vector<std::string>;
using Phase = LoginCoordinator::Phase;

/// Records what it is asked; the drive counts as mounted once it was.
struct FakeMediator : LoginCoordinator::Mediator {
    bool credentialsAvailable() override { return credentials; }
    bool hasGlobalLoginResponce() override { return savedReply; }
    void loginToGlobalFirstTime() override { calls.emplace_back("loginFirst"); }
    void loginToGlobal() override { calls.emplace_back("login"); }
    void domainLogin() override { calls.emplace_back("domainLogin"); }
    void setupRefreshTimers() override { calls.emplace_back("timers"); }
    bool fuseInitialized() override { return mounted; }
    void initializeFuse() override {
        mounted = true;
        calls.emplace_back("mount");
    }
    void stopFuse() override {
        mounted = false;
        calls.emplace_back("unmount");
    }
    void clearCaches() override { calls.emplace_back("clear"); }
    void askForLogin() override { calls.emplace_back("ask"); }

    Calls take() { return std::exchange(calls, {}); }

    bool credentials = true, savedReply = false, mounted = false;
    Calls calls;
};

struct LoginCoordinatorTest : ::testing::Test {
    LoginCoordinatorTest() { login.observe(); }

    template <class Notification>
    Calls after() {
        notifications.post(Notification{});
        loop.runPending();
        return mediator.take();
    }
    Calls afterWaiting(std::chrono::milliseconds time) {
        loop.advance(time);
        return mediator.take();
    }
    Calls begin() {
        login.begin();
        return mediator.take();
    }

    ManualRunLoop loop;
    NotificationCenter notifications;
    FakeMediator mediator;
    LoginCoordinator login{mediator, loop, notifications};
};

TEST_F(LoginCoordinatorTest, startsByWhatIsKnown) {
    EXPECT_EQ(begin(), Calls{"loginFirst"});
    EXPECT_EQ(login.phase(), Phase::kConnecting);

    mediator.savedReply = true;
    EXPECT_EQ(begin(), (Calls{"mount", "timers", "loginFirst"})) << "usable before the service answers";

    mediator.credentials = false;
    EXPECT_EQ(begin(), Calls{"ask"});
    EXPECT_EQ(login.phase(), Phase::kLoggedOut);
}

TEST_F(LoginCoordinatorTest, mountsOnceWhenTheDomainsAnswered) {
    begin();
    EXPECT_EQ(after<TWConnectorGlobalLoggedIn>(), Calls{"domainLogin"});
    EXPECT_EQ(after<TWConnectorDomainsLoggedIn>(), (Calls{"mount", "timers"}));
    EXPECT_EQ(login.phase(), Phase::kOnline);
    after<TWConnectorGlobalLoggedIn>();
    EXPECT_EQ(after<TWConnectorDomainsLoggedIn>(), Calls{}) << "the timer's login leaves the drive alone";
}

TEST_F(LoginCoordinatorTest, refusedLoginIsTriedTwiceMoreThenTheUserIsAsked) {
    begin();
    EXPECT_EQ(after<TWConnectorGlobalLoginFailed>(), Calls{});
    EXPECT_EQ(afterWaiting(2999ms), Calls{});
    EXPECT_EQ(afterWaiting(1ms), Calls{"login"});
    after<TWConnectorGlobalLoginFailed>();
    EXPECT_EQ(afterWaiting(5999ms), Calls{});
    EXPECT_EQ(afterWaiting(1ms), Calls{"login"});
    EXPECT_EQ(after<TWConnectorGlobalLoginFailed>(), Calls{"ask"});
    EXPECT_EQ(afterWaiting(10min), Calls{}) << "a refused password is not sent for ever";
    EXPECT_EQ(login.phase(), Phase::kLoggedOut);

    begin();
    after<TWConnectorGlobalLoginFailed>();
    EXPECT_EQ(afterWaiting(3s), Calls{"login"}) << "newly entered credentials start counting anew";
}

TEST_F(LoginCoordinatorTest, worksOfflineAndTriesAgainEveryMinute) {
    begin();
    EXPECT_EQ(after<TWConnectorGlobalConnectionFailed>(), (Calls{"mount", "timers"}));
    EXPECT_EQ(login.phase(), Phase::kOffline);
    EXPECT_EQ(afterWaiting(59s), Calls{});
    EXPECT_EQ(afterWaiting(1s), Calls{"login"});
    after<TWConnectorGlobalConnectionFailed>();
    after<TWConnectorGlobalConnectionFailed>();
    EXPECT_EQ(afterWaiting(60s), Calls{"login"}) << "outcomes do not pile up retries";
    EXPECT_EQ(afterWaiting(60s), Calls{});
    after<TWConnectorGlobalConnectionFailed>();
    after<TWConnectorGlobalLoggedIn>();
    EXPECT_EQ(afterWaiting(60s), Calls{}) << "a login that came through ends the wait";
}

TEST_F(LoginCoordinatorTest, logOutTakesTheDriveDownBeforeTheCacheGoes) {
    begin();
    after<TWConnectorDomainsLoggedIn>();
    after<TWConnectorGlobalConnectionFailed>();
    EXPECT_EQ(after<TWConnectorGlobalLoggedOut>(), (Calls{"unmount", "clear"}));
    EXPECT_EQ(afterWaiting(10min), Calls{});
}

TEST_F(LoginCoordinatorTest, nothingComesBackAfterStop) {
    begin();
    after<TWConnectorGlobalConnectionFailed>();
    notifications.post(TWConnectorDomainsLoggedIn{});
    login.stop();
    EXPECT_EQ(after<TWConnectorGlobalLoggedOut>(), Calls{})
        << "neither what is under way nor what comes later";
    EXPECT_EQ(afterWaiting(10min), Calls{});
}

}  // namespace
}  // namespace tarnwell
