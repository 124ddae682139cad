// The application as a whole: what a user, the service and the next run see of it.

#include <boost/json.hpp>
#include <filesystem>
#include <fstream>

#include "app/FakeClient.h"
#include "connector/OSXCatchUpResponse.h"
#include "util/RecordMapping.h"

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
using testing::FakeClient;
using testing::urlContains;
using Values = std::map<std::string, std::string>;

const Values kIsland{{"TWGlobalAddress", "example.localhost:8443"}};

/// A service with one domain and one share, "Papers".
void serveOneShare(FakeClient& client) {
    client.service.when(urlContains("login2.aspx"))
        .reply(200, R"({"ErrorCode":"U100","DeviceId":"device","PrimaryUserDomain":{"Domain":)"
                    R"({"DomainId":"dom","Url":"example.localhost:8443"},"UserDomainToken":"token"}})");
    ManagedShare share;
    share.ShareId = "s1";
    share.ShareName = "Papers";
    share.DomainId = "dom";
    share.GateWayUrl = "example.localhost:8443";
    share.ShareAcl.emplace().AclToken = "acl";
    client.service.when(urlContains("ClientLogin.aspx"))
        .reply(200, "{\"ManagedShares\":[" + toJsonText(share) + "]}");
    client.service.when(urlContains("CatchUp7.aspx")).reply(200, toJsonText(OSXCatchUpResponse{}));
}

boost::json::object status(FakeClient& client) {
    client.command("status:json");
    const std::string answer = client.answers.back();
    EXPECT_TRUE(answer.starts_with("ok\n")) << answer;
    return boost::json::parse(answer.substr(3)).as_object();
}

TEST(ApplicationTest, aRunThatWasCutOffAsksForEverythingAnew) {
    for (const bool cutOff : {false, true}) {
        FakeClient client(cutOff ? Values{} : Values{{"cleanShutdown", "true"}});
        client.start();
        EXPECT_EQ(client.connector.session().needsFullRefresh(), cutOff);
        EXPECT_EQ(client.defaults.stored().contains("needsFullRefresh"), cutOff);
        EXPECT_FALSE(client.defaults.stored().contains("cleanShutdown")) << "a crash of this run must show";

        client.delegate->endRequestedBySignal();
        EXPECT_EQ(client.exitStatus, 0);
        EXPECT_TRUE(client.defaults.stored().contains("cleanShutdown"));
    }
}

TEST(ApplicationTest, saysWhyNoDriveCanBeShown) {
    FakeClient without;
    without.fuseProblem = "no device";
    without.start();
    ASSERT_EQ(without.alerts.shown.size(), 1u);
    EXPECT_EQ(without.alerts.shown[0].text, "no device");
    EXPECT_EQ(without.exitStatus, 1);

    FakeClient refused(kIsland);
    refused.mountFailure = "permission denied";
    refused.start();
    serveOneShare(refused);
    refused.command("login:ann@example.org\nsecret");
    ASSERT_EQ(refused.alerts.shown.size(), 1u);
    EXPECT_EQ(refused.alerts.shown[0].title, "Unable to mount drive");
    EXPECT_EQ(refused.alerts.shown[0].text, "Error : mounting of the file system failed. permission denied");
    EXPECT_EQ(refused.exitStatus, 1);
}

TEST(ApplicationTest, logsInMountsReportsAndQuits) {
    FakeClient client(kIsland);
    serveOneShare(client);
    client.start();
    EXPECT_EQ(client.alerts.loginQuestions, 1);
    EXPECT_EQ(status(client)["state"], "loggedOut");
    client.command("refresh:");
    EXPECT_EQ(client.answers.back(), "failed\nnobody is logged in");

    client.command("login:ann@example.org\nsecret: 1");
    EXPECT_EQ(client.answers.back(), "ok\n");
    EXPECT_TRUE(client.mounted);
    EXPECT_EQ(client.keychain.password("Fern Disk.keys", "ann@example.org"), "secret: 1");
    EXPECT_EQ(client.log().find("secret"), std::string::npos);

    const auto report = status(client);
    EXPECT_EQ(report.at("state"), "online");
    EXPECT_EQ(report.at("mountPath").as_string(), client.home.path("Tarnwell"));
    EXPECT_TRUE(statusText(boost::json::serialize(report))->find("Papers") != std::string::npos);
    client.service.when(urlContains("ClientLogin.aspx")).reply(200, R"({"ManagedShares":[]})");
    client.command("refresh:");
    EXPECT_EQ(client.answers.back(), "ok\n");
    EXPECT_TRUE(status(client)["shares"].as_array().empty()) << "a share that was taken away";

    client.answers.clear();
    client.command("quit:");
    EXPECT_EQ(client.exitStatus, 0);
    EXPECT_FALSE(client.mounted);
    EXPECT_TRUE(client.answers.empty()) << "the answer is the end itself";
    client.delegate->answerQuitRequests();
    EXPECT_EQ(client.answers, std::vector<std::string>{"ok\n"});
}

TEST(ApplicationTest, worksOfflineTriesAgainEveryMinuteAndEndsWithTheUser) {
    FakeClient client(kIsland);
    client.service.when(urlContains("login2.aspx")).fail("refused");
    client.start();
    client.command("login:ann@example.org\nsecret");
    EXPECT_TRUE(client.mounted);
    const auto tries = [&] { return client.service.requests(urlContains("login2.aspx")).size(); };
    EXPECT_EQ(tries(), 1u);
    client.loop.advance(59s);
    EXPECT_EQ(tries(), 1u);
    client.loop.advance(1s);
    EXPECT_EQ(tries(), 2u);
    client.command("logout:");
    EXPECT_FALSE(client.mounted);
    client.loop.advance(10min);
    EXPECT_EQ(tries(), 2u);
    EXPECT_FALSE(client.mounted) << "nothing comes back";
}

