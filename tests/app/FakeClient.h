#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/ApplicationIdentity.h"
#include "app/TWApplicationDelegate.h"
#include "connector/DownloadEngine.h"
#include "connector/TWConnector.h"
#include "platform/DesktopServices.h"
#include "platform/MessagePorts.h"
#include "platform/NotificationCenter.h"
#include "store/TWMetadataStorage.h"
#include "support/FakeClock.h"
#include "support/FakeReachability.h"
#include "support/ManualRunLoop.h"
#include "support/MemoryKeychain.h"
#include "support/MemoryUserDefaults.h"
#include "support/ScriptedUrlLoader.h"
#include "support/TemporaryFolder.h"

namespace tarnwell::testing {

/// The whole client without a kernel mount, a network and real time: real store, connector and application
/// object.
struct FakeClient {
    explicit FakeClient(MemoryUserDefaults::Values settings = {});
    ~FakeClient();

    /// As a run begins, up to the main loop's first tasks.
    void start();
    /// A text on the command socket; what it is answered is in `answers`.
    void command(const std::string& text);
    /// Everything that was logged since the start.
    [[nodiscard]] std::string log() const;

    struct Alerts : UserInterface {
        void showAlert(const Alert& alert, std::function<void(std::size_t)> chosen) override {
            shown.push_back(alert);
            chosen(answer.value_or(alert.safeButton));
        }
        void askForLogin() override { ++loginQuestions; }
        std::vector<Alert> shown;
        std::optional<std::size_t> answer;
        int loginQuestions = 0;
    };
    struct CommandSocket : LocalServer {
        bool listen(const std::string&, Handler given, std::string&) override {
            handler = std::move(given);
            return true;
        }
        void close() override { handler = nullptr; }
        Handler handler;
    };
    struct Mount : FileSystemLayer {
        Mount(FakeClient& owner, Events given) : client(owner), events(std::move(given)) {}
        ~Mount() override { client.mounted = false; }
        void mount(const std::string&, const std::vector<std::string>&) override {
            if (client.mountFailure) return events.mountDidFailed(*client.mountFailure);
            client.mounted = true;
            events.didMount();
        }
        int unmount(bool) override {
            client.mounted = false;
            return 0;
        }
        FakeClient& client;
        Events events;
    };

    /// The extension's end of the ports.
    struct Ports : MessagePorts {
        void registerPort(const std::string&, Handler given,
                          std::function<void(std::string)> registered) override {
            handler = std::move(given);
            loop.async([=] { registered(""); });
        }
        void lookUp(const std::string&, std::function<void(Address)> found) override {
            loop.async([=, this] { found(extension); });
        }
        void watch(const std::string&, std::function<void(Address)> given) override { changed = given; }
        void send(const Address& to, const Message& message, std::chrono::milliseconds,
                  std::function<void(bool)> sent) override {
            const bool heard = to == extension;
            if (heard) texts.push_back(message.bytes);
            loop.async([=] { sent(heard); });
        }
        /// Another one comes, or the present one goes.
        void setExtension(const Address& address) {
            extension = address;
            changed(address);
            loop.runPending();
        }
        explicit Ports(ManualRunLoop& runLoop) : loop(runLoop) {}
        ManualRunLoop& loop;
        Handler handler;
        std::function<void(Address)> changed;
        Address extension;
        std::vector<std::string> texts;
    };
    struct Desktop : DesktopServices {
        bool openUrl(const std::string& url) override {
            done.push_back("open " + url);
            return true;
        }
        void showFolder(const std::string& path) override { done.push_back("show " + path); }
        void deliverNotification(const std::string& title, const std::string& text) override {
            done.push_back("notify " + title + " / " + text);
        }
        void postDistributedNotification(const std::string& name) override { done.push_back("post " + name); }
        std::vector<std::string> done;
    };
    struct LinkClipboard : Clipboard {
        void setLink(const std::string& link, std::function<void(bool)> done) override {
            contents = link;
            done(works);
        }
        std::string contents;
        bool works = true;
    };

    TemporaryFolder home;
    MemoryUserDefaults defaults;
    MemoryKeychain keychain;
    FakeClock clock;
    ManualRunLoop loop{&clock};
    NotificationCenter notifications;
    FakeReachability reachability;
    ScriptedUrlLoader service;
    Alerts alerts;
    CommandSocket socket;
    Ports ports{loop};
    Desktop desktop;
    LinkClipboard clipboard;

    // What the machine says.
    std::string otherInstance, fuseProblem;
    std::vector<std::string> programsWithOpenFiles;
    std::optional<std::string> mountFailure;

    // What came of it.
    bool mounted = false;
    std::optional<int> exitStatus;
    std::vector<std::string> answers;

    ApplicationIdentity identity;
    CacheLayout layout;
    TWMetadataStorage store;
    TWConnector connector;
    std::optional<TWApplicationDelegate> delegate;
};

}  // namespace tarnwell::testing
