#include <gmock/gmock.h>

#include "connector/ConnectorWorld.h"

namespace tarnwell::testing {
namespace {

using ::testing::ElementsAre;

using Events = std::vector<std::string>;

constexpr const char* kDomainReply =
    R"({"ErrorCode":"U100","DeviceId":"dev-1","PrimaryUserDomain":{"Domain":{"DomainId":"d0","Url":"d0.test"},"UserDomainToken":"t 0"},)"
    R"("UserDomains":[{"Domain":{"DomainId":"d1","Url":"d1.test"},"UserDomainToken":"t1"}]})";

std::string shareJson(const std::string& id) {
    return R"({"ShareId":")" + id + R"(","ShareName":")" + id +
           R"(","Status":0,"ShareChanged":false,"Online":true,"TransmitCounter":0,"LastApplyedJournalTick":0,"ShareAcl":{"AclToken":"a%2Bb"}})";
}

std::vector<std::string> urls(const ConnectorWorld& world) {
    std::vector<std::string> found;
    for (const auto& request : world.loader.requests())
        found.push_back(request.method + " " + request.url);
    return found;
}

TEST(LoginTest, asksForTheDomainThenSaysWhoIsThere) {
    ConnectorWorld world;
    world.loader.when(urlContains("GetUserDomain")).reply(200, "mia@example.com,home.test\r\n");
    world.loader.when(urlContains("login2.aspx")).reply(200, kDomainReply);
    world.setCredentials();
    world.login.loginToGlobal();
    world.settle();

    EXPECT_THAT(urls(world),
                ElementsAre("GET https://global.test/GetUserDomain.aspx?useremail=mia@example.com",
                            "GET https://clientgateway.home.test/login2.aspx"));
    const auto request = world.loader.requests().back();
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"useremail", "mia@example.com"},
        {"password2", "cMOkc3M="},
        {"devicetype", "Mac"},
        {"deviceid", ""},
        {"devicename", "Mia's%2520B%25C3%25BCro"},
        {"deviceos", "Mac OS X 6.1.0"},
        {"applicationversion", "1.2 (3)"}};
    EXPECT_EQ(request.headers, expected);
    EXPECT_EQ(request.idleTimeout, std::chrono::seconds(15));

    EXPECT_EQ(world.takeEvents(), (Events{"LoginStarted", "LoggedIn"}));
    EXPECT_TRUE(world.session.loggedIn());
    EXPECT_EQ(world.defaults.stored().at("Tarnwell.userDomain"), "home.test");
    EXPECT_EQ(world.defaults.stored().at("Tarnwell.deviceId"), "dev-1");
    EXPECT_EQ(world.store.globalLoginResponce(), kDomainReply);
    EXPECT_EQ(world.session.domainWithId("d1")->Url, "d1.test");
    EXPECT_FALSE(world.session.domainWithId("d9"));
    // Neither the password nor the device's tokens are anybody's who reads the log.
    EXPECT_EQ(world.log.count("cMOkc3M=") + world.log.count("t 0"), 0u) << world.log.text();
}

TEST(LoginTest, goesToTheGlobalHostWhenTheDomainIsUnknown) {
    for (const auto& [status, reply] : std::vector<std::pair<int, std::string>>{
             {200, "no comma"}, {200, "a,"}, {200, "a,evil.test/x?"}, {500, "a,b.test"}}) {
        ConnectorWorld world;
        world.loader.when(urlContains("GetUserDomain")).reply(status, reply);
        world.loader.when(urlContains("GlobalLogin.aspx")).reply(200, R"({"ErrorCode":"U100"})");
        world.setCredentials();
        world.login.loginToGlobal();
        world.settle();
        EXPECT_EQ(urls(world).back(), "GET https://global.test/GlobalLogin.aspx") << reply;
        EXPECT_EQ(world.session.userDomain(), "") << reply;
        EXPECT_TRUE(world.log.contains(status == 200
                                           ? "Invalid user domain reply: " + reply
                                           : "Failed to retrieve user domain: error (null), HTTP status"))
            << world.log.text();
    }
}

