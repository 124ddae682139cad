#pragma once

#include <atomic>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <unordered_set>

#include "service/Server.h"

namespace tarnwell::service {

class Connection;

/// What the connections of a server share. Constant after construction, but for the two marked members.
struct ServerShared {
    ServerShared(ServerOptions serverOptions, Router& itsRouter, TlsContext& itsTls, ServiceLog& itsLog)
        : options(std::move(serverOptions)), router(itsRouter), tls(itsTls), log(itsLog) {}

    const ServerOptions options;
    Router& router;
    TlsContext& tls;
    ServiceLog& log;
    std::atomic<bool> stopping{false};

    /// The connections alive; own lock.
    class Registry {
      public:
        /// False, and nothing entered, when there are `limit` of them.
        bool enter(Connection* connection, std::size_t limit);
        void leave(Connection* connection);
        /// Closes those that wait for a request, or all of them.
        void closeAll(bool evenBusy);
        /// False when some are left at the end of the time.
        bool waitUntilEmpty(std::chrono::milliseconds time);

      private:
        std::mutex lock_;
        std::condition_variable empty_;
        std::unordered_set<Connection*> connections_;
    } registry;

    boost::asio::thread_pool workers{4};
    boost::asio::thread_pool writers{4};
    boost::asio::thread_pool hashers{2};
    boost::asio::thread_pool& threadsOf(Lane lane) {
        return lane == Lane::hashing ? hashers : lane == Lane::writing ? writers : workers;
    }
};

namespace detail {
template <class Work>
boost::asio::awaitable<std::invoke_result_t<Work&>> call(Work work) {
    co_return work();
}
}  // namespace detail

/// Runs `work` on a thread of the pool while the coroutine waits; its exceptions come back.
template <class Work>
boost::asio::awaitable<std::invoke_result_t<Work&>> on(boost::asio::thread_pool& pool, Work work) {
    co_return co_await boost::asio::co_spawn(pool, detail::call(std::move(work)), boost::asio::use_awaitable);
}

/// One client's connection: handshake, then requests one after another. Everything runs on the socket's
/// strand, except close(). Owned by its own coroutine.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    Connection(boost::asio::ip::tcp::socket socket, ServerShared& shared);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Serves until the connection ends, keeping it alive. Never throws.
    static boost::asio::awaitable<void> run(std::shared_ptr<Connection> self);
    /// Any thread. A busy connection is left alone unless `evenBusy`; it closes itself after its reply when
    /// the server is stopping.
    void close(bool evenBusy);
    /// Has its place among the server's connections; without one it must not run.
    [[nodiscard]] bool admitted() const { return admitted_; }

  private:
    using Stream = boost::beast::ssl_stream<boost::beast::tcp_stream>;

    boost::asio::awaitable<void> serve();
    /// One request and its reply; false when the connection ends.
    boost::asio::awaitable<bool> serveRequest();
    boost::asio::awaitable<bool> waitForRequest();
    boost::asio::awaitable<Reply> answer(Request& request);
    boost::asio::awaitable<void> send(Reply reply, bool keepAlive, bool withBody);
    boost::asio::awaitable<void> sendRange(const ContentRange& range);
    /// For a refused request whose body is still coming: the peer reads the reply only after it has sent for
    /// a while.
    boost::asio::awaitable<void> drain();
    boost::asio::awaitable<bool> refuse(unsigned status, std::string text);
    void expireIn(std::chrono::milliseconds time) {
        boost::beast::get_lowest_layer(stream_).expires_after(time);
    }

    ServerShared& shared_;
    const std::shared_ptr<boost::asio::ssl::context> tls_;
    Stream stream_;
    boost::beast::flat_buffer buffer_;
    std::string peer_;
    bool idle_ = true;  ///< no request is being read or answered; on the strand
    bool admitted_ = false;
};

}  // namespace tarnwell::service
