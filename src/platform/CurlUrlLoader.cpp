#include "platform/CurlUrlLoader.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/CurlTransfer.h"
#include "platform/GuardedTask.h"
#include "util/TWLogger.h"

namespace tarnwell {

using std::chrono::milliseconds;

namespace {

constexpr std::size_t kRequestsPerHost = 8;
constexpr long kKeptConnections = 32;
constexpr milliseconds kLongestPause = std::chrono::seconds(30);

struct CurlEngineDeleter {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct CurlShareDeleter {
    void operator()(CURLSH* share) const { curl_share_cleanup(share); }
};

/// libcurl's process-wide part; left to the end of the process, since other threads may still be inside.
void initializeCurlOnce() {
    static const CURLcode done = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (done != CURLE_OK) throw std::runtime_error(curl_easy_strerror(done));
}

}  // namespace

/// The thread "tw-http" and what it alone touches, behind a queue of new requests.
class CurlUrlLoader::Engine {
  public:
    explicit Engine(Options options);
    ~Engine() { stop(); }

    void submit(UrlRequest request, std::function<void(UrlReply)> completion);
    void stop();
    [[nodiscard]] std::uint64_t connections() const { return connections_; }

  private:
    using TransferPtr = std::unique_ptr<CurlTransfer>;

    /// One host's requests. `moved` is the last time that any byte moved for it.
    struct Host {
        std::deque<TransferPtr> waiting;
        std::vector<TransferPtr> running;
        SteadyTime moved{};
    };

    void run();
    void work();
    bool takeNew();
    void startWaiting(Host& host);
    void start(Host& host, TransferPtr transfer);
    void collectFinished();
    void end(CurlTransfer& transfer, const std::function<void(CurlTransfer&)>& report);
    /// Fails what has been idle, or on its way, for too long; returns the time until the next one may.
    milliseconds expireIdle();
    void failAll();

    const Options options_;
    const CertificateTrust trust_;
    std::atomic<std::uint64_t> connections_ = 0;

    // The loader's thread only. The share outlives the handles, which are detached before the multi handle
    // goes.
    std::unique_ptr<CURLSH, CurlShareDeleter> share_;
    std::unique_ptr<CURLM, CurlEngineDeleter> multi_;
    std::map<std::string, Host> hosts_;

    std::mutex mutex_;
    std::vector<TransferPtr> submitted_;  // guarded by mutex_
    bool stopping_ = false;               // guarded by mutex_
    std::mutex joinMutex_;                // one thread joins
    std::thread thread_;
    std::thread::id loaderThread_;  // constant after construction
};

CurlUrlLoader::Engine::Engine(Options options)
    : options_(std::move(options)), trust_(CertificateTrust::systemAnd(options_.certificateAuthority)) {
    initializeCurlOnce();
    share_.reset(curl_share_init());
    multi_.reset(curl_multi_init());
    if (!share_ || !multi_) throw std::bad_alloc();
    curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    curl_multi_setopt(multi_.get(), CURLMOPT_MAXCONNECTS, kKeptConnections);
    curl_multi_setopt(multi_.get(), CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(kRequestsPerHost));
    thread_ = std::thread([this] { run(); });
    loaderThread_ = thread_.get_id();
}

void CurlUrlLoader::Engine::submit(UrlRequest request, std::function<void(UrlReply)> completion) {
    auto transfer = std::make_unique<CurlTransfer>(std::move(request), std::move(completion));
    {
        std::lock_guard lock(mutex_);
        if (!stopping_) {
            submitted_.push_back(std::move(transfer));
            curl_multi_wakeup(multi_.get());
        }
    }
    if (transfer) transfer->fail("cancelled");
}

void CurlUrlLoader::Engine::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        curl_multi_wakeup(multi_.get());
    }
    // A completion may stop the loader from the loader's own thread: whoever destroys it joins.
    if (loaderThread_ == std::this_thread::get_id()) return;
    std::lock_guard lock(joinMutex_);
    if (thread_.joinable()) thread_.join();
}

void CurlUrlLoader::Engine::run() {
    nameThisThread("tw-http");
    // A fault here (out of memory) must not end the process; requests fail and the thread goes on.
    for (bool ended = false; !ended;) {
        runGuarded("HTTP thread", [&] {
            work();
            ended = true;
        });
        if (!ended) failAll();
    }
    failAll();
}

void CurlUrlLoader::Engine::work() {
    while (takeNew()) {
        int running = 0;
        if (const auto code = curl_multi_perform(multi_.get(), &running); code != CURLM_OK) {
            throw std::runtime_error(curl_multi_strerror(code));
        }
        collectFinished();
        const auto pause = expireIdle();
        curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(pause.count()), nullptr);
    }
}

bool CurlUrlLoader::Engine::takeNew() {
    std::vector<TransferPtr> taken;
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return false;
        taken.swap(submitted_);
    }
    for (auto& transfer : taken) {
        auto& host = hosts_[transfer->target().key];
        host.waiting.push_back(std::move(transfer));
    }
    for (auto& [key, host] : hosts_)
        startWaiting(host);
    std::erase_if(hosts_, [](const auto& entry) {
        return entry.second.waiting.empty() && entry.second.running.empty();
    });
    return true;
}