TEST(ApplicationTest, openFilesKeepItRunning) {
    FakeClient client;
    client.start();
    client.programsWithOpenFiles = {"editor", "player"};
    client.command("quit:");
    EXPECT_TRUE(client.alerts.shown.empty()) << "a file that was closed just now holds nobody up";
    client.loop.advance(1s);
    ASSERT_EQ(client.alerts.shown.size(), 1u);
    EXPECT_EQ(client.alerts.shown[0].text,
              "The following applications still use the Tarnwell : \n\neditor\nplayer\n\nDo you really want "
              "to exit? "
              "This can lead to potential data loss.");
    EXPECT_TRUE(client.answers.back().starts_with("failed\n")) << client.answers.back();
    EXPECT_FALSE(client.exitStatus.has_value());

    FakeClient closing;
    closing.start();
    closing.programsWithOpenFiles = {"cat"};
    closing.delegate->endRequestedBySignal();
    closing.programsWithOpenFiles.clear();
    closing.loop.advance(1s);
    EXPECT_TRUE(closing.exitStatus == 0 && closing.alerts.shown.empty());
}

TEST(ApplicationTest, nothingOfAUserIsLeftForTheNext) {
    for (const std::string change : {"login:bob@example.org\nother", "logout:"}) {
        FakeClient client(kIsland);
        serveOneShare(client);
        client.start();
        client.command("login:ann@example.org\nsecret");
        ASSERT_TRUE(client.mounted) << change;
        const std::filesystem::path root = client.layout.rootCachePath();
        const char* const names[] = {"Files/s1/contents", "Uploads/u", "Downloads/d", "shares.db",
                                     "share_s1.db"};
        for (const char* name : names) {
            std::filesystem::create_directories((root / name).parent_path());
            std::ofstream(root / name) << "ann's";
        }
        std::ofstream(root / "notes.txt") << "not of the store";

        client.service.when(urlContains("ClientLogin.aspx")).reply(200, R"({"ManagedShares":[]})");
        client.command(change);
        EXPECT_EQ(client.answers.back(), "ok\n") << change;
        for (const char* name : names)
            EXPECT_FALSE(std::filesystem::exists(root / name)) << change << name;
        EXPECT_TRUE(std::filesystem::exists(root / "Files") && std::filesystem::exists(root / "notes.txt"));
        EXPECT_FALSE(client.keychain.password("Fern Disk.keys", "ann@example.org").has_value());
        {
            const auto lock = client.store.beginReadStorage();
            EXPECT_TRUE(client.store.shares().empty()) << change;
        }
        const bool bobIsIn = change.starts_with("login");
        EXPECT_EQ(client.mounted, bobIsIn);
        EXPECT_EQ(client.keychain.password("Fern Disk.keys", "bob@example.org").has_value(), bobIsIn);
        EXPECT_FALSE(client.store.shutdownBlocked());
    }
}

TEST(ApplicationTest, refusedPasswordAndUnknownCommandsAreReported) {
    FakeClient client(kIsland);
    client.start();
    client.service.when(urlContains("login2.aspx")).reply(200, R"({"ErrorCode":"U101"})");
    client.command("login:ann@example.org\nwrong");
    client.loop.advance(20s);
    EXPECT_EQ(client.service.requests(urlContains("login2.aspx")).size(), 3u);
    EXPECT_FALSE(client.mounted);
    EXPECT_NE(boost::json::serialize(status(client)["lastErrors"]).find("refuses"), std::string::npos);

    client.answers.clear();
    client.command("no command");
    client.command("login:");
    EXPECT_EQ(client.answers, std::vector<std::string>{"failed\nmalformed log-in request"});

    EXPECT_FALSE(client.delegate->excessiveLogging());
    client.defaults.storeElsewhere("TWExcessiveLogging", "1");
    client.command("settings:reload");
    EXPECT_TRUE(client.delegate->excessiveLogging());
}

TEST(ApplicationIdentityTest, titleBrandAndAddress) {
    const auto identity = [](Values map) {
        return ApplicationIdentity([map](std::string_view key) -> std::optional<std::string> {
            const auto found = map.find(std::string(key));
            return found == map.end() ? std::nullopt : std::optional(found->second);
        });
    };
    const auto beta = identity({{"CFBundleName", "TarnwellBeta"}, {"TWGlobalAddress", "*"}});
    EXPECT_EQ(beta.oldAppTitle, "FerndiskBeta");
    EXPECT_EQ(beta.globalAddress, kDefaultGlobalAddress);
    EXPECT_FALSE(beta.isDataIsland);
}

TEST(RecentErrorsTest, keepsTheNewestAndCutsLongOnes) {
    RecentErrors errors;
    for (const char* line : {"Warning! disk full : twice\n", "Warning! disk full : twice\n", "all is well\n"})
        errors.addLogLine(std::string("[12] 2026-11-15 15:40:41 +0000 : ") + line);
    EXPECT_EQ(errors.list(), std::vector<std::string>{"Warning! disk full : twice"});
    std::string accents = "x";
    while (accents.size() < 800)
        accents += "é";
    errors.add(accents);
    EXPECT_EQ(errors.list().back().size() % 2, 1u) << "never half a character";
    for (int i = 0; i < 100; ++i)
        errors.add(std::to_string(i));
    EXPECT_EQ(errors.list().size(), RecentErrors::kLimit);
    EXPECT_EQ(errors.list().back(), "99");
}

}  // namespace
}  // namespace tarnwell
