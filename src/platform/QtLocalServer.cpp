#include "platform/QtLocalServer.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QSocketNotifier>
#include <QTimer>
#include <cerrno>
#include <chrono>
#include <list>

#include "platform/LocalSocket.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

constexpr std::chrono::seconds kTextDeadline{5};
constexpr std::size_t kMaximumConnections = 64;

bool belongsToThisUser(int descriptor) {
    ucred peer{};
    socklen_t length = sizeof peer;
    return getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
           (peer.uid == geteuid() || peer.uid == 0);
}

}  // namespace

/// One connection: reads to the end, hands the text over, waits for the answer, writes it.
struct QtLocalServer::Connection {
    explicit Connection(OwnedDescriptor accepted)
        : socket(std::move(accepted)),
          readable(socket.get(), QSocketNotifier::Read),
          writable(socket.get(), QSocketNotifier::Write) {
        writable.setEnabled(false);
        deadline.setSingleShot(true);
    }

    OwnedDescriptor socket;  // outlives the notifiers
    QSocketNotifier readable;
    QSocketNotifier writable;
    QTimer deadline;
    std::string text;
    std::string answer;  // what is still to be written
    bool answered = false;
};

/// Shared with the replies that are out: a reply of a connection that is gone finds nothing.
struct QtLocalServer::State : std::enable_shared_from_this<State> {
    using ConnectionPtr = std::shared_ptr<Connection>;

    OwnedDescriptor listener;
    std::unique_ptr<QSocketNotifier> incoming;
    std::string path;
    Handler handler;
    std::list<ConnectionPtr> connections;

    void accept();
    void receive(const ConnectionPtr& connection);
    void hear(const ConnectionPtr& connection);
    void send(const ConnectionPtr& connection);
    /// The connection may be closed from inside a signal of its own notifier: it is destroyed once that
    /// returned.
    void drop(const ConnectionPtr& connection) {
        connection->readable.setEnabled(false);
        connection->writable.setEnabled(false);
        connection->deadline.stop();
        connections.remove(connection);
        if (incoming) incoming->setEnabled(true);
        QTimer::singleShot(0, [connection] {});
    }
};

void QtLocalServer::State::accept() {
    if (connections.size() >= kMaximumConnections) {
        incoming->setEnabled(false);
        return;
    }
    OwnedDescriptor accepted(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!accepted) {
        // Out of descriptors: the connection stays in the backlog, and the loop must not spin on it.
        if (errno == EMFILE || errno == ENFILE) {
            incoming->setEnabled(false);
            QTimer::singleShot(std::chrono::seconds(1), [weak = weak_from_this()] {
                if (const auto self = weak.lock(); self && self->incoming) self->incoming->setEnabled(true);
            });
        }
        return;
    }
    if (!belongsToThisUser(accepted.get())) return;
    auto connection = std::make_shared<Connection>(std::move(accepted));
    connections.push_back(connection);
    const std::weak_ptr<Connection> weak = connection;
    QObject::connect(&connection->readable, &QSocketNotifier::activated, [this, weak] {
        if (const auto live = weak.lock()) receive(live);
    });
    QObject::connect(&connection->writable, &QSocketNotifier::activated, [this, weak] {
        if (const auto live = weak.lock()) send(live);
    });
    QObject::connect(&connection->deadline, &QTimer::timeout, [this, weak] {
        if (const auto live = weak.lock()) drop(live);
    });
    connection->deadline.start(kTextDeadline);
}

void QtLocalServer::State::receive(const ConnectionPtr& connection) {
    char buffer[16384];
    for (;;) {
        const ssize_t got = recv(connection->socket.get(), buffer, sizeof buffer, 0);
        if (got > 0) {
            connection->text.append(buffer, static_cast<std::size_t>(got));
            if (connection->text.size() > kLocalTextLimit) return drop(connection);
        } else if (got == 0) {
            return hear(connection);
        } else if (errno == EAGAIN) {
            return;
        } else if (errno != EINTR) {
            return drop(connection);
        }
    }
}

void QtLocalServer::State::hear(const ConnectionPtr& connection) {
    connection->readable.setEnabled(false);
    connection->deadline.stop();
    // The reply owns this token; when the last copy goes without an answer, so does the connection.
    struct Token {
        std::weak_ptr<State> state;
        std::weak_ptr<Connection> connection;
        ~Token() {
            const auto owner = state.lock();
            const auto live = connection.lock();
            if (owner && live && !live->answered) owner->drop(live);
        }
    };
    auto token = std::make_shared<Token>();
    token->state = weak_from_this();
    token->connection = connection;
    Reply reply = [token](std::string answer) {
        const auto owner = token->state.lock();
        const auto live = token->connection.lock();
        if (!owner || !live || live->answered) return;
        live->answered = true;
        live->answer = std::move(answer);
        if (live->answer.empty()) return owner->drop(live);
        live->deadline.start(kTextDeadline);
        owner->send(live);
    };
    token.reset();
    try {
        handler(std::move(connection->text), std::move(reply));
    } catch (const std::exception& error) {
        TWLog(kLogMain, "Error! Command handler failed: %@", error.what());
    }
}

void QtLocalServer::State::send(const ConnectionPtr& connection) {
    while (!connection->answer.empty()) {
        const ssize_t sent = ::send(connection->socket.get(), connection->answer.data(),
                                    connection->answer.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            connection->answer.erase(0, static_cast<std::size_t>(sent));
        } else if (errno == EAGAIN) {
            connection->writable.setEnabled(true);
            return;
        } else if (errno != EINTR) {
            break;
        }
    }
    drop(connection);
}

QtLocalServer::QtLocalServer() : state_(std::make_shared<State>()) {}

QtLocalServer::~QtLocalServer() {
    close();
    for (const auto& connection : state_->connections) {
        connection->readable.setEnabled(false);
        connection->writable.setEnabled(false);
        pollfd room{connection->socket.get(), POLLOUT, 0};
        if (!connection->answer.empty() && poll(&room, 1, 1000) > 0) {
            ::send(room.fd, connection->answer.data(), connection->answer.size(), MSG_NOSIGNAL);
        }
    }
    state_->connections.clear();
}

bool QtLocalServer::listen(const std::string& path, Handler handler, std::string& error) {
    state_->listener = listenLocal(path, error);
    if (!state_->listener) return false;
    state_->path = path;
    state_->handler = std::move(handler);
    state_->incoming = std::make_unique<QSocketNotifier>(state_->listener.get(), QSocketNotifier::Read);
    QObject::connect(state_->incoming.get(), &QSocketNotifier::activated,
                     [state = state_.get()] { state->accept(); });
    return true;
}

void QtLocalServer::close() {
    if (!state_->incoming) return;
    state_->incoming.reset();
    state_->listener.reset();
    unlink(state_->path.c_str());
}

}  // namespace tarnwell
