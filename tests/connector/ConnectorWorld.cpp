#include "connector/ConnectorWorld.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace tarnwell::testing {

namespace {

ConnectorIdentity identity(bool isDataIsland) {
    return {.appTitle = "Tarnwell",
            .settingsTitle = "Tarnwell",
            .appVersion = "1.2 (3)",
            .macosVersion = "6.1.0",
            .deviceName = "Mia's Büro",
            .isDataIsland = isDataIsland,
            .globalAddress = isDataIsland ? "island.test:8443" : "global.test",
            .internetProbe = "probe.test"};
}

UserDomain userDomain(int number) {
    const std::string id = "d" + std::to_string(number);
    return {.Domain = Domain{.DomainId = id, .Url = id + ".test", .DomainName = id, .ResellerId = {}},
            .UserDomainToken = "token-" + id};
}

}  // namespace

ConnectorWorld::ConnectorWorld(Options options)
    : defaults(std::move(options.settings)),
      layout({.home = folder.path("home"),
              .dataHome = folder.path("data"),
              .cacheHome = folder.path("cache"),
              .appTitle = "Tarnwell",
              .oldAppTitle = ""}),
      store({.layout = layout,
             .clock = clock,
             .background = background,
             .userName = [] { return std::string("mia@example.com"); },
             .saveDelayed = [] {}}),
      connector({.urlLoader = loader,
                 .reachability = reachability,
                 .mainLoop = loop,
                 .background = background,
                 .loginQueue = loginQueue,
                 .catchUpQueue = catchUpQueue,
                 .keychain = keychain,
                 .userDefaults = defaults,
                 .notifications = notifications,
                 .clock = clock,
                 .store = store,
                 .identity = identity(options.isDataIsland)}) {
    layout.initCachePathes();
    store.setDownloadScheduler(&downloads);
    const auto observe = [this]<class Notification>(const char* name, Notification*) {
        subscriptions_.push_back(
            notifications.observe<Notification>([this, name](const Notification& notification) {
                std::string event = name;
                if constexpr (requires { *notification.error; }) {
                    if (notification.error) event += ": " + *notification.error;
                } else if constexpr (requires { notification.error; }) {
                    if (notification.error) event += ": error";
                }
                if constexpr (requires { notification.progress; })
                    event += " " + std::to_string(notification.progress);
                events_.push_back(event);
            }));
    };
    observe("LoginStarted", static_cast<TWConnectorGlobalLoginStarted*>(nullptr));
    observe("LoggedIn", static_cast<TWConnectorGlobalLoggedIn*>(nullptr));
    observe("DomainsLoggedIn", static_cast<TWConnectorDomainsLoggedIn*>(nullptr));
    observe("ConnectionFailed", static_cast<TWConnectorGlobalConnectionFailed*>(nullptr));
    observe("LoginFailed", static_cast<TWConnectorGlobalLoginFailed*>(nullptr));
    observe("LoggedOut", static_cast<TWConnectorGlobalLoggedOut*>(nullptr));
    observe("DownloadStarted", static_cast<TWConnectorFileDownloadStarted*>(nullptr));
    observe("DownloadProgress", static_cast<TWConnectorFileDownloadProgress*>(nullptr));
    observe("DownloadFinished", static_cast<TWConnectorFileDownloadFinished*>(nullptr));
    observe("UploadStarted", static_cast<TWConnectorFileUploadStarted*>(nullptr));
    observe("UploadProgress", static_cast<TWConnectorFileUploadProgress*>(nullptr));
    observe("UploadFinished", static_cast<TWConnectorFileUploadFinished*>(nullptr));
}

void ConnectorWorld::settle() {
    while (background.runAll() + loginQueue.runAll() + catchUpQueue.runAll() + loop.runPending() > 0) {
    }
}

std::vector<std::string> ConnectorWorld::takeEvents() {
    return std::exchange(events_, {});
}

void ConnectorWorld::setCredentials() {
    session.setUsername("mia@example.com");
    session.setPassword("p\xC3\xA4ss");
}

void ConnectorWorld::pretendLoggedIn(int others) {
    auto responce = std::make_shared<GlobalLoginResponce>();
    responce->PrimaryUserDomain = userDomain(0);
    responce->UserDomains.emplace();
    for (int i = 1; i <= others; ++i)
        responce->UserDomains->push_back(userDomain(i));
    setCredentials();
    session.setGlobalLoginResponce(responce);
}

ManagedSharePtr ConnectorWorld::addShare(const std::string& id, std::int32_t tick,
                                         const std::string& domainId) {
    auto share = std::make_shared<ManagedShare>();
    share->ShareId = id;
    share->VshareId = "v-" + id;
    share->ShareName = "Share " + id;
    share->DisplayName = "Share " + id;
    share->DomainId = domainId;
    share->GateWayUrl = domainId + ".test";
    share->LastApplyedJournalTick = tick;
    share->ShareAcl = ShareACL{
        .ShareId = id, .AclType = 1, .ShareShareRights = {}, .FileShareRights = {}, .AclToken = "acl+" + id};
    const auto lock = store.beginWriteStorage();
    store.insertShare(share);
    store.createFolderForShare(*share);
    return share;
}

TWVirtualFilePtr ConnectorWorld::addFile(const std::string& id, std::int64_t size,
                                         const std::string& shareId) {
    auto file = std::make_shared<TWVirtualFile>();
    file->ShareId = shareId;
    file->ParrentId = shareId;
    file->InternalName = id;
    file->PublicName = id + ".bin";
    file->UploadName = "U" + id;
    file->UploadUrl = "U" + id;
    file->IsFile = true;
    file->AllocationSize = size;
    file->EndOfFile = size;
    const auto lock = store.beginWriteStorage();
    store.addFileMetadata(file);
    return file;
}

std::optional<std::string> contentsOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::string pattern(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 2654435761u) >> 13);
    return bytes;
}

std::function<UrlReply(const UrlRequest&)> serving(std::string contents) {
    return [contents = std::move(contents)](const UrlRequest& request) {
        const auto position = std::stoull(header(request, "position").value());
        const auto chunk = std::stoull(header(request, "chunk").value());
        return UrlReply{
            .status = 200,
            .error = {},
            .body = position < contents.size() ? contents.substr(position, chunk) : std::string()};
    };
}

}  // namespace tarnwell::testing
