// Ports and desktop services over a private session bus: the client's end, and programs on the other.

#include <sys/stat.h>

#include <chrono>
#include <csignal>

#include "app/FileBrowserLink.h"
#include "platform/BackgroundQueue.h"
#include "platform/ClipboardProgram.h"
#include "platform/DBusDesktopServices.h"
#include "platform/DBusMessagePorts.h"
#include "platform/QtRunLoop.h"
#include "platform/SessionBus.h"
#include "support/LogCapture.h"
#include "support/PrivateBus.h"

#if defined(__SANITIZE_THREAD__)
// The system's libraries are not built for the thread sanitizer, which cannot see what their own threads
// lock.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
    return "race:libQt6DBus.so\nrace:libQt6Core.so\nrace:libdbus-1.so\nrace:libglib-2.0.so\nmutex:libQt6Core."
           "so\n";
}
#endif

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

struct MessagePortsTest : ::testing::Test, FileBrowserLink::Mediator {
    MessagePortsTest() : loop(argc, argv.data()), background(2, "test") {}
    void SetUp() override {
        if (!bus.started()) GTEST_SKIP() << "dbus-daemon is not installed";
    }
    void parseRemoteCommand(std::string_view text) override { heard.emplace_back(text); }
    void fileBrowserGone() override { ++gone; }
    void sendingFailed() override { ++failures; }

    /// Runs the loop until that holds.
    bool until(const std::function<bool()>& done, std::chrono::seconds deadline = 10s) {
        bool held = false;
        const auto check = loop.repeat(1ms, [&] {
            if (done()) {
                held = true;
                loop.quit(0);
            }
        });
        const auto end = loop.postAfter(deadline, [&] { loop.quit(1); });
        loop.exec();
        return held;
    }

    /// An extension: its end of the ports, on a connection of its own.
    struct Extension {
        explicit Extension(MessagePortsTest& test)
            : connection(test.loop, test.background), ports(connection) {
            ports.registerPort(
                FileBrowserLink::remotePortName, [this](auto message) { texts.push_back(message.bytes); },
                [this](const std::string& error) { ready = error.empty(); });
        }
        void say(MessagePortsTest& test, std::int32_t id, const std::string& bytes) {
            std::optional<bool> sent;
            ports.lookUp(FileBrowserLink::localPortName, [&](const auto& client) {
                ports.send(client, {id, bytes}, 5s, [&](bool succeeded) { sent = succeeded; });
            });
            ASSERT_TRUE(test.until([&] { return sent.has_value(); }));
            accepted = *sent;
        }
        SessionBus connection;
        DBusMessagePorts ports;
        Texts texts;
        bool ready = false;
        bool accepted = false;
    };

    int argc = 1;
    std::vector<char*> argv{const_cast<char*>("test"), nullptr};
    testing::LogCapture log;
    testing::PrivateBus bus;
    QtRunLoop loop;
    BackgroundQueue background;
    Texts heard;
    int gone = 0;
    int failures = 0;
};

TEST_F(MessagePortsTest, bothEndsMayComeAndGo) {
    SessionBus connection(loop, background);
    DBusMessagePorts ports(connection);
    FileBrowserLink link(ports, *this);
    link.setupMachPort();
    link.sendFinderCommand("hej", "/nobody/hears");

    auto first = std::make_unique<Extension>(*this);
    ASSERT_TRUE(until([&] { return first->ready && link.isConnected(); }));
    first->say(*this, 1, "badge:/a/ä: b");
    first->say(*this, 7, "badge:/dropped");
    first->say(*this, 1, std::string(MessagePorts::kLargestMessage, 'x'));
    EXPECT_TRUE(first->accepted);
    first->say(*this, 1, std::string(MessagePorts::kLargestMessage + 1, 'x'));
    EXPECT_FALSE(first->accepted);
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_EQ(heard[0], "badge:/a/ä: b");
    first->texts.clear();  // the one from before it came may have reached it
    for (int i = 0; i < 500; ++i)
        link.sendFinderCommand("overlay(1)", "/" + std::to_string(i));
    ASSERT_TRUE(until([&] { return first->texts.size() == 500; })) << first->texts.size();
    EXPECT_EQ(first->texts.front(), "overlay(1):/0");
    EXPECT_EQ(first->texts.back(), "overlay(1):/499");

    first.reset();
    ASSERT_TRUE(until([&] { return gone == 1 && !link.isConnected(); }));
    Extension second(*this);
    ASSERT_TRUE(until([&] { return link.isConnected(); }));
    link.sendFinderCommand("hej", "/m");
    ASSERT_TRUE(until([&] { return second.texts == Texts{"hej:/m"}; }));
    EXPECT_EQ(failures, 0);

    bool taken = false;
    ports.registerPort(
        FileBrowserLink::remotePortName, [](auto) {},
        [&](const std::string& error) { taken = !error.empty(); });
    EXPECT_TRUE(until([&] { return taken; })) << "a name has one holder";
}

