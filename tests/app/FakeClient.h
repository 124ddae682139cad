#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/ApplicationIdentity.h"
#include "app/TWApplicationDelegate.h"
#include "connector/DownloadEngine.h"
#include "connector/TWConnector.h"
#include "platform/NotificationCenter.h"
#include "store/TWMetadataStorage.h"
#include "support/FakeClock.h"
#include "support/FakeReachability.h"
#include "support/ManualExecutors.h"
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

    TemporaryFolder home;
    MemoryUserDefaults defaults;
    MemoryKeychain keychain;
    FakeClock clock;
    ManualRunLoop loop{&clock};
    InlineExecutor background;
    NotificationCenter notifications;
    FakeReachability reachability;
    ScriptedUrlLoader service;
    Alerts alerts;
    CommandSocket socket;

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
