#include "platform/DBusDesktopServices.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QProcess>
#include <QUrl>
#include <algorithm>
#include <array>

#include "platform/SessionBus.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

/// A service that is started for the call may take its time.
constexpr int kDeadlineMs = 15'000;

/// By the program that knows every desktop. What is opened is not logged: a link may be as good as a
/// password.
void xdgOpen(const std::string& what) {
    QProcess program;
    program.setProgram(QStringLiteral("xdg-open"));
    program.setArguments({QString::fromStdString(what)});
    program.setStandardInputFile(QProcess::nullDevice());
    program.setStandardOutputFile(QProcess::nullDevice());
    program.setStandardErrorFile(QProcess::nullDevice());
    if (!program.startDetached())
        TWLog(kLogMain, "Warning! Neither the desktop nor xdg-open is there to open a folder or link.");
}

bool isOpened(const std::string& url) {
    constexpr std::array<std::string_view, 3> schemes{"https:", "http:", "mailto:"};
    return std::any_of(schemes.begin(), schemes.end(), [&](auto scheme) { return url.starts_with(scheme); });
}

QDBusMessage methodCall(const char* service, const char* path, const char* interface, const char* method,
                        const QVariantList& arguments) {
    auto message =
        QDBusMessage::createMethodCall(QString::fromLatin1(service), QString::fromLatin1(path),
                                       QString::fromLatin1(interface), QString::fromLatin1(method));
    message.setArguments(arguments);
    return message;
}

}  // namespace

struct DBusDesktopServices::State {
    QObject calls;  // owns what waits for answers

    void call(QDBusConnection& connection, const QDBusMessage& message,
              std::function<void(const QString& error)> failed) {
        auto* watcher = new QDBusPendingCallWatcher(connection.asyncCall(message, kDeadlineMs), &calls);
        QObject::connect(watcher, &QDBusPendingCallWatcher::finished, &calls,
                         [failed = std::move(failed)](QDBusPendingCallWatcher* finished) {
                             finished->deleteLater();
                             if (finished->isError()) failed(finished->error().message());
                         });
    }
};

DBusDesktopServices::DBusDesktopServices(SessionBus& bus, std::string applicationName)
    : bus_(bus), applicationName_(std::move(applicationName)), state_(std::make_unique<State>()) {}

DBusDesktopServices::~DBusDesktopServices() = default;

bool DBusDesktopServices::openUrl(const std::string& url) {
    if (!isOpened(url)) {
        TWLog(kLogMain, "Warning! Cannot open what is no address for a browser or mail program.");
        return false;
    }
    bus_.whenConnected(
        [this, url](QDBusConnection& connection) {
            const auto message =
                methodCall("org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop",
                           "org.freedesktop.portal.OpenURI", "OpenURI",
                           {QString(), QString::fromStdString(url), QVariant::fromValue(QVariantMap())});
            state_->call(connection, message, [url](const QString&) { xdgOpen(url); });
        },
        [url](const std::string&) { xdgOpen(url); });
    return true;
}

void DBusDesktopServices::showFolder(const std::string& path) {
    bus_.whenConnected(
        [this, path](QDBusConnection& connection) {
            const auto uri = QUrl::fromLocalFile(QString::fromStdString(path)).toString(QUrl::FullyEncoded);
            const auto message =
                methodCall("org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
                           "org.freedesktop.FileManager1", "ShowFolders", {QStringList{uri}, QString()});
            state_->call(connection, message, [path](const QString&) { xdgOpen(path); });
        },
        [path](const std::string&) { xdgOpen(path); });
}

void DBusDesktopServices::deliverNotification(const std::string& title, const std::string& text) {
    bus_.whenConnected(
        [this, title, text](QDBusConnection& connection) {
            // The text may be shown as markup: a file name is none.
            const auto message = methodCall(
                "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                "org.freedesktop.Notifications", "Notify",
                {QString::fromStdString(applicationName_), 0u, QString(), QString::fromStdString(title),
                 QString::fromStdString(text).toHtmlEscaped(), QStringList(), QVariantMap(), -1});
            state_->call(connection, message, [title](const QString& error) {
                TWLog(kLogMain, "No notification \"%@\": %@", title, error.toStdString());
            });
        },
        {});
}

void DBusDesktopServices::postDistributedNotification(const std::string& name) {
    // A signal's interface has the name but for its last part, and a member's name has no dash.
    bus_.whenConnected(
        [name](QDBusConnection& connection) {
            auto message = QDBusMessage::createSignal(QStringLiteral("/com/tarnwell/DistributedNotification"),
                                                      QStringLiteral("com.tarnwell.DistributedNotification"),
                                                      QStringLiteral("Posted"));
            message.setArguments({QString::fromStdString(name), QVariantMap()});
            connection.send(message);
        },
        {});
}

}  // namespace tarnwell