TEST_F(MessagePortsTest, anExtensionThatDoesNotReadIsGivenASecond) {
    SessionBus connection(loop, background);
    DBusMessagePorts ports(connection);
    FileBrowserLink link(ports, *this);
    link.setupMachPort();
    auto extension = std::make_unique<Extension>(*this);
    ASSERT_TRUE(until([&] { return link.isConnected(); }));
    bus.signal(SIGSTOP);  // nobody passes anything on
    const auto begin = std::chrono::steady_clock::now();
    link.sendFinderCommand("overlay(2)", "/a");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 200ms) << "the main thread does not wait";
    ASSERT_TRUE(until([&] { return failures == 1; }, 5s));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 900ms);
    EXPECT_TRUE(log.contains(
        "Failed to send findercommand overlay(2) : send port is connected, but sending failed."));
    bus.signal(SIGCONT);
    link.sendFinderCommand("overlay(3)", "/a");
    EXPECT_TRUE(
        until([&] { return !extension->texts.empty() && extension->texts.back() == "overlay(3):/a"; }));
}

TEST_F(MessagePortsTest, withoutABusThereIsNoPortAndNothingWaits) {
    for (const char* address : {"", "unix:path=/nonexistent/bus"}) {
        setenv("DBUS_SESSION_BUS_ADDRESS", address, 1);
        setenv("XDG_RUNTIME_DIR", "/nonexistent", 1);
        SessionBus connection(loop, background);
        DBusMessagePorts ports(connection);
        FileBrowserLink link(ports, *this);
        const auto lines = log.count("Finder integration will be unavailable.");
        link.setupMachPort();
        ASSERT_TRUE(until([&] { return log.count("Finder integration will be unavailable.") > lines; }))
            << address;
        EXPECT_TRUE(log.contains("Error! Cannot register mach port with name com.tarnwell.findertalk."));
        link.sendFinderCommand("hej", "/m");
        DBusDesktopServices desktop(connection, "Tarnwell");
        desktop.deliverNotification("title", "text");
        EXPECT_FALSE(desktop.openUrl("file:///etc/passwd"));
    }
    EXPECT_EQ(failures, 0);
}

TEST_F(MessagePortsTest, theClipboardsProgramAnswersOrNot) {
    testing::TemporaryFolder folder;
    const auto program = [&](const std::string& name, const std::string& script) {
        const std::string path = folder.write(name, "#!/bin/sh\n" + script);
        chmod(path.c_str(), 0700);
        return path;
    };
    const std::string got = folder.path("got");
    const std::string good = program("good", "cat > " + got + "; printf +; exec sleep 1 <&- >&-");
    const std::tuple<const char*, std::string, std::string, bool> rows[] = {
        {":1", good, "https://x/?a&b", true},
        {":1", program("dies", "kill -9 $$"), "https://x", false},
        {":1", folder.path("missing"), "https://x", false},
        {"", good, "https://x", false},
        {":1", good, std::string(100'000, 'x'), false},
    };
    for (const auto& [display, path, link, succeeds] : rows) {
        setenv("DISPLAY", display, 1);
        std::optional<bool> answer;
        ClipboardProgram clipboard(path);
        clipboard.setLink(link, [&](bool succeeded) { answer = succeeded; });
        EXPECT_FALSE(answer.has_value()) << "later, never inside the call";
        ASSERT_TRUE(until([&] { return answer.has_value(); })) << path;
        EXPECT_EQ(answer, succeeds) << path;
    }
    EXPECT_EQ(folder.read("got"), "https://x/?a&b");
    unsetenv("DISPLAY");
}

}  // namespace
}  // namespace tarnwell
