#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "LocalTlsServer.h"
#include "platform/BackgroundQueue.h"
#include "platform/CurlUrlLoader.h"
#include "support/LogCapture.h"
#include "support/ManualExecutors.h"

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
using testing::LocalTlsServer;
using testing::LogCapture;
using testing::ManualExecutor;
using Request = LocalTlsServer::Request;
using Connection = LocalTlsServer::Connection;

bool answerOk(const Request&, Connection& connection) {
    connection.reply(200, "ok");
    return true;
}

/// Sends the request's body back; a size as target gives that many bytes.
bool echo(const Request& request, Connection& connection) {
    if (request.method == "POST")
        connection.reply(200, request.body);
    else
        connection.reply(200, std::string(std::stoul(request.target.substr(1)), 'x'));
    return true;
}

/// A handler that answers nothing until the peer leaves.
bool silence(const Request&, Connection& connection) {
    while (!connection.ended()) {
    }
    return false;
}

class UrlLoaderTest : public ::testing::Test {
  public:
    UrlLoaderTest() { ::signal(SIGPIPE, SIG_IGN); }  // the server's own writes
    static CurlUrlLoader::Options trusting(const LocalTlsServer& server) {
        return {.certificateAuthority = server.authorityFile()};
    }
    /// Asks for so many replies at once, each on a thread of its own.
    static std::vector<std::future<UrlReply>> getMany(int count, UrlLoader& loader, const std::string& url,
                                                      std::chrono::milliseconds timeout) {
        std::vector<std::future<UrlReply>> replies;
        for (int i = 0; i < count; ++i)
            replies.push_back(
                std::async(std::launch::async, [=, &loader] { return get(loader, url, timeout); }));
        return replies;
    }
    static UrlReply get(UrlLoader& loader, const std::string& url, std::chrono::milliseconds timeout = 10s) {
        return loader.sendSynchronously({.url = url, .idleTimeout = timeout});
    }
};

TEST_F(UrlLoaderTest, manyThreadsShareFewConnections) {
    LocalTlsServer server(echo);
    CurlUrlLoader loader(trusting(server));
    std::vector<std::jthread> threads;
    std::atomic<int> right = 0;
    for (int i = 0; i < 24; ++i) {
        threads.emplace_back([&, i] {
            for (int n = 0; n < 10; ++n) {
                const auto text = std::to_string(i) + "/" + std::to_string(n);
                const auto reply =
                    loader.sendSynchronously({.method = "POST", .url = server.url("/echo"), .body = text});
                if (reply.succeeded() && reply.body == text) ++right;
            }
        });
    }
    threads.clear();
    EXPECT_EQ(right, 240);
    EXPECT_LE(server.handshakes(), 8);
}

TEST_F(UrlLoaderTest, sendsWhatWasAskedAndNothingElse) {
    std::promise<Request> seen;
    LocalTlsServer server([&](const Request& request, Connection& connection) {
        seen.set_value(request);
        connection.reply(200, "");
        return true;
    });
    CurlUrlLoader loader(trusting(server));
    UrlRequest request{.method = "POST", .url = server.url("/a b?useremail=änn@example.org")};
    request.headers = {{"deviceid", ""}, {"token", "a%2Db"}, {"Content-Length", "77"}};
    ASSERT_TRUE(loader.sendSynchronously(request).succeeded());
    const auto sent = seen.get_future().get();
    EXPECT_EQ(sent.method, "POST");
    EXPECT_EQ(sent.target, "/a%20b?useremail=%C3%A4nn@example.org");
    std::map<std::string, std::string> headers(sent.headers.begin(), sent.headers.end());
    EXPECT_EQ(headers.erase("host"), 1u);
    EXPECT_EQ(headers, (std::map<std::string, std::string>{{"accept", "*/*"},
                                                           {"content-length", "0"},
                                                           {"deviceid", ""},
                                                           {"token", "a%2Db"},
                                                           {"user-agent", "Tarnwell"}}));
}

