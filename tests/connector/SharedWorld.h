#pragma once

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "connector/CatchUpEngine.h"
#include "connector/JournalReplayEngine.h"
#include "connector/TWConnector.h"
#include "platform/NotificationCenter.h"
#include "platform/UrlLoader.h"
#include "service/Router.h"
#include "service/Service.h"
#include "store/LocalChangeJournal.h"
#include "store/TWMetadataStorage.h"
#include "support/FakeReachability.h"
#include "support/ManualExecutors.h"
#include "support/ManualRunLoop.h"
#include "support/MemoryKeychain.h"
#include "support/MemoryUserDefaults.h"
#include "support/TemporaryFolder.h"

namespace tarnwell::testing {

/// The service's own endpoints on a store of their own, without network and threads: one share.
class InProcessService {
  public:
    InProcessService();
    /// A new device's right in the share.
    ManagedSharePtr shareOfNewDevice();
    [[nodiscard]] UrlReply answer(const UrlRequest& request);
    /// "name=contents" of the live files, folders with a slash.
    [[nodiscard]] std::set<std::string> tree();
    [[nodiscard]] std::string contentsOf(std::string_view uploadName);

    service::DomainInfo domain;

  private:
    TemporaryFolder folder_;
    service::ServiceLog log_{true};
    service::ServiceData data_;
    service::Transfers transfers_{data_.metadata(), data_.contents()};
    std::unique_ptr<service::Router> router_;
    service::UserInfo user_;
    service::ShareInfo share_;
};

/// What a client asked, at each point where it may be held up, cut or lost.
class Wire final : public UrlLoader {
  public:
    explicit Wire(InProcessService& service) : service_(service) {}
    UrlReply sendSynchronously(const UrlRequest& request) override;
    void sendAsynchronously(UrlRequest request, Executor& queue, Completion completion) override;
    void stop() override;

    [[nodiscard]] std::size_t underway() const { return calls_.size(); }
    /// The request reaches the service; its answer waits.
    void deliver(std::size_t call);
    /// The answer, or the failure of a request that did not arrive, comes to the client.
    void finish(std::size_t call, bool lost);

  private:
    struct Call {
        UrlRequest request;
        Executor* queue;
        Completion completion;
        std::optional<UrlReply> reply;
    };
    InProcessService& service_;
    std::deque<Call> calls_;
};

/// A store with its connector in virtual time. What the drive does to a file is done by hand: see before an
/// edit, mark, write, journal.
class SharedClient {
  public:
    SharedClient(InProcessService& service, std::string root, const ManagedSharePtr& share, FakeClock& clock,
                 bool isFirst);
    ~SharedClient();

    [[nodiscard]] std::vector<TWVirtualFilePtr> files() const;
    [[nodiscard]] TWVirtualFilePtr item(const std::string& name) const;
    /// The bytes that a program reads; fetches them where they are not here. None when they cannot be had.
    std::optional<std::string> see(const TWVirtualFilePtr& file);
    TWVirtualFilePtr create(const std::string& name);
    /// The first and the last part of a burst of writes.
    void beginEdit(const TWVirtualFilePtr& file, const std::string& bytes);
    void endEdit(const TWVirtualFilePtr& file);
    void save(const TWVirtualFilePtr& file, const std::string& bytes) {
        beginEdit(file, bytes);
        endEdit(file);
    }
    void endEdits();
    /// Replaces what stands there.
    bool rename(const TWVirtualFilePtr& file, const std::string& to);
    void remove(const TWVirtualFilePtr& file) { store->removeFile(file); }
    void settle();
    void pass(std::chrono::milliseconds time);
    [[nodiscard]] std::set<std::string> tree();
    [[nodiscard]] std::string journalText() const;

    ManualRunLoop loop;
    ManualExecutor background, loginQueue, catchUpQueue;
    Wire wire;
    CacheLayout layout;
    std::unique_ptr<TWMetadataStorage> store;
    std::unique_ptr<TWConnector> connector;

  private:
    void stamp(const TWVirtualFile& file);

    FakeReachability reachability_;
    MemoryKeychain keychain_;
    MemoryUserDefaults defaults_;
    NotificationCenter notifications_;
    InProcessService& service_;
    std::string shareId_;
};

}  // namespace tarnwell::testing
