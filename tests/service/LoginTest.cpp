#include <gtest/gtest.h>

#include "service/LoginThrottle.h"
#include "service/Secrets.h"
#include "service/ServiceWorld.h"
#include "store/Enums.h"
#include "util/RecordMapping.h"

namespace tarnwell::service::testing {
namespace {

using LoginTest = ServiceWorld;

TEST_F(LoginTest, answersTheCodeOfEachCase) {
    serve();
    const std::string device = *login("alpha.localhost", "anna@alpha.test", "anna's").reply->DeviceId;
    const std::string bensDevice = *login("beta.localhost", "ben@beta.test", "ben's").reply->DeviceId;
    struct {
        const char* host;
        const char* path;
        const char* email;
        const char* password;
        std::string device;
        const char* code;
    } const cases[] = {
        {"clientgateway.alpha.localhost", "/login2.aspx", "anna@alpha.test", "anna's", "", "U100"},
        {"CLIENTGATEWAY.Alpha.LocalHost", "/Login2.aspx", "Anna@ALPHA.test", "anna's", device, "U100"},
        {"localhost", "/GlobalLogin.aspx", "anna@alpha.test", "anna's", device, "U100"},
        {"clientgateway.alpha.localhost", "/login2.aspx", "nobody@alpha.test", "anna's", "", "U101"},
        // A right password where the user has no business says no more than a wrong one.
        {"clientgateway.beta.localhost", "/login2.aspx", "anna@alpha.test", "anna's", "", "U101"},
        {"clientgateway.alpha.localhost", "/login2.aspx", "anna@alpha.test", "anna's", "unknown", "U107"},
        {"clientgateway.alpha.localhost", "/login2.aspx", "anna@alpha.test", "anna's", bensDevice, "U107"},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(std::string(one.host) + one.path + " " + one.email + " " + one.code);
        const auto http = loginReply(one.host, one.path, one.email, one.password, one.device);
        std::string error;
        const auto reply = parseRecord<GlobalLoginResponce>(http.body, error);
        ASSERT_TRUE(reply) << http.status << http.error << error;
        EXPECT_EQ(reply->ErrorCode, one.code);
        EXPECT_EQ(reply->Wipe, false);
        const bool welcome = std::string(one.code) == "U100";
        EXPECT_EQ(reply->PrimaryUserDomain.has_value(), welcome);
        if (welcome && !one.device.empty()) {
            EXPECT_EQ(reply->DeviceId, one.device);
        }
    }
}

TEST_F(LoginTest, aShareInAnotherDomainBringsThatDomainAlong) {
    metadata().grant(plans_.id, anna_.id, true);
    serve();
    const auto reply = login("alpha.localhost", "anna@alpha.test", "anna's").reply;
    EXPECT_EQ(reply->PrimaryUserDomain->Domain->Url, "alpha.localhost");
    ASSERT_EQ(reply->UserDomains->size(), 1u);
    const auto& other = reply->UserDomains->front();
    EXPECT_EQ(other.Domain->DomainId, beta_.id);
    // Each token opens its own gateway, for its own user, and lists what is granted there.
    const std::string primary = *reply->PrimaryUserDomain->UserDomainToken;
    EXPECT_EQ(sharesReply("beta.localhost", "anna@alpha.test", primary).status, 403);
    EXPECT_EQ(sharesReply("alpha.localhost", "ben@beta.test", primary).status, 403);
    EXPECT_EQ(sharesReply("alpha.localhost", "anna@alpha.test", std::string(64, '0')).status, 403);
    const auto http = sharesReply("beta.localhost", "anna@alpha.test", *other.UserDomainToken);
    std::string error;
    const auto shares = parseRecord<ClientLoginResponse>(http.body, error);
    ASSERT_TRUE(shares) << error;
    ASSERT_EQ(shares->ManagedShares->size(), 1u);
    const auto& share = *shares->ManagedShares->front();
    EXPECT_EQ(share.ShareName, "Plans");
    EXPECT_EQ(share.GateWayUrl, "Beta.localhost:8443");
    EXPECT_EQ(share.ShareAcl->AclType, kAclReadOnly);
}

TEST_F(LoginTest, everyWayOfLosingARightTakesEffectAtOnce) {
    serve();
    const auto used = [&](const std::string& token) {
        return catchUpReply("alpha.localhost", docs_.id, token, "-1").status;
    };
    auto first = shareTokens("alpha.localhost", "anna@alpha.test", "anna's").at("Docs");
    ASSERT_EQ(used(first), 200);

    EXPECT_TRUE(metadata().revoke(docs_.id, anna_.id));
    EXPECT_EQ(used(first), 403);
    metadata().grant(docs_.id, anna_.id, false);
    EXPECT_EQ(used(first), 403) << "a new grant must not revive an old token";

    const auto session = login("alpha.localhost", "anna@alpha.test", "anna's");
    auto second = shareTokens("alpha.localhost", "anna@alpha.test", "anna's").at("Docs");
    ASSERT_EQ(used(second), 200);
    metadata().setPassword(anna_.id, anna_.password);
    EXPECT_EQ(used(second), 403);
    EXPECT_EQ(sharesReply("alpha.localhost", "anna@alpha.test", session.token).status, 403);

    // Wiping one device leaves the user's others alone.
    const auto lost = login("alpha.localhost", "anna@alpha.test", "anna's");
    const auto kept = shareTokens("alpha.localhost", "anna@alpha.test", "anna's").at("Docs");
    EXPECT_EQ(metadata().wipeDevices(anna_.id, *lost.reply->DeviceId), 1);
    EXPECT_EQ(sharesReply("alpha.localhost", "anna@alpha.test", lost.token).status, 403);
    EXPECT_EQ(used(kept), 200);
    const auto again = login("alpha.localhost", "anna@alpha.test", "anna's", *lost.reply->DeviceId).reply;
    EXPECT_EQ(again->Wipe, true);
    EXPECT_FALSE(again->PrimaryUserDomain);
    EXPECT_NE(login("alpha.localhost", "anna@alpha.test", "wrong", *lost.reply->DeviceId).reply->Wipe, true);
}

TEST(LoginThrottleTest, delaysOnlyTheKeyThatFails) {
    using namespace std::chrono_literals;
    LoginThrottle throttle;
    auto now = LoginThrottle::Clock::time_point{} + 1h;
    const auto fail = [&] {
        const auto wait = throttle.admit("a", now);
        EXPECT_TRUE(wait);
        now += wait.value_or(0ms);
        throttle.failed("a");
        return wait.value_or(0ms);
    };
    for (int i = 0; i < LoginThrottle::kFreeFailures; ++i)
        EXPECT_EQ(fail(), 0ms);
    EXPECT_GE(fail(), LoginThrottle::kFirstPenalty);
    for (int i = 0; i < 6; ++i)
        fail();
    EXPECT_EQ(fail(), LoginThrottle::kLargestPenalty);
    EXPECT_EQ(throttle.admit("b", now), 0ms);

    // Many at once do not get round it: the turns are one after another, and a long queue is refused.
    EXPECT_TRUE(throttle.admit("a", now));
    EXPECT_FALSE(throttle.admit("a", now));

    // A success, or time, makes up for it.
    throttle.succeeded("a");
    EXPECT_EQ(throttle.admit("a", now + LoginThrottle::kMemory + 1min), 0ms);
}

TEST(PasswordTest, verifiesOnlyTheSamePassword) {
    const std::string stored = hashPassword("p\xC3\xA4ss");
    EXPECT_TRUE(verifyPassword("p\xC3\xA4ss", stored));
    EXPECT_FALSE(verifyPassword("pass", stored));
    EXPECT_NE(hashPassword("p\xC3\xA4ss"), stored) << "without a salt, equal passwords would show";
    for (const char* broken :
         {"", "scrypt", "scrypt$99$8$1$AAAA$AAAA", "scrypt$15$8$1$?$?", "plain$1$1$1$AA==$AA=="}) {
        EXPECT_FALSE(verifyPassword("", broken)) << broken;
    }
}

}  // namespace
}  // namespace tarnwell::service::testing
