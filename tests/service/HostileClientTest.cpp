#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <deque>

#include "service/ServiceWorld.h"

namespace tarnwell::service::testing {
namespace {

class HostileClientTest : public ServiceWorld {
  protected:
    bool answers() {
        return client_->get("localhost", "/GetUserDomain.aspx?useremail=ben@beta.test").status == 200;
    }
    std::string exchange(const std::string& request) {
        RawPeer peer(service_->port());
        EXPECT_TRUE(peer.handshake());
        peer.send(request);
        const auto reply = peer.readToEnd();
        EXPECT_FALSE(peer.timedOut()) << "neither answered nor closed";
        return reply;
    }
};

std::string post(const std::string& host, const std::string& path, const std::string& rest) {
    return "POST " + path + " HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n" + rest;
}

std::string get(const std::string& host, const std::string& target, const std::string& rest = "") {
    return "GET " + target + " HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n" + rest + "\r\n";
}

TEST_F(HostileClientTest, eachBadRequestGetsItsErrorAndTheServerLivesOn) {
    serve();
    const std::string gateway = "clientgateway.alpha.localhost";
    const std::string cache = "filecache01.alpha.localhost";
    const std::string catchUp = "/CatchUp7.aspx";
    const std::string form = "POST /clientfileapi.ashx HTTP/1.1\r\nHost: " + cache + "\r\n";
    const std::string page = "share: x\r\ntoken: x\r\ntickfrom: 0\r\nticktake: 1\r\n";
    struct {
        const char* what;
        std::string request;
        int status;
    } const cases[] = {
        {"no host", "GET / HTTP/1.1\r\nConnection: close\r\n\r\n", 400},
        {"path of another role", get(gateway, "/GetUserDomain.aspx?useremail=ben@beta.test"), 404},
        {"unknown domain", get("clientgateway.gamma.localhost", "/login2.aspx"), 404},
        {"absolute target", get("localhost", "https://localhost/GetUserDomain.aspx"), 400},
        {"unknown method", "BREW /read.aspx HTTP/1.1\r\nHost: " + cache + "\r\nConnection: close\r\n\r\n",
         405},
        {"broken escape", get(gateway, "/ClientLogin.aspx?userEmail=%zz&token=x"), 400},
        {"zero byte", get(gateway, "/ClientLogin.aspx?userEmail=a%00b&token=x"), 400},
        {"false token", get(gateway, "/ClientLogin.aspx?userEmail=ben@beta.test&token=x"), 403},
        {"password not base64", get(gateway, "/login2.aspx", "useremail: a@b.c\r\npassword2: ?\r\n"), 400},
        {"no valid token", post(gateway, catchUp, page + "\r\n"), 403},
        {"large number",
         post(gateway, catchUp, "share: x\r\ntoken: x\r\ntickfrom: 4294967296\r\nticktake: 1\r\n\r\n"), 400},
        {"not HTTP", "\x16\x03\x01 what is this\r\n\r\n", 400},
        {"long line", get("localhost", "/" + std::string(20'000, 'a')), 431},
        {"endless header", "GET / HTTP/1.1\r\nX: " + std::string(40'000, 'a'), 431},
        {"long body announced", post(gateway, catchUp, "Content-Length: 10000000\r\n\r\n"), 413},
        {"absurd length", post(gateway, catchUp, "Content-Length: 99999999999999999999\r\n\r\n"), 400},
        {"long body in pieces",
         post(gateway, catchUp, "Transfer-Encoding: chunked\r\n\r\n10000\r\n" + std::string(0x10000, 'a')),
         413},
        {"body where none belongs", post("localhost", "/nothing", "Content-Length: 5\r\n\r\nhello"), 413},
        {"unknown action", form + "Connection: close\r\nContent-Length: 11\r\n\r\naction=burn", 400},
    };
    for (const auto& one : cases) {
        const auto reply = exchange(one.request);
        EXPECT_EQ(reply.substr(0, 13), "HTTP/1.1 " + std::to_string(one.status) + " ")
            << one.what << ": " << reply;
    }
    EXPECT_TRUE(answers());
}

TEST_F(HostileClientTest, slowAndSilentPeersAreDropped) {
    ServerOptions options;
    options.handshakeTimeout = options.idleTimeout = options.headerTimeout = options.stallTimeout =
        std::chrono::milliseconds(300);
    serve(options);
    RawPeer silent(service_->port());
    EXPECT_EQ(silent.readToEnd(), "");
    EXPECT_FALSE(silent.timedOut());

    RawPeer garbage(service_->port());
    garbage.send("GET / HTTP/1.1\r\n\r\n" + std::string(2000, 'x'));
    garbage.readToEnd();
    EXPECT_FALSE(garbage.timedOut());

    for (const char* beginning :
         {"", "GET / HT", "GET / HTTP/1.1\r\nHost: x\r\n",
          "POST /CatchUp7.aspx HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\nhalf"}) {
        RawPeer slow(service_->port());
        ASSERT_TRUE(slow.handshake());
        slow.send(beginning);
        EXPECT_EQ(slow.readToEnd(), "") << beginning;
        EXPECT_FALSE(slow.timedOut()) << beginning;
    }
    EXPECT_TRUE(answers());
}

TEST_F(HostileClientTest, connectionsBeyondTheLimitAreClosedUntilOneLeaves) {
    ServerOptions options;
    options.maxConnections = 3;
    serve(options);
    std::deque<RawPeer> peers;
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(peers.emplace_back(service_->port()).handshake());
    RawPeer extra(service_->port());
    EXPECT_FALSE(extra.handshake());
    peers.clear();
    // Room is made when the server has seen the end of one; the client's own retries stand for the wait.
    bool served = false;
    for (int i = 0; i < 1000 && !served; ++i)
        served = answers();
    EXPECT_TRUE(served);
}

TEST_F(HostileClientTest, nothingSecretReachesTheLog) {
    service_.reset();
    ::testing::internal::CaptureStderr();
    ServiceLog loud(false);
    ServerOptions options;
    options.port = 0;
    Service service(*data_, options, loud);
    service.start();
    client_ = std::make_unique<HttpsClient>(data_->certificates().authority.string(), service.port());
    const auto session = login("alpha.localhost", "anna@alpha.test", "anna's");
    sharesReply("alpha.localhost", "anna@alpha.test", session.token);
    const auto token = shareTokens("alpha.localhost", "anna@alpha.test", "anna's").at("Docs");
    catchUpReply("alpha.localhost", docs_.id, token, "-1");
    readReply("alpha.localhost", token, "Unknown", "0", "1");
    loginReply("clientgateway.alpha.localhost", "/login2.aspx", "anna@alpha.test", "wrong one");
    client_->get("localhost", "/forged%0a\x01line");
    service.stop();
    const auto log = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("GET /ClientLogin.aspx clientgateway.alpha.localhost"), std::string::npos) << log;
    for (const std::string& secret : {session.token, token, std::string("anna's"), std::string("YW5uYSdz"),
                                      std::string("d3Jvbmcgb25l"), std::string("\x01")}) {
        EXPECT_EQ(log.find(secret), std::string::npos) << secret << " in " << log;
    }
}

TEST_F(HostileClientTest, tlsIsModernAndResumesSessions) {
    serve();
    EXPECT_FALSE(RawPeer(service_->port()).handshake(TLS1_1_VERSION));
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        SCOPED_TRACE(version);
        RawPeer first(service_->port());
        ASSERT_TRUE(first.handshake(version));
        first.send(get("localhost", "/"));
        first.readToEnd();  // the ticket of TLS 1.3 comes with the first bytes
        RawPeer second(service_->port());
        ASSERT_TRUE(second.handshake(version, &first));
        EXPECT_TRUE(second.resumed());
    }
}

TEST_F(HostileClientTest, aPeerThatDoesNotReadCannotHoldUpTheEnd) {
    const auto file = addFile(docs_, "large", std::string(32 << 20, 'x'));
    ServerOptions options;
    options.stopGrace = std::chrono::milliseconds(200);
    serve(options);
    const auto token = shareTokens("alpha.localhost", "anna@alpha.test", "anna's").at("Docs");
    RawPeer deaf(service_->port());
    ASSERT_TRUE(deaf.handshake());
    deaf.send(get("filecache01.alpha.localhost", "/read.aspx",
                  "Token: " + token + "\r\nfileName: " + file->UploadName.str() +
                      "\r\nposition: 0\r\nchunk: 100000000\r\n"));
    ASSERT_NE(deaf.readUntil("200 OK"), "");
    const auto begin = std::chrono::steady_clock::now();
    stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_F(HostileClientTest, requestsInARowAreAnsweredInOrderOnOneConnection) {
    serve();
    RawPeer peer(service_->port());
    ASSERT_TRUE(peer.handshake());
    peer.send(
        "GET /GetUserDomain.aspx?useremail=ben@beta.test HTTP/1.1\r\nHost: localhost\r\n\r\n" +
        std::string("HEAD /x HTTP/1.1\r\nHost: localhost\r\n\r\n") +
        "POST /clientfileapi.ashx HTTP/1.1\r\nHost: filecache01.alpha.localhost\r\nExpect: 100-continue\r\n"
        "Content-Length: 11\r\n\r\n");
    peer.readUntil("100 Continue");
    peer.send("action=burn" + get("localhost", "/"));
    const auto rest = peer.readToEnd();
    EXPECT_NE(rest.find("400 Bad Request"), std::string::npos) << rest;
    EXPECT_NE(rest.find("404 Not Found"), std::string::npos) << rest;
}

}  // namespace
}  // namespace tarnwell::service::testing
