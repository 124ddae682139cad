#include "platform/DBusMessagePorts.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVirtualObject>

#include "platform/SessionBus.h"

namespace tarnwell {

namespace {

const QString kObjectPath = QStringLiteral("/com/tarnwell/MessagePort");
const QString kInterface = QStringLiteral("com.tarnwell.MessagePort");
const QString kMethod = QStringLiteral("Send");
const QString kSignature = QStringLiteral("iay");
const QString kBus = QStringLiteral("org.freedesktop.DBus");
constexpr int kBusDeadlineMs = 10'000;
constexpr unsigned kDoNotQueue = 4;    // of RequestName
constexpr unsigned kPrimaryOwner = 1;  // its answers
constexpr unsigned kAlreadyOwner = 4;

/// The object that other programs call.
class Port final : public QDBusVirtualObject {
  public:
    explicit Port(MessagePorts::Handler handler) : handler_(std::move(handler)) {}

    [[nodiscard]] QString introspect(const QString& /*path*/) const override {
        return QStringLiteral(
            "  <interface name=\"com.tarnwell.MessagePort\">\n"
            "    <method name=\"Send\">\n"
            "      <arg name=\"id\" type=\"i\" direction=\"in\"/>\n"
            "      <arg name=\"bytes\" type=\"ay\" direction=\"in\"/>\n"
            "    </method>\n"
            "  </interface>\n");
    }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        if (message.type() != QDBusMessage::MethodCallMessage || message.member() != kMethod ||
            (!message.interface().isEmpty() && message.interface() != kInterface)) {
            return false;
        }
        const auto arguments = message.arguments();
        if (message.signature() != kSignature || arguments.size() != 2) {
            connection.send(
                message.createErrorReply(QDBusError::InvalidArgs, QStringLiteral("expected (iay)")));
            return true;
        }
        const QByteArray bytes = arguments[1].toByteArray();
        if (static_cast<std::size_t>(bytes.size()) > MessagePorts::kLargestMessage) {
            connection.send(message.createErrorReply(QDBusError::LimitsExceeded, QStringLiteral("too long")));
            return true;
        }
        // Taken: what it leads to is nothing that the sender waits for.
        if (message.isReplyRequired()) connection.send(message.createReply());
        handler_({arguments[0].toInt(), bytes.toStdString()});
        return true;
    }

  private:
    MessagePorts::Handler handler_;
};

QDBusMessage busCall(const char* method, const QVariantList& arguments) {
    auto call = QDBusMessage::createMethodCall(kBus, QStringLiteral("/org/freedesktop/DBus"), kBus,
                                               QString::fromLatin1(method));
    call.setArguments(arguments);
    return call;
}

}  // namespace

struct DBusMessagePorts::State {
    std::vector<std::unique_ptr<Port>> ports;
    /// Owns what waits for answers, so that no answer finds an object that is gone.
    QObject calls;

    void call(QDBusConnection& connection, const QDBusMessage& message, int deadlineMs,
              std::function<void(const QDBusMessage&)> answered) {
        auto* watcher = new QDBusPendingCallWatcher(connection.asyncCall(message, deadlineMs), &calls);
        QObject::connect(watcher, &QDBusPendingCallWatcher::finished, &calls,
                         [answered = std::move(answered)](QDBusPendingCallWatcher* finished) {
                             finished->deleteLater();
                             answered(finished->reply());
                         });
    }
    static bool succeeded(const QDBusMessage& answer) { return answer.type() == QDBusMessage::ReplyMessage; }
};

DBusMessagePorts::DBusMessagePorts(SessionBus& bus) : bus_(bus), state_(std::make_unique<State>()) {}

DBusMessagePorts::~DBusMessagePorts() = default;

void DBusMessagePorts::registerPort(const std::string& name, Handler handler,
                                    std::function<void(std::string)> registered) {
    state_->ports.push_back(std::make_unique<Port>(std::move(handler)));
    bus_.whenConnected(
        [this, name, registered, port = state_->ports.back().get()](QDBusConnection& connection) {
            if (!connection.registerVirtualObject(kObjectPath, port))
                return registered("the object is taken");
            const auto call = busCall("RequestName", {QString::fromStdString(name), kDoNotQueue});
            state_->call(connection, call, kBusDeadlineMs, [registered](const QDBusMessage& answer) {
                if (!State::succeeded(answer)) return registered(answer.errorMessage().toStdString());
                const unsigned result = answer.arguments().value(0).toUInt();
                registered(
                    result == kPrimaryOwner || result == kAlreadyOwner ? "" : "another program has the name");
            });
        },
        registered);
}

void DBusMessagePorts::lookUp(const std::string& name, std::function<void(Address)> found) {
    bus_.whenConnected(
        [this, name, found](QDBusConnection& connection) {
            const auto call = busCall("GetNameOwner", {QString::fromStdString(name)});
            state_->call(connection, call, kBusDeadlineMs, [found](const QDBusMessage& answer) {
                found(State::succeeded(answer) ? answer.arguments().value(0).toString().toStdString() : "");
            });
        },
        [found](const std::string&) { found(""); });
}

void DBusMessagePorts::watch(const std::string& name, std::function<void(Address)> changed) {
    bus_.whenConnected(
        [this, name, changed = std::move(changed)](QDBusConnection& connection) {
            auto* watcher = new QDBusServiceWatcher(QString::fromStdString(name), connection,
                                                    QDBusServiceWatcher::WatchForOwnerChange, &state_->calls);
            QObject::connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, &state_->calls,
                             [changed](const QString&, const QString&, const QString& owner) {
                                 changed(owner.toStdString());
                             });
        },
        {});
}

void DBusMessagePorts::send(const Address& address, const Message& message,
                            std::chrono::milliseconds deadline, std::function<void(bool)> sent) {
    bus_.whenConnected(
        [this, address, message, deadline, sent](QDBusConnection& connection) {
            auto call = QDBusMessage::createMethodCall(QString::fromStdString(address), kObjectPath,
                                                       kInterface, kMethod);
            call.setAutoStartService(false);
            call.setArguments({message.id, QByteArray::fromStdString(message.bytes)});
            state_->call(connection, call, static_cast<int>(deadline.count()),
                         [sent](const QDBusMessage& answer) { sent(State::succeeded(answer)); });
        },
        [sent](const std::string&) { sent(false); });
}

}  // namespace tarnwell
