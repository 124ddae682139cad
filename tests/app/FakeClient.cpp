#include "app/FakeClient.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "util/TWLogger.h"

namespace tarnwell::testing {

FakeClient::FakeClient(MemoryUserDefaults::Values settings)
    : defaults(std::move(settings)),
      identity([this](std::string_view key) { return defaults.get(key); }),
      layout({home.path(), home.path("data"), home.path("cache"), identity.appTitle, identity.oldAppTitle}),
      store({layout, clock, loop, [this] { return connector.session().username(); }, [] {}}),
      connector({service, reachability, loop, loop, loop, loop, keychain, defaults, notifications, clock,
                 store,
                 ConnectorIdentity{identity.appTitle, identity.settingsTitle(), identity.version, "12.0.0",
                                   "desk", identity.isDataIsland, identity.globalAddress, ""}}) {
    store.setDownloadScheduler(&connector.downloads());
    delegate.emplace(TWApplicationDelegate::Environment{
        .identity = identity,
        .defaults = defaults,
        .mainLoop = loop,
        .background = loop,
        .notifications = notifications,
        .store = store,
        .connector = connector,
        .userInterface = alerts,
        .commandSocket = socket,
        .ports = ports,
        .desktop = desktop,
        .clipboard = clipboard,
        .storeKeeper = nullptr,
        .resourceFolder = home.path(),
        .makeFileSystem =
            [this](FileSystemLayer::Events events) {
                return std::make_unique<Mount>(*this, std::move(events));
            },
        .machine = {.otherInstance = [this] { return otherInstance; },
                    .checkFuseInstallation = [this] { return fuseProblem; },
                    .inAdminGroup = [] { return false; },
                    .checkForOldMountAtPath = [](const std::string&) {},
                    .deviceAtPath = [](const std::string&) { return std::string("0:1"); },
                    .programsWithOpenFiles = [this] { return programsWithOpenFiles; },
                    .checkOpenedFiles = [] {},
                    .quit = [this](int status) { exitStatus = status; }}});
}

FakeClient::~FakeClient() {
    connector.stop(std::chrono::seconds(10));
}

void FakeClient::start() {
    delegate->applicationWillFinishLaunching();
    loop.async([this] { delegate->applicationDidFinishLaunching(); });
    loop.runPending();
}

void FakeClient::command(const std::string& text) {
    socket.handler(text, [this](std::string answer) { answers.push_back(std::move(answer)); });
    loop.runPending();
}

std::string FakeClient::log() const {
    std::ostringstream text;
    for (const auto& file : std::filesystem::directory_iterator(layout.logsPath())) {
        text << std::ifstream(file.path()).rdbuf();
    }
    return text.str();
}

}  // namespace tarnwell::testing
