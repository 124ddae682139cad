#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "connector/CatchUpEngine.h"
#include "connector/ConnectorReachability.h"
#include "connector/DownloadEngine.h"
#include "connector/JournalReplayEngine.h"
#include "connector/LoginEngine.h"
#include "connector/Notifications.h"
#include "connector/SyncStatus.h"
#include "connector/TWConnector.h"
#include "connector/UploadEngine.h"
#include "platform/NotificationCenter.h"
#include "store/TWMetadataStorage.h"
#include "support/FakeReachability.h"
#include "support/LogCapture.h"
#include "support/ManualExecutors.h"
#include "support/ManualRunLoop.h"
#include "support/MemoryKeychain.h"
#include "support/MemoryUserDefaults.h"
#include "support/ScriptedUrlLoader.h"
#include "support/TemporaryFolder.h"

namespace tarnwell::testing {

/// A whole connector on a real store, with time, network, keychain and settings in the test's hands. Nothing
/// runs but in settle() and on the test's own threads.
class ConnectorWorld {
  public:
    struct Options {
        bool isDataIsland = false;
        MemoryUserDefaults::Values settings;
    };
    ConnectorWorld() : ConnectorWorld(Options()) {}
    explicit ConnectorWorld(Options options);

    /// Runs every queue and the main loop until nothing is left to do now.
    void settle();
    /// The names of the notifications since the last call; a failure's error follows its name after a colon.
    std::vector<std::string> takeEvents();

    void setCredentials();
    /// A login reply with the primary domain "d0" (d0.test) and `others` further ones, as if logged in.
    void pretendLoggedIn(int others = 0);
    /// A share of domain `domainId`, stored, with its folder.
    ManagedSharePtr addShare(const std::string& id, std::int32_t tick = 5,
                             const std::string& domainId = "d0");
    /// A stored file of share `shareId` with the given size; upload name "U" + id.
    TWVirtualFilePtr addFile(const std::string& id, std::int64_t size, const std::string& shareId = "s1");
    [[nodiscard]] std::string cachePath(const TWVirtualFilePtr& file) const {
        return layout.cachePathForFile(*file);
    }
    [[nodiscard]] std::string partialPath(const TWVirtualFilePtr& file) const {
        return layout.cachePathForFileDownload(*file);
    }

    LogCapture log;
    TemporaryFolder folder;
    FakeClock clock;
    ManualRunLoop loop{&clock};
    ManualExecutor background, loginQueue, catchUpQueue;
    ScriptedUrlLoader loader;
    FakeReachability reachability;
    MemoryKeychain keychain;
    MemoryUserDefaults defaults;
    NotificationCenter notifications;
    CacheLayout layout;
    TWMetadataStorage store;
    TWConnector connector;

    LoginEngine& login = connector.login();
    CatchUpEngine& catchUps = connector.catchUps();
    DownloadEngine& downloads = connector.downloads();
    JournalReplayEngine& replay = connector.replay();
    ConnectorSession& session = connector.session();

  private:
    std::vector<Subscription> subscriptions_;
    std::vector<std::string> events_;
};

/// The bytes of a file; none when there is no such file.
std::optional<std::string> contentsOf(const std::string& path);
/// `size` bytes that differ from place to place.
std::string pattern(std::size_t size);
/// Answers read.aspx from `contents` as the service does: the range asked for, cut at the end.
std::function<UrlReply(const UrlRequest&)> serving(std::string contents);

}  // namespace tarnwell::testing