void CurlUrlLoader::Engine::startWaiting(Host& host) {
    while (!host.waiting.empty() && host.running.size() < kRequestsPerHost) {
        auto next = std::move(host.waiting.front());
        host.waiting.pop_front();
        start(host, std::move(next));
    }
}

void CurlUrlLoader::Engine::start(Host& host, TransferPtr transfer) {
    transfer->idleSince(host.moved);  // beginning is no sign of life of the host
    if (!transfer->prepare(trust_, options_.userAgent, share_.get())) {
        transfer->fail({});
    } else if (curl_multi_add_handle(multi_.get(), transfer->handle()) != CURLM_OK) {
        transfer->fail("cannot start the request");
    } else {
        host.running.push_back(std::move(transfer));
    }
}

void CurlUrlLoader::Engine::collectFinished() {
    int left = 0;
    while (const auto* message = curl_multi_info_read(multi_.get(), &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        void* pointer = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &pointer);
        const auto code = message->data.result;
        end(*static_cast<CurlTransfer*>(pointer), [code](CurlTransfer& transfer) { transfer.finish(code); });
    }
}

void CurlUrlLoader::Engine::end(CurlTransfer& transfer, const std::function<void(CurlTransfer&)>& report) {
    long opened = 0;
    curl_easy_getinfo(transfer.handle(), CURLINFO_NUM_CONNECTS, &opened);
    connections_ += static_cast<std::uint64_t>(std::max(opened, 0L));
    curl_multi_remove_handle(multi_.get(), transfer.handle());

    auto& host = hosts_[transfer.target().key];
    host.moved = std::max(host.moved, transfer.lastByte());
    const auto place =
        std::find_if(host.running.begin(), host.running.end(),
                     [&](const TransferPtr& candidate) { return candidate.get() == &transfer; });
    const auto owned = std::move(*place);
    host.running.erase(place);
    // The next request is on its way before the waiting thread wakes up.
    startWaiting(host);
    report(*owned);
}

milliseconds CurlUrlLoader::Engine::expireIdle() {
    const auto now = std::chrono::steady_clock::now();
    auto next = now + kLongestPause;
    std::vector<CurlTransfer*> expired;
    for (auto& [key, host] : hosts_) {
        for (const auto& transfer : host.running) {
            host.moved = std::max(host.moved, transfer->lastByte());
            const auto end = transfer->expiry(transfer->lastMove());
            if (end <= now)
                expired.push_back(transfer.get());
            else
                next = std::min(next, end);
        }
        std::deque<TransferPtr> waiting;
        for (auto& transfer : host.waiting) {
            const auto end = transfer->expiry(std::max(transfer->lastMove(), host.moved));
            if (end > now) {
                next = std::min(next, end);
                waiting.push_back(std::move(transfer));
            } else {
                transfer->fail(kTimedOut);
            }
        }
        host.waiting.swap(waiting);
    }
    for (auto* transfer : expired) {
        end(*transfer, [](CurlTransfer& idle) { idle.fail(kTimedOut); });
        next = now;  // requests that waited behind it have begun
    }
    return std::chrono::ceil<milliseconds>(std::max(next - now, SteadyTime::duration::zero()));
}

void CurlUrlLoader::Engine::failAll() {
    std::vector<TransferPtr> all;
    {
        std::lock_guard lock(mutex_);
        all.swap(submitted_);
    }
    for (auto& [key, host] : hosts_) {
        for (auto& transfer : host.running) {
            curl_multi_remove_handle(multi_.get(), transfer->handle());
            all.push_back(std::move(transfer));
        }
        for (auto& transfer : host.waiting)
            all.push_back(std::move(transfer));
    }
    hosts_.clear();
    for (auto& transfer : all) {
        runGuarded("HTTP completion", [&] { transfer->fail("cancelled"); });
    }
}

CurlUrlLoader::CurlUrlLoader(Options options) : engine_(std::make_unique<Engine>(std::move(options))) {}

CurlUrlLoader::~CurlUrlLoader() = default;

UrlReply CurlUrlLoader::sendSynchronously(const UrlRequest& request) {
    // Every submitted request is answered: by the server, its idle time-out or stop(). Shared with the
    // completion, which may still hold the mutex when this call returns.
    struct Waiter {
        std::mutex mutex;
        std::condition_variable done;
        std::optional<UrlReply> reply;
    };
    const auto waiter = std::make_shared<Waiter>();
    engine_->submit(request, [waiter](UrlReply reply) {
        std::lock_guard lock(waiter->mutex);
        waiter->reply = std::move(reply);
        waiter->done.notify_one();
    });
    std::unique_lock lock(waiter->mutex);
    waiter->done.wait(lock, [&] { return waiter->reply.has_value(); });
    return std::move(*waiter->reply);
}

void CurlUrlLoader::sendAsynchronously(UrlRequest request, Executor& queue, Completion completion) {
    engine_->submit(std::move(request), [&queue, completion = std::move(completion)](UrlReply reply) {
        // A task is copyable, a reply of megabytes is not copied.
        auto shared = std::make_shared<UrlReply>(std::move(reply));
        queue.async([completion, shared] { completion(std::move(*shared)); });
    });
}

void CurlUrlLoader::stop() {
    engine_->stop();
}

std::uint64_t CurlUrlLoader::connectionsOpened() const {
    return engine_->connections();
}

}  // namespace tarnwell
