#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <optional>
#include <sstream>

#include "service/Commands.h"
#include "service/FileDescriptor.h"
#include "service/Schema.h"
#include "service/ServiceError.h"
#include "service/ServiceWorld.h"
#include "service/ServingProcess.h"

namespace tarnwell::service::testing {
namespace {

class CommandTest : public ServiceWorld {
  protected:
    int run(std::vector<std::string> arguments, const std::string& input = "") {
        arguments.insert(arguments.begin(), {"tarnwell-service", "--data", folder_.path("data")});
        std::vector<const char*> argv;
        for (const auto& argument : arguments)
            argv.push_back(argument.c_str());
        std::istringstream in(input);
        out_.str("");
        err_.str("");
        return runCommand(static_cast<int>(argv.size()), argv.data(), in, out_, err_);
    }
    std::ostringstream out_, err_;
};

TEST_F(CommandTest, refusalsSayWhatIsWrongAndExitWithOne) {
    metadata().addShare("Docs", beta_.id);
    addFile(docs_, "file", "x");
    struct {
        std::vector<std::string> arguments;
        const char* input;
        const char* message;
    } const cases[] = {
        {{"fly"}, "", "subcommand"},
        {{"domain", "add", "Alpha", "--address", "other.localhost"}, "", "already"},
        {{"domain", "add", "Gamma", "--address", "ALPHA.localhost:99"}, "", "already"},
        {{"domain", "add", "Gamma", "--address", "clientgateway.x.y"}, "", "suffix"},
        {{"user", "add", "ANNA@alpha.test", "--domain", "Alpha", "--password-stdin"}, "p\n", "already"},
        {{"user", "add", "a,b@y.z", "--domain", "Alpha", "--password-stdin"}, "p\n", "cannot be sent"},
        {{"user", "add", "x@y.z", "--domain", "Alpha", "--password-stdin"}, "", "empty"},
        {{"share", "add", "a/b", "--domain", "Alpha"}, "", "slash"},
        {{"share", "rename", "Plans", "DOCS"}, "", "already"},
        {{"share", "grant", "Docs", "anna@alpha.test"}, "", "--domain"},
        {{"share", "import", "Plans", "/no/such/folder"}, "", "/no/such/folder"},
        {{"put", "Plans", "/dev/null", "x"}, "", "not a file"},
        {{"mv", "Docs", "--domain", "Alpha", "file", "none/file"}, "", "none"},
        {{"wipe-device", "anna@alpha.test", "unknown"}, "", "no such device"},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(run(one.arguments, one.input), 1);
        EXPECT_NE(err_.str().find(one.message), std::string::npos) << one.message << " in: " << err_.str();
        EXPECT_EQ(out_.str(), "");
    }
}

TEST_F(CommandTest, commandsTakeEffectOnARunningServer) {
    serve();
    EXPECT_EQ(run({"domain", "add", "Gamma", "--address", "gamma.localhost"}), 0);
    EXPECT_EQ(run({"user", "add", "carl@gamma.test", "--domain", "Gamma", "--password-stdin"}, "carl's\r\n"),
              0);
    EXPECT_EQ(run({"share", "add", "Music", "--domain", "Gamma"}), 0);
    EXPECT_EQ(run({"share", "grant", "music", "carl@gamma.test", "--read-only"}), 0);

    // The server's certificate covers the new domain within a second, without a restart.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    long status = 0;
    while (status == 0 && std::chrono::steady_clock::now() < deadline) {
        HttpsClient fresh(data_->certificates().authority.string(), service_->port());
        status = fresh.get("clientgateway.gamma.localhost", "/").status;
    }
    EXPECT_EQ(status, 404);
    client_ = std::make_unique<HttpsClient>(data_->certificates().authority.string(), service_->port());
    const auto token = shareTokens("gamma.localhost", "carl@gamma.test", "carl's").at("Music");
    const auto shareId = metadata().rightOfToken(token)->shareId;

    EXPECT_EQ(catchUpReply("gamma.localhost", shareId, token, "-1").status, 200);
    EXPECT_EQ(run({"wipe-device", "carl@gamma.test"}), 0);
    EXPECT_EQ(catchUpReply("gamma.localhost", shareId, token, "-1").status, 403);
}

TEST_F(CommandTest, theProcessKeepsEverythingOverRestartsAndStopsOnSignals) {
    const auto file = addFile(docs_, "kept", "kept");
    std::string token;
    for (const int signal : {SIGTERM, SIGINT}) {
        ServingProcess process(folder_.path("data"));
        const auto port = process.port();
        ASSERT_NE(port, 0);
        client_ = std::make_unique<HttpsClient>(data_->certificates().authority.string(), port);
        if (token.empty()) token = shareTokens("alpha.localhost", "anna@alpha.test", "anna's").at("Docs");
        EXPECT_EQ(readReply("alpha.localhost", token, file->UploadName.str(), "0", "9").body, "kept");
        ServingProcess second(folder_.path("data"));
        EXPECT_EQ(second.port(), 0) << "two servers on one folder";
        EXPECT_EQ(second.wait(), 1);
        // The idle kept connection of `client_` must not hold the end up.
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(process.stop(signal), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
    }
}

TEST_F(CommandTest, theProcessSurvivesAShortageOfDescriptors) {
    ServingProcess process(folder_.path("data"), RLIMIT_NOFILE, 40);
    const auto port = process.port();
    ASSERT_NE(port, 0);
    {
        std::deque<RawPeer> crowd;
        for (int i = 0; i < 100; ++i)
            crowd.emplace_back(port);
        EXPECT_TRUE(crowd.front().connected());
    }
    HttpsClient client(data_->certificates().authority.string(), port);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    long status = 0;
    while (status != 200 && std::chrono::steady_clock::now() < deadline) {
        status = client.get("localhost", "/GetUserDomain.aspx?useremail=ben@beta.test").status;
    }
    EXPECT_EQ(status, 200);
    EXPECT_EQ(process.stop(SIGTERM), 0);
}

TEST_F(CommandTest, secretsOnDiskArePrivate) {
    (void)data_->updateCertificates();
    for (const char* name : {"data", "data/service.db", "data/tls/ca-key.pem", "data/tls/server.pem"}) {
        struct stat status {};
        ASSERT_EQ(::stat(folder_.path(name).c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_mode & 077, 0u) << name;
    }
}

TEST_F(CommandTest, theAuthorityOutlivesItsServerCertificates) {
    EXPECT_TRUE(data_->updateCertificates());
    const auto authority = folder_.read("data/tls/ca.pem");
    EXPECT_FALSE(data_->updateCertificates()) << "a good certificate is kept";
    metadata().addDomain("Gamma", "gamma.localhost");
    EXPECT_TRUE(data_->updateCertificates());
    folder_.write("data/tls/server.pem", "damaged");
    EXPECT_TRUE(data_->updateCertificates());
    EXPECT_EQ(folder_.read("data/tls/ca.pem"), authority);
    std::filesystem::remove(folder_.path("data/tls/ca-key.pem"));
    EXPECT_THROW((void)data_->updateCertificates(), ServiceError);
}

TEST_F(CommandTest, aNewerDataFolderIsLeftAlone) {
    Database database(folder_.path("data/service.db"));
    database.execute("PRAGMA user_version = 99");
    EXPECT_THROW(migrateSchema(database), ServiceError);
    EXPECT_EQ(run({"user", "list"}), 1);
    EXPECT_NE(err_.str().find("newer version"), std::string::npos) << err_.str();
}

}  // namespace
}  // namespace tarnwell::service::testing
