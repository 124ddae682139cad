#include "platform/SessionBus.h"

#include <sys/stat.h>

#include <QDBusConnection>
#include <QDBusError>
#include <atomic>
#include <cstdlib>
#include <optional>
#include <vector>

#include "platform/SystemInformation.h"

namespace tarnwell {

namespace {

constexpr std::size_t kMostWaiting = 1000;

QString connectionName() {
    static std::atomic<unsigned> number{0};
    return QStringLiteral("tarnwell-%1").arg(++number);
}

}  // namespace

struct SessionBus::State {
    struct Waiting {
        std::function<void(QDBusConnection&)> task;
        std::function<void(const std::string&)> failed;
    };
    QString name;
    std::optional<QDBusConnection> connection;
    std::optional<std::string> error;
    std::vector<Waiting> waiting;

    void ended(QDBusConnection made) {
        if (made.isConnected()) {
            connection.emplace(std::move(made));
        } else {
            const std::string reason = made.lastError().message().toStdString();
            error = reason.empty() ? "not connected" : reason;
        }
        for (const auto& one : std::exchange(waiting, {}))
            answer(one);
    }
    void answer(const Waiting& one) {
        if (connection) return one.task(*connection);
        if (one.failed) one.failed(*error);
    }
};

SessionBus::SessionBus(RunLoop& mainLoop, Executor& background) : state_(std::make_shared<State>()) {
    state_->name = connectionName();
    const std::string bus = address();
    if (bus.empty()) {
        state_->error = "the session has no message bus";
        return;
    }
    background.async([weak = std::weak_ptr(state_), name = state_->name, bus, &mainLoop] {
        auto made = QDBusConnection::connectToBus(QString::fromStdString(bus), name);
        mainLoop.async([weak, made, name] {
            const auto state = weak.lock();
            if (state) return state->ended(made);
            QDBusConnection::disconnectFromBus(name);
        });
    });
}

SessionBus::~SessionBus() {
    if (!state_->connection) return;
    state_->connection.reset();
    QDBusConnection::disconnectFromBus(state_->name);
}

void SessionBus::whenConnected(std::function<void(QDBusConnection&)> task,
                               std::function<void(const std::string&)> failed) {
    State::Waiting one{std::move(task), std::move(failed)};
    if (state_->connection || state_->error) return state_->answer(one);
    if (state_->waiting.size() < kMostWaiting) return state_->waiting.push_back(std::move(one));
    if (one.failed) one.failed("the message bus does not answer");
}

std::string SessionBus::address() {
    if (const char* named = std::getenv("DBUS_SESSION_BUS_ADDRESS"); named && *named) {
        // "disabled:" is how a session says that it wants none.
        return std::string(named).starts_with("disabled:") ? "" : named;
    }
    const auto runtime = xdgRuntimeDirectory();
    struct stat bus {};
    if (!runtime || stat((*runtime + "/bus").c_str(), &bus) != 0 || !S_ISSOCK(bus.st_mode)) return {};
    return "unix:path=" +
           QByteArray::fromStdString(*runtime + "/bus").toPercentEncoding("/_.-\\", "~").toStdString();
}

}  // namespace tarnwell