TEST_F(UrlLoaderTest, refusesMalformedRequestsBeforeSending) {
    LocalTlsServer server(answerOk);
    CurlUrlLoader loader(trusting(server));
    const auto good = server.url("/");
    const UrlRequest cases[] = {
        {.url = good, .headers = {{"token", "a\r\nX-Evil: 1"}}},
        {.url = good, .headers = {{"token", std::string("a\0b", 3)}}},
        {.url = good, .headers = {{"token:", "a"}}},
        {.url = good, .headers = {{"", "a"}}},
        {.url = good, .headers = {{"Transfer-Encoding", "chunked"}}},
        {.method = "GET / HTTP/1.1\r\nX:", .url = good},
        {.url = good + "\r\nX-Evil: 1"},
        {.url = "http" + good.substr(5)},
        {.url = "file:///etc/passwd"},
        {.url = ""},
    };
    for (const auto& request : cases) {
        const auto reply = loader.sendSynchronously(request);
        EXPECT_EQ(reply.status, 0);
        EXPECT_THAT(reply.error, ::testing::StartsWith("invalid ")) << request.url;
    }
    EXPECT_EQ(server.accepted(), 0);
}

TEST_F(UrlLoaderTest, trustsOnlyKnownAuthoritiesAndTheRightName) {
    LogCapture log;
    LocalTlsServer server(answerOk), other(answerOk), named(answerOk, "only.localhost");
    {
        CurlUrlLoader system;
        EXPECT_FALSE(get(system, server.url("/")).error.empty()) << "an unknown authority was trusted";
        CurlUrlLoader wrong(trusting(other));
        EXPECT_FALSE(get(wrong, server.url("/")).error.empty()) << "another authority was trusted";
        CurlUrlLoader right(trusting(named));
        EXPECT_FALSE(get(right, named.url("/")).error.empty())
            << "a certificate for another name was accepted";
        EXPECT_TRUE(get(right, named.url("/", "only.localhost")).succeeded());
        EXPECT_TRUE(get(right, named.url("/", "127.0.0.1")).succeeded());
    }
    CurlUrlLoader missing({.certificateAuthority = "/nonexistent/ca.pem"});
    EXPECT_FALSE(get(missing, server.url("/")).error.empty());
    EXPECT_TRUE(log.contains("/nonexistent/ca.pem")) << log.text();
    EXPECT_EQ(server.handshakes(), 0);
}

