#include "platform/SecretServiceKeychain.h"

#include <libsecret/secret.h>
#include <sys/stat.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

#include "platform/GuardedTask.h"
#include "platform/SystemInformation.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

template <class T>
struct ObjectDeleter {
    void operator()(T* object) const { g_object_unref(object); }
};
using CancellablePtr = std::unique_ptr<GCancellable, ObjectDeleter<GCancellable>>;

struct PasswordDeleter {
    void operator()(gchar* password) const { secret_password_free(password); }
};

/// A GError out-parameter.
struct Failure {
    GError* error = nullptr;
    Failure() = default;
    Failure(const Failure&) = delete;
    Failure& operator=(const Failure&) = delete;
    ~Failure() { g_clear_error(&error); }

    void log(const char* what) const {
        if (error) TWLog(kLogMain, "Warning! Keychain: cannot %@: %@", what, error->message);
    }
};

struct HashDeleter {
    void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};
using Attributes = std::unique_ptr<GHashTable, HashDeleter>;

const SecretSchema* schema() {
    static const SecretSchema kSchema = [] {
        SecretSchema made{};
        made.name = "com.tarnwell.Password";
        made.flags = SECRET_SCHEMA_NONE;
        made.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
        made.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
        return made;
    }();
    return &kSchema;
}

Attributes attributes(const std::string& service, const std::optional<std::string>& account) {
    Attributes table(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free));
    g_hash_table_insert(table.get(), g_strdup("service"), g_strdup(service.c_str()));
    if (account) g_hash_table_insert(table.get(), g_strdup("account"), g_strdup(account->c_str()));
    return table;
}

/// Asking without a bus would make the library start one of its own.
bool sessionBusExists() {
    const char* address = ::secure_getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address && *address) return true;
    const auto runtime = xdgRuntimeDirectory();
    struct stat status {};
    return runtime && ::stat((*runtime + "/bus").c_str(), &status) == 0;
}

/// The calling thread's own place for D-Bus events. The library's blocking search uses one that is gone
/// before the items it returns, and then cannot free what belongs to them.
class EventContext {
  public:
    EventContext() : context_(g_main_context_new()) { g_main_context_push_thread_default(context_); }
    ~EventContext() {
        while (g_main_context_iteration(context_, FALSE)) {
        }
        g_main_context_pop_thread_default(context_);
        g_main_context_unref(context_);
    }
    EventContext(const EventContext&) = delete;
    EventContext& operator=(const EventContext&) = delete;

    /// Runs events until `result` is set.
    void waitFor(GAsyncResult*& result) const {
        while (!result)
            g_main_context_iteration(context_, TRUE);
    }

  private:
    GMainContext* context_;
};

std::vector<std::string> findAccounts(const std::string& service, GCancellable* cancellable) {
    std::vector<std::string> found;
    const auto wanted = attributes(service, std::nullopt);
    const EventContext events;
    Failure failure;
    GAsyncResult* result = nullptr;
    const auto keepResult = [](GObject*, GAsyncResult* ended, gpointer place) {
        *static_cast<GAsyncResult**>(place) = G_ASYNC_RESULT(g_object_ref(ended));
    };
    secret_password_searchv(schema(), wanted.get(), SECRET_SEARCH_ALL, cancellable, keepResult, &result);
    events.waitFor(result);  // ends by the cancellable at the latest
    GList* items = secret_password_search_finish(result, &failure.error);
    g_object_unref(result);
    failure.log("list accounts");
    for (const GList* item = items; item; item = item->next) {
        const Attributes values(secret_retrievable_get_attributes(SECRET_RETRIEVABLE(item->data)));
        const auto* account = static_cast<const char*>(g_hash_table_lookup(values.get(), "account"));
        if (account && *account) found.emplace_back(account);
    }
    g_list_free_full(items, g_object_unref);
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

}  // namespace

/// The thread and its queue; shared with it, since it may be stuck when the keychain ends.
struct SecretServiceKeychain::Worker {
    struct Job {
        std::function<void(GCancellable*)> work;
        CancellablePtr cancellable{g_cancellable_new()};
        bool done = false;       // guarded by the worker's mutex
        bool abandoned = false;  // guarded by the worker's mutex: its caller gave it up
    };

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::shared_ptr<Job>> jobs;  // guarded by mutex, as all below
    bool stopping = false;
    bool ended = false;
    bool started = false;
    std::size_t abandoned = 0;  // given up by their callers and still not back

