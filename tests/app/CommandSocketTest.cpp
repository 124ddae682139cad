// The command socket from both ends: a real server on a real loop, clients on threads of their own.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

#include "platform/LocalSocket.h"
#include "platform/QtLocalServer.h"
#include "platform/QtRunLoop.h"
#include "support/TemporaryFolder.h"

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
using testing::TemporaryFolder;

struct CommandSocketTest : ::testing::Test {
    CommandSocketTest() : loop(argc, argv.data()), server(std::make_unique<QtLocalServer>()) {}

    void listen(const std::string& path) {
        std::string error;
        ASSERT_TRUE(server->listen(
            path,
            [this](const std::string& text, LocalServer::Reply reply) {
                heard.push_back(text);
                if (onText) onText(text, std::move(reply));
            },
            error))
            << error;
    }
    /// Runs `client` on a thread and the loop meanwhile.
    void serve(const std::function<void()>& client) {
        std::thread thread([&] {
            client();
            loop.quit(0);
        });
        loop.exec();
        thread.join();
    }

    int argc = 1;
    std::vector<char*> argv{const_cast<char*>("test"), nullptr};
    QtRunLoop loop;
    std::unique_ptr<QtLocalServer> server;
    TemporaryFolder folder;
    std::vector<std::string> heard;
    std::function<void(const std::string&, LocalServer::Reply)> onText;
};

TEST_F(CommandSocketTest, carriesOneTextAndItsAnswer) {
    // Longer than a socket's address may be.
    const std::string name = std::string(150, 'd') + "/" + std::string(150, 'e') + "/.cmdsckt";
    const std::string path = folder.write(name, "left over by a crash");
    listen(path);
    struct stat socket {};
    ASSERT_EQ(stat(path.c_str(), &socket), 0);
    EXPECT_EQ(socket.st_mode, S_IFSOCK | 0600u) << "nobody else may send commands";

    const std::string big(kLocalTextLimit - 100, 'x');  // longer than the socket's buffers, both ways
    onText = [&](const std::string& text, LocalServer::Reply reply) {
        if (text == "later") {
            loop.async([reply] { reply("much later"); });
        } else if (text != "ignored") {
            reply(text);
            reply("twice");
        }
    };
    serve([&] {
        for (const std::string& text : {big, std::string()})
            EXPECT_TRUE(sendLocalText(path, text, 10s).text == text);
        EXPECT_EQ(sendLocalText(path, "later", 10s).text, "much later");
        const auto dropped = sendLocalText(path, "ignored", 10s);
        EXPECT_TRUE(dropped.connected && dropped.error.empty() && dropped.text.empty());
    });
    EXPECT_EQ(heard.size(), 4u);

    server->close();
    EXPECT_FALSE(folder.exists(name));
    EXPECT_FALSE(sendLocalText(path, "x", 1s).connected);
}

TEST_F(CommandSocketTest, survivesClientsThatBreakTheRules) {
    const std::string path = folder.path("s");
    listen(path);
    std::vector<LocalServer::Reply> kept;
    onText = [&](const std::string& text, LocalServer::Reply reply) {
        if (text == "keep") {
            kept.push_back(std::move(reply));
        } else {
            reply("fine");
        }
    };
    serve([&] {
        const auto tooLong = sendLocalText(path, std::string(2 * kLocalTextLimit, 'x'), 10s);
        EXPECT_FALSE(tooLong.error.empty());
        const auto impatient = sendLocalText(path, "keep", 20ms);
        EXPECT_FALSE(impatient.error.empty()) << "gone before its answer";
        std::vector<OwnedDescriptor> silent;
        for (int i = 0; i < 10; ++i) {
            silent.emplace_back(socket(AF_UNIX, SOCK_STREAM, 0));
            sockaddr_un address{AF_UNIX, {}};
            path.copy(address.sun_path, sizeof address.sun_path - 1);
            ASSERT_EQ(connect(silent.back().get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        }
        EXPECT_EQ(sendLocalText(path, "ok", 10s).text, "fine") << "silent clients hold nobody up";
    });
    heard.resize(2);  // the silent ones ended with the thread, without a text
    EXPECT_EQ(heard, (std::vector<std::string>{"keep", "ok"}));
    for (const auto& reply : kept)
        reply("into the void");
    server.reset();
    for (const auto& reply : kept)
        reply("after the server");
}

}  // namespace
}  // namespace tarnwell
