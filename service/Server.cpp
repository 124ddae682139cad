#include "service/Server.h"

#include <sys/resource.h>

#include <algorithm>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <mutex>
#include <thread>
#include <vector>

#include "service/Connection.h"
#include "service/ServiceError.h"

namespace tarnwell::service {

namespace net = boost::asio;
using tcp = boost::asio::ip::tcp;

namespace {

constexpr auto kTuple = net::as_tuple(net::use_awaitable);
/// Pause after a failed accept: without free descriptors the next one would fail as well.
constexpr std::chrono::milliseconds kAcceptPause{100};
/// Descriptors that connections leave to the database, to contents being sent and to the log.
constexpr std::size_t kReservedDescriptors = 128;

/// Lets the process have as many descriptors as it may, and returns what that leaves for connections.
std::size_t connectionsFor(std::size_t wanted) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return wanted;
    if (limit.rlim_cur < limit.rlim_max) {
        rlimit more = limit;
        more.rlim_cur = std::min<rlim_t>(limit.rlim_max, std::max<rlim_t>(limit.rlim_cur, 2 * wanted + 256));
        if (::setrlimit(RLIMIT_NOFILE, &more) == 0) limit = more;
    }
    const auto descriptors = static_cast<std::size_t>(limit.rlim_cur);
    // Each connection may have contents open besides its socket.
    const std::size_t room = descriptors > 2 * kReservedDescriptors
                                 ? (descriptors - kReservedDescriptors) / 2
                                 : std::max<std::size_t>(descriptors / 4, 4);
    return std::min(wanted, room);
}

ServerOptions withLimit(ServerOptions options) {
    options.maxConnections = connectionsFor(options.maxConnections);
    return options;
}

}  // namespace

class Server::Implementation {
  public:
    Implementation(ServerOptions options, Router& router, TlsContext& tls, ServiceLog& log)
        : shared_(withLimit(std::move(options)), router, tls, log) {}
    ~Implementation() { stop(); }

    void start() {
        boost::system::error_code error;
        const auto& listen = shared_.options.listen;
        const auto address = net::ip::make_address(listen == "localhost" ? "127.0.0.1" : listen, error);
        if (error) throw ServiceError("\"" + listen + "\" is not an IP address to listen at");
        const tcp::endpoint endpoint(address, shared_.options.port);
        try {
            acceptor_.open(endpoint.protocol());
            acceptor_.set_option(net::socket_base::reuse_address(true));
            acceptor_.bind(endpoint);
            acceptor_.listen(1024);
        } catch (const boost::system::system_error& failure) {
            throw ServiceError("cannot listen at " + shared_.options.listen + ":" +
                               std::to_string(shared_.options.port) + ": " + failure.code().message());
        }
        port_ = acceptor_.local_endpoint().port();
        net::co_spawn(acceptor_.get_executor(), acceptAll(), net::detached);
        const unsigned count = std::max(2u, std::thread::hardware_concurrency());
        for (unsigned i = 0; i < count; ++i) {
            threads_.emplace_back([this] { context_.run(); });
        }
    }

    [[nodiscard]] std::uint16_t port() const { return port_; }

    void every(std::chrono::milliseconds period, std::function<void()> task) {
        net::co_spawn(context_, repeat(period, std::move(task)), net::detached);
    }

    void stop() {
        const std::lock_guard lock(stopping_);
        if (stopped_) return;
        stopped_ = true;
        shared_.stopping = true;
        net::post(acceptor_.get_executor(), [this] {
            boost::system::error_code ignored;
            acceptor_.close(ignored);
        });
        if (!threads_.empty()) {
            shared_.registry.closeAll(false);
            if (!shared_.registry.waitUntilEmpty(shared_.options.stopGrace)) {
                shared_.log.warning("stopping although requests are still running");
                shared_.registry.closeAll(true);
                shared_.registry.waitUntilEmpty(std::chrono::seconds(1));
            }
        }
        context_.stop();
        for (auto& thread : threads_)
            thread.join();
        shared_.workers.join();
        shared_.writers.join();
        shared_.hashers.join();
    }

  private:
    net::awaitable<void> acceptAll() {
        bool short_ = false;
        for (;;) {
            tcp::socket socket(net::make_strand(context_));
            const auto [error] = co_await acceptor_.async_accept(socket, kTuple);
            if (shared_.stopping || error == net::error::operation_aborted) co_return;
            if (error) {
                if (error == net::error::connection_aborted) continue;
                // Once per shortage, not once per pause.
                if (!short_) shared_.log.warning("cannot accept a connection: " + error.message());
                short_ = true;
                net::steady_timer pause(acceptor_.get_executor(), kAcceptPause);
                co_await pause.async_wait(kTuple);
                continue;
            }
            short_ = false;
            try {
                const auto executor = socket.get_executor();
                const auto connection = std::make_shared<Connection>(std::move(socket), shared_);
                if (connection->admitted())
                    net::co_spawn(executor, Connection::run(connection), net::detached);
                else
                    shared_.log.info("too many connections, one was closed");
            } catch (const std::exception& failure) {
                shared_.log.warning(std::string("cannot serve a connection: ") + failure.what());
            }
        }
    }

    net::awaitable<void> repeat(std::chrono::milliseconds period, std::function<void()> task) {
        net::steady_timer timer(co_await net::this_coro::executor);
        while (!shared_.stopping) {
            timer.expires_after(period);
            co_await timer.async_wait(kTuple);
            try {
                co_await on(shared_.workers, [&] { task(); });
            } catch (const std::exception& failure) {
                shared_.log.warning(std::string("a regular task failed: ") + failure.what());
            }
        }
    }

    ServerShared shared_;
    // After what coroutines use: the context destroys those that are left.
    net::io_context context_;
    tcp::acceptor acceptor_{net::make_strand(context_)};
    std::uint16_t port_ = 0;
    std::vector<std::thread> threads_;
    std::mutex stopping_;
    bool stopped_ = false;  ///< guarded by stopping_
};

Server::Server(ServerOptions options, Router& router, TlsContext& tls, ServiceLog& log)
    : implementation_(std::make_unique<Implementation>(std::move(options), router, tls, log)) {}
Server::~Server() = default;
void Server::start() {
    implementation_->start();
}
std::uint16_t Server::port() const {
    return implementation_->port();
}
void Server::every(std::chrono::milliseconds period, std::function<void()> task) {
    implementation_->every(period, std::move(task));
}
void Server::stop() {
    implementation_->stop();
}

}  // namespace tarnwell::service