    /// Runs `work` on the worker's thread. False when it was not back in time; its results are then not
    /// looked at.
    static bool run(const std::shared_ptr<Worker>& worker, std::chrono::milliseconds deadline,
                    std::function<void(GCancellable*)> work) {
        if (!sessionBusExists()) {
            TWLog(kLogMain, "Warning! Keychain: there is no session bus, passwords are not available.");
            return false;
        }
        auto job = std::make_shared<Job>();
        job->work = std::move(work);
        std::unique_lock lock(worker->mutex);
        if (worker->abandoned > 0) {
            TWLog(kLogMain, "Warning! Keychain: the secret service still does not answer.");
            return false;
        }
        if (!worker->started) {
            worker->started = true;
            std::thread([worker] {
                nameThisThread("tw-secrets");
                worker->serve();
            }).detach();
        }
        worker->jobs.push_back(job);
        worker->changed.notify_all();
        if (worker->changed.wait_for(lock, deadline, [&] { return job->done; })) return true;
        job->abandoned = true;
        ++worker->abandoned;
        lock.unlock();
        g_cancellable_cancel(job->cancellable.get());
        TWLog(kLogMain, "Warning! Keychain: the secret service did not answer in time.");
        return false;
    }

    void serve() {
        std::unique_lock lock(mutex);
        for (;;) {
            changed.wait(lock, [this] { return stopping || !jobs.empty(); });
            if (stopping) break;
            const auto job = std::move(jobs.front());
            jobs.pop_front();
            lock.unlock();
            runGuarded("Keychain", [&] { job->work(job->cancellable.get()); });
            lock.lock();
            job->done = true;
            if (job->abandoned) --abandoned;
            changed.notify_all();
        }
        ended = true;
        changed.notify_all();
    }
};

SecretServiceKeychain::SecretServiceKeychain(std::chrono::milliseconds deadline)
    : deadline_(deadline), worker_(std::make_shared<Worker>()) {}

SecretServiceKeychain::~SecretServiceKeychain() {
    std::unique_lock lock(worker_->mutex);
    worker_->stopping = true;
    worker_->changed.notify_all();
    worker_->changed.wait_for(lock, std::chrono::seconds(1),
                              [&] { return worker_->ended || !worker_->started; });
}

std::vector<std::string> SecretServiceKeychain::accounts(std::string_view service) {
    // Results live on the heap, shared: an exchange that was given up may still write them.
    auto found = std::make_shared<std::vector<std::string>>();
    const bool back = Worker::run(
        worker_, deadline_,
        [found, name = std::string(service)](GCancellable* cancel) { *found = findAccounts(name, cancel); });
    return back ? std::move(*found) : std::vector<std::string>();
}

std::optional<std::string> SecretServiceKeychain::password(std::string_view service,
                                                           std::string_view account) {
    auto found = std::make_shared<std::optional<std::string>>();
    const bool back =
        Worker::run(worker_, deadline_,
                    [found, name = std::string(service), user = std::string(account)](GCancellable* cancel) {
                        const auto wanted = attributes(name, user);
                        Failure failure;
                        const std::unique_ptr<gchar, PasswordDeleter> password(
                            secret_password_lookupv_sync(schema(), wanted.get(), cancel, &failure.error));
                        failure.log("read a password");
                        if (password) *found = password.get();
                    });
    return back ? std::move(*found) : std::nullopt;
}

bool SecretServiceKeychain::setPassword(std::string_view service, std::string_view account,
                                        std::string_view password) {
    if (account.empty()) return false;
    auto stored = std::make_shared<bool>(false);
    const bool back = Worker::run(worker_, deadline_,
                                  [stored, name = std::string(service), user = std::string(account),
                                   text = std::string(password)](GCancellable* cancel) {
                                      const auto wanted = attributes(name, user);
                                      const auto label = name + " (" + user + ")";
                                      Failure failure;
                                      *stored = secret_password_storev_sync(
                                          schema(), wanted.get(), SECRET_COLLECTION_DEFAULT, label.c_str(),
                                          text.c_str(), cancel, &failure.error);
                                      failure.log("store a password");
                                  });
    return back && *stored;
}

bool SecretServiceKeychain::deletePassword(std::string_view service, std::string_view account) {
    auto removed = std::make_shared<bool>(false);
    const bool back = Worker::run(
        worker_, deadline_,
        [removed, name = std::string(service), user = std::string(account)](GCancellable* cancel) {
            const auto wanted = attributes(name, user);
            Failure failure;
            *removed = secret_password_clearv_sync(schema(), wanted.get(), cancel, &failure.error);
            failure.log("delete a password");
        });
    return back && *removed;
}

}  // namespace tarnwell