TEST(LoginTest, everyAnswerHasItsOutcome) {
    const auto ok = [](std::string body) { return UrlReply{200, {}, std::move(body)}; };
    const struct {
        UrlReply reply;
        const char* event;
        const char* line;
        const char* storedDomain = "old.test";
        const char* domainAfter = "old.test";
        const char* deviceAfter = "dev";
    } answers[] = {
        {ok(R"({"ErrorCode":"U101"})"), "LoginFailed", "reply code: U101", "old.test", ""},
        {ok(R"({"ErrorCode":"U101"})"), "LoginFailed", "reply code: U101", "", "found.test"},
        {ok(R"({"ErrorCode":"U107","DeviceId":"other"})"), "ConnectionFailed",
         "Cleared it, trying to login again.", "old.test", "old.test", ""},
        {ok("{}"), "ConnectionFailed", "reply code: (null)"},
        {ok(R"({"ErrorCode":5})"), "ConnectionFailed: ErrorCode: expected a string",
         "Warning! Cannot parse global login responce. Error ErrorCode: expected a string"},
        {{503, {}, kDomainReply}, "ConnectionFailed", "error (null), HTTP status code: 503"},
        {{200, "cut", kDomainReply}, "ConnectionFailed: cut", "error cut, HTTP status code: 200"},
    };
    for (const auto& answer : answers) {
        SCOPED_TRACE(answer.line);
        ConnectorWorld world(
            {.isDataIsland = false,
             .settings = {{"Tarnwell.userDomain", answer.storedDomain}, {"Tarnwell.deviceId", "dev"}}});
        world.loader.when(urlContains("GetUserDomain")).reply(200, "mia,found.test");
        world.loader.when(urlContains("login2")).answer([&](const auto&) { return answer.reply; });
        world.setCredentials();
        world.login.loginToGlobal();
        world.settle();
        EXPECT_EQ(world.takeEvents(), (Events{"LoginStarted", answer.event}));
        EXPECT_EQ(world.session.userDomain(), answer.domainAfter);
        EXPECT_EQ(world.session.deviceId(), answer.deviceAfter);
        EXPECT_FALSE(world.session.loggedIn());
        EXPECT_TRUE(world.log.contains(answer.line)) << world.log.text();
    }
}