TEST_F(UrlLoaderTest, repliesThatAreNotWholeAreErrors) {
    const struct {
        const char* what;
        std::string bytes;
    } cases[] = {
        {"body cut short", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly this"},
        {"chunk cut short", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n64\r\nonly this"},
        {"no length, connection lost", "HTTP/1.1 200 OK\r\n\r\nonly this"},
        {"no reply", ""},
        {"not HTTP", "220 mail.example.org ESMTP\r\n"},
        {"nonsense length", "HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n"},
    };
    for (const auto& [what, bytes] : cases) {
        LocalTlsServer server([&bytes = bytes](const Request&, Connection& connection) {
            connection.write(bytes);
            return false;
        });
        CurlUrlLoader loader(trusting(server));
        const auto reply = get(loader, server.url("/"));
        EXPECT_FALSE(reply.error.empty()) << what;
        EXPECT_FALSE(reply.succeeded()) << what;
    }
}

TEST_F(UrlLoaderTest, limitsTheReplyAlsoWhenItsLengthIsHiddenOrCompressed) {
    // gzip's form of 100,000 zero bytes.
    static const auto kPacked = std::string(
                                    "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03\xed\xc1\x31\x01\x00\x00\x00\xc2"
                                    "\xa0\xf5\x4f\x6d\x0d\x0f\xa0",
                                    25) +
                                std::string(96, '\0') +
                                std::string("\x80\x57\x03\x7d\x95\x11\xd4\xa0\x86\x01\x00", 11);
    LocalTlsServer server([](const Request& request, Connection& connection) {
        if (request.target == "/chunked") {
            connection.write("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
            for (int i = 0; i < 100; ++i)
                connection.write("3e8\r\n" + std::string(1000, 'x') + "\r\n");
            connection.write("0\r\n\r\n");
        } else if (request.target == "/packed") {
            connection.reply(200, kPacked, "Content-Encoding: gzip\r\n");
        } else {
            return echo(request, connection);
        }
        return true;
    });
    CurlUrlLoader loader(trusting(server));
    for (const auto* target : {"/chunked", "/100000", "/packed"}) {
        UrlRequest request{.url = server.url(target), .maximumReplyBytes = 100'000, .acceptCompressed = true};
        const auto whole = loader.sendSynchronously(request);
        EXPECT_EQ(whole.error, "") << target;
        EXPECT_EQ(whole.body.size(), 100'000u) << target;
        request.maximumReplyBytes = 99'999;
        EXPECT_EQ(loader.sendSynchronously(request).error, "the reply is too long") << target;
    }
    EXPECT_LT(get(loader, server.url("/2000000")).body.capacity(), 2'004'096u)
        << "the buffer grew by doubling";
}

TEST_F(UrlLoaderTest, idleTimeCountsFromTheLastByteNotFromTheStart) {
    LocalTlsServer server([](const Request&, Connection& connection) {
        connection.write("HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\n");
        for (int i = 0; i < 8; ++i) {
            const auto next = std::chrono::steady_clock::now() + 150ms;
            while (std::chrono::steady_clock::now() < next) {
                if (connection.ended()) return false;
            }
            connection.write("x");
        }
        return true;
    });
    CurlUrlLoader loader(trusting(server));
    EXPECT_TRUE(get(loader, server.url("/"), 1000ms).succeeded())
        << "a slow transfer that moves was given up";
    EXPECT_EQ(get(loader, server.url("/"), 60ms).error, "timed out");

    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(
        loader.sendSynchronously({.url = server.url("/"), .idleTimeout = 10s, .totalTimeout = 400ms}).error,
        "timed out")
        << "bytes that trickle hold nobody for ever";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1100ms);
}

TEST_F(UrlLoaderTest, silentServersAndDeadConnectionsTimeOut) {
    LocalTlsServer server(silence);
    CurlUrlLoader loader(trusting(server));
    // Accepts connections and never says a word: the handshake hangs.
    const int mute = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ASSERT_EQ(::listen(mute, 4), 0);  // on a port of the system's choice
    ASSERT_EQ(::getsockname(mute, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const auto muteUrl = "https://mute.localhost:" + std::to_string(ntohs(address.sin_port)) + "/";
    for (const auto& url : {server.url("/"), muteUrl}) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(get(loader, url, 200ms).error, "timed out") << url;
        EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    }
    ::close(mute);
    EXPECT_THAT(get(loader, muteUrl).error, ::testing::HasSubstr("connect"))
        << "a refused connection fails at once";
}

TEST_F(UrlLoaderTest, requestsBehindADeadHostDoNotWaitTwice) {
    LocalTlsServer server(silence), alive(answerOk);
    CurlUrlLoader loader({.certificateAuthority = server.authorityFile()});
    const auto start = std::chrono::steady_clock::now();
    auto dead = getMany(30, loader, server.url("/"), 1500ms);
    // Another host is not held up (its certificate is not trusted here, which is an answer too).
    EXPECT_FALSE(get(loader, alive.url("/", "alive.localhost")).error.empty());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
    for (auto& reply : dead)
        EXPECT_EQ(reply.get().error, "timed out");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4500ms) << "one time-out after another";
}

TEST_F(UrlLoaderTest, connectionsAreKeptAndReplacedAndRedirectsNotFollowed) {
    for (const bool kept : {true, false}) {
        LocalTlsServer server([kept](const Request& request, Connection& connection) {
            connection.reply(request.target == "/" ? 302 : 200, "moved", "Location: /secret\r\n");
            return kept;  // or closes without a word
        });
        CurlUrlLoader loader(trusting(server));
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(get(loader, server.url("/")).status, 302);
        EXPECT_EQ(server.handshakes(), kept ? 1 : 5);
        EXPECT_EQ(loader.connectionsOpened(), kept ? 1u : 5u);
    }
}

TEST_F(UrlLoaderTest, stopFailsWhatRunsAndWhatComes) {
    LocalTlsServer server(silence);
    CurlUrlLoader loader(trusting(server));
    BackgroundQueue queue(2);
    auto blocked = getMany(12, loader, server.url("/"), 60s);  // some run, some wait
    std::promise<UrlReply> asynchronous;
    loader.sendAsynchronously({.url = server.url("/")}, queue,
                              [&](UrlReply reply) { asynchronous.set_value(std::move(reply)); });
    while (server.handshakes() < 8)
        std::this_thread::yield();
    const auto start = std::chrono::steady_clock::now();
    loader.stop();
    for (auto& reply : blocked)
        EXPECT_EQ(reply.get().error, "cancelled");
    EXPECT_EQ(asynchronous.get_future().get().error, "cancelled");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_EQ(get(loader, server.url("/")).error, "cancelled");
    loader.stop();
}

}  // namespace
}  // namespace tarnwell