TEST(LoginTest, anUnknownDeviceIsResetOnceUntilALoginSucceeds) {
    ConnectorWorld world({.isDataIsland = true, .settings = {{"Tarnwell.deviceId", "dev"}}});
    world.setCredentials();
    const auto loginWith = [&](const char* code) {
        world.loader.when(urlContains("login2"))
            .reply(200, std::string(R"({"ErrorCode":")") + code + R"("})");
        world.login.loginToGlobal();
        world.settle();
        return world.takeEvents().back();
    };
    EXPECT_EQ(loginWith("U107"), "ConnectionFailed");
    EXPECT_EQ(header(world.loader.requests().back(), "deviceid"), "dev");
    EXPECT_EQ(loginWith("U107"), "LoginFailed");
    EXPECT_EQ(header(world.loader.requests().back(), "deviceid"), "");
    EXPECT_EQ(loginWith("U100"), "LoggedIn");
    EXPECT_EQ(loginWith("U107"), "ConnectionFailed");
}

TEST(LoginTest, anAnswerThatALogoutOvertookChangesNothing) {
    ConnectorWorld world({.isDataIsland = true, .settings = {}});
    world.loader.when(urlContains("login2")).reply(200, kDomainReply);
    world.setCredentials();
    world.login.loginToGlobal();
    world.login.logout();
    world.settle();
    EXPECT_EQ(world.takeEvents(), (Events{"LoginStarted", "LoggedOut"}));
    EXPECT_FALSE(world.session.loggedIn());
    EXPECT_EQ(world.session.deviceId(), "");
    EXPECT_EQ(world.store.globalLoginResponce(), "");

    // The same for the shares of a domain.
    world.loader.when(urlContains("ClientLogin")).reply(200, "{\"ManagedShares\":[" + shareJson("s1") + "]}");
    world.pretendLoggedIn();
    world.login.domainLogin();
    world.login.logout();
    world.settle();
    EXPECT_EQ(world.takeEvents(), Events{"LoggedOut"});
    const auto lock = world.store.beginReadStorage();
    EXPECT_TRUE(world.store.shares().empty());
}

TEST(LoginTest, oneExchangePerCredentials) {
    ConnectorWorld world({.isDataIsland = true, .settings = {}});
    world.loader.when(urlContains("login2")).reply(200, R"({"ErrorCode":"U101"})");
    world.setCredentials();
    world.login.loginToGlobal();
    world.login.loginToGlobal();
    world.settle();
    EXPECT_EQ(world.takeEvents(), (Events{"LoginStarted", "LoginFailed"}));

    // New credentials do not wait for the answer to the old ones, and are not judged by it.
    world.login.loginToGlobal();
    world.session.setPassword("better");
    world.login.loginToGlobal();
    world.settle();
    EXPECT_EQ(world.loader.requests().size(), 3u);
    EXPECT_EQ(world.takeEvents(), (Events{"LoginStarted", "LoginStarted", "LoginFailed"}));
}

TEST(LoginTest, waitsForTheNetworkAndTriesAgainWhenItComes) {
    ConnectorWorld world({.isDataIsland = true, .settings = {}});
    world.loader.when(urlContains("login2")).reply(200, kDomainReply);
    world.reachability.setOnline(false);
    world.login.loginToGlobal();
    EXPECT_EQ(world.takeEvents(), Events{}) << "no credentials";
    world.setCredentials();
    world.login.loginToGlobalFirstTime();
    EXPECT_EQ(world.takeEvents(), Events{});
    world.login.loginToGlobal();
    EXPECT_EQ(world.takeEvents(), (Events{"LoginStarted", "ConnectionFailed"}));
    world.reachability.setOnline(true);
    world.settle();
    EXPECT_EQ(world.takeEvents(), (Events{"LoginStarted", "LoggedIn"}));
    world.reachability.setOnline(false);
    world.reachability.setOnline(true);
    world.settle();
    EXPECT_EQ(world.takeEvents(), Events{}) << "the last attempt did not fail";
}

TEST(LoginTest, everyDomainAnswersOnceAndSharesAreCaughtUp) {
    ConnectorWorld world;
    world.pretendLoggedIn(3);
    world.addShare("gone", 5, "d9");
    world.addShare("kept", 7, "d3");
    world.loader.when(urlContains("clientgateway.d0.test/ClientLogin"))
        .reply(200, R"({"ManagedShares":[)" + shareJson("s1") + "]}");
    world.loader.when(urlContains("clientgateway.d1.test/ClientLogin")).reply(500, "{}");
    world.loader.when(urlContains("clientgateway.d3.test/ClientLogin"))
        .reply(200, R"({"Message":"try later"})");
    world.loader.when(urlContains("CatchUp7"))
        .reply(200, R"({"TwVirtualFiles":[],"ShareTick":0,"LargestTick":0})");
    world.reachability.setReachable("clientgateway.d2.test", false);

    world.login.domainLogin();
    world.login.domainLogin();  // a pass runs already
    world.settle();
    EXPECT_EQ(world.takeEvents(), Events{"DomainsLoggedIn"});
    ASSERT_EQ(world.loader.requests().size(), 4u);
    EXPECT_EQ(urls(world).front(),
              "GET https://clientgateway.d0.test/ClientLogin.aspx?userEmail=mia@example.com&token=token-d0");
    EXPECT_EQ(urls(world).back(), "POST https://clientgateway.d0.test/CatchUp7.aspx");
    EXPECT_EQ(header(world.loader.requests().back(), "token"), "a%2Bb");
    EXPECT_EQ(header(world.loader.requests().back(), "tickfrom"), "-1");
    ASSERT_EQ(world.login.failedDomains().size(), 2u);
    EXPECT_EQ(world.login.failedDomains()[0].Domain->DomainId, "d2");
    EXPECT_EQ(world.login.failedDomains()[1].Domain->DomainId, "d1");
    {
        const auto lock = world.store.beginReadStorage();
        EXPECT_TRUE(world.store.shareWithId("s1"));
        EXPECT_FALSE(world.store.shareWithId("gone")) << "its domain is the user's no more";
        EXPECT_TRUE(world.store.shareWithId("kept")) << "a reply without a share list is no empty share list";
    }
}

TEST(LoginTest, aReplyWithoutDomainsDropsNoShare) {
    ConnectorWorld world;
    world.setCredentials();
    world.session.setGlobalLoginResponce(std::make_shared<GlobalLoginResponce>());
    world.addShare("s1");
    world.login.domainLogin();
    world.settle();
    EXPECT_EQ(world.takeEvents(), Events{"DomainsLoggedIn"});
    const auto lock = world.store.beginReadStorage();
    EXPECT_TRUE(world.store.shareWithId("s1"));
}

}  // namespace
}  // namespace tarnwell::testing
