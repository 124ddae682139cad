#include "service/Connection.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http.hpp>
#include <vector>

namespace tarnwell::service {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

namespace {

constexpr std::size_t kHeaderLimit = 16 * 1024;
constexpr std::size_t kReadStep = 16 * 1024;
/// What is held in memory of contents that are being sent.
constexpr std::size_t kSendStep = 256 * 1024;
constexpr std::size_t kDrainLimit = 4 << 20;
constexpr std::chrono::seconds kDrainTime{2};
/// A refused peer that is silent for this long has nothing more to send.
constexpr std::chrono::milliseconds kDrainPause{300};
constexpr std::chrono::seconds kShutdownTime{2};

constexpr auto kTuple = net::as_tuple(net::use_awaitable);

bool isProtocolError(const beast::error_code& error) {
    static const auto& category = http::make_error_code(http::error::bad_method).category();
    return error.category() == category && error != http::error::end_of_stream &&
           error != http::error::partial_message;
}

unsigned statusOf(const beast::error_code& error) {
    if (error == http::error::header_limit || error == http::error::buffer_overflow) return 431;
    if (error == http::error::body_limit) return 413;
    return 400;
}

Request requestFrom(http::request<http::string_body>&& message) {
    Request request;
    request.method = std::string(message.method_string());
    request.target = std::string(message.target());
    for (const auto& field : message) {
        request.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
    }
    if (const std::string* host = request.header("Host")) request.host = *host;
    request.body = std::move(message.body());
    return request;
}

}  // namespace

Connection::Connection(net::ip::tcp::socket socket, ServerShared& shared)
    : shared_(shared),
      tls_(shared.tls.current()),
      stream_(std::move(socket), *tls_),
      buffer_(2 * kHeaderLimit) {
    beast::error_code error;
    auto& tcp = beast::get_lowest_layer(stream_).socket();
    tcp.set_option(net::ip::tcp::no_delay(true), error);
    const auto peer = tcp.remote_endpoint(error);
    if (!error) peer_ = peer.address().to_string();
    admitted_ = shared_.registry.enter(this, shared_.options.maxConnections);
}

Connection::~Connection() {
    if (admitted_) shared_.registry.leave(this);
}

void Connection::close(bool evenBusy) {
    net::post(stream_.get_executor(), [self = shared_from_this(), evenBusy] {
        if (!self->idle_ && !evenBusy) return;
        beast::error_code ignored;
        beast::get_lowest_layer(self->stream_).socket().close(ignored);
    });
}

net::awaitable<void> Connection::run(std::shared_ptr<Connection> self) {
    try {
        co_await self->serve();
    } catch (const boost::system::system_error& error) {
        // Clients leave in the middle of a reply all the time.
        self->shared_.log.info("connection of " + self->peer_ + " ended: " + error.code().message());
    } catch (const std::exception& error) {
        self->shared_.log.warning("connection of " + self->peer_ + " ended: " + error.what());
    }
}

net::awaitable<void> Connection::serve() {
    expireIn(shared_.options.handshakeTimeout);
    const auto [failure] = co_await stream_.async_handshake(net::ssl::stream_base::server, kTuple);
    if (failure) {
        if (failure != net::error::eof)
            shared_.log.info(peer_ + " TLS handshake failed: " + failure.message());
        co_return;
    }
    while (co_await serveRequest()) {
    }
    expireIn(kShutdownTime);
    co_await stream_.async_shutdown(kTuple);
}

net::awaitable<bool> Connection::waitForRequest() {
    if (buffer_.size() > 0) co_return true;
    idle_ = true;
    if (shared_.stopping) co_return false;
    expireIn(shared_.options.idleTimeout);
    const auto [error, count] = co_await stream_.async_read_some(buffer_.prepare(kReadStep), kTuple);
    idle_ = false;
    buffer_.commit(count);
    co_return !error;
}

net::awaitable<bool> Connection::serveRequest() {
    if (!co_await waitForRequest()) co_return false;
    const auto begin = std::chrono::steady_clock::now();

    http::request_parser<http::empty_body> head;
    head.header_limit(kHeaderLimit);
    head.body_limit(boost::none);
    expireIn(shared_.options.headerTimeout);
    const auto [headError, headBytes] = co_await http::async_read_header(stream_, buffer_, head, kTuple);
    if (headError) {
        if (!isProtocolError(headError)) co_return false;
        co_return co_await refuse(statusOf(headError), "malformed or too long request\n");
    }

    const std::string target(head.get().target());
    const std::size_t limit = shared_.router.bodyLimit(target);
    if (head.content_length().value_or(0) > limit) co_return co_await refuse(413, "the body is too long\n");
    if (beast::iequals(head.get()[http::field::expect], "100-continue")) {
        http::response<http::empty_body> proceed(http::status::continue_, 11);
        expireIn(shared_.options.stallTimeout);
        const auto [error, bytes] = co_await http::async_write(stream_, proceed, kTuple);
        if (error) co_return false;
    }

    http::request_parser<http::string_body> parser(std::move(head));
    parser.body_limit(limit);
    const auto bodyEnd = begin + shared_.options.bodyTimeout;
    while (!parser.is_done()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(bodyEnd - std::chrono::steady_clock::now());
        if (left.count() <= 0) co_return false;
        expireIn(std::min(left, shared_.options.stallTimeout));
        const auto [error, bytes] = co_await http::async_read_some(stream_, buffer_, parser, kTuple);
        if (!error) continue;
        if (!isProtocolError(error)) co_return false;
        co_return co_await refuse(statusOf(error), "malformed or too long body\n");
    }
    beast::get_lowest_layer(stream_).expires_never();

    const bool keepAlive = parser.get().keep_alive() && !shared_.stopping;
    Request request = requestFrom(parser.release());
    Reply reply = co_await answer(request);
    const unsigned status = reply.status;
    const std::size_t size = reply.range ? static_cast<std::size_t>(reply.range->count) : reply.body.size();
    co_await send(std::move(reply), keepAlive, request.method != "HEAD");

    // Never the query: it may hold a token.
    const auto spent =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
    shared_.log.info(peer_ + " " + request.method.substr(0, 16) + " " +
                     request.target.substr(0, std::min<std::size_t>(request.target.find('?'), 100)) + " " +
                     request.host.substr(0, 100) + " " + std::to_string(status) + " " + std::to_string(size) +
                     " B " + std::to_string(spent.count()) + " ms");
    co_return keepAlive;
}

net::awaitable<Reply> Connection::answer(Request& request) {
    const Router& router = shared_.router;
    auto step = co_await on(shared_.workers, [&] { return router.start(request); });
    if (step.reply) co_return std::move(*step.reply);
    if (step.delay.count() > 0) {
        net::steady_timer timer(stream_.get_executor(), step.delay);
        co_await timer.async_wait(kTuple);
    }
    co_return co_await on(shared_.threadsOf(step.lane),
                          [&] { return router.finish(*step.endpoint, request); });
}

net::awaitable<void> Connection::send(Reply reply, bool keepAlive, bool withBody) {
    http::response<http::string_body> message(http::int_to_status(reply.status), 11);
    message.set(http::field::content_type, reply.contentType);
    message.set(http::field::cache_control, "no-store");
    for (const auto& [name, value] : reply.headers)
        message.set(name, value);
    message.keep_alive(keepAlive);
    message.body() = std::move(reply.body);
    message.prepare_payload();
    if (reply.range) message.content_length(static_cast<std::uint64_t>(reply.range->count));

    http::response_serializer<http::string_body> serializer(message);
    serializer.split(!withBody || reply.range);
    while (!serializer.is_done() && !(serializer.split() && serializer.is_header_done())) {
        expireIn(shared_.options.stallTimeout);
        co_await http::async_write_some(stream_, serializer, net::use_awaitable);
    }
    if (reply.range && withBody) co_await sendRange(*reply.range);
}

net::awaitable<void> Connection::sendRange(const ContentRange& range) {
    std::vector<char> buffer(static_cast<std::size_t>(std::min<std::int64_t>(range.count, kSendStep)));
    std::int64_t position = range.position;
    for (std::int64_t left = range.count; left > 0;) {
        const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(left, kSendStep));
        const std::size_t got =
            co_await on(shared_.workers, [&] { return range.reader->read(position, buffer.data(), wanted); });
        // The length is announced already: only a cut connection tells the client that these are not all
        // bytes.
        if (got != wanted) throw std::runtime_error("stored contents ended early");
        expireIn(shared_.options.stallTimeout);
        co_await net::async_write(stream_, net::buffer(buffer.data(), got), net::use_awaitable);
        position += static_cast<std::int64_t>(got);
        left -= static_cast<std::int64_t>(got);
    }
}

net::awaitable<void> Connection::drain() {
    const auto end = std::chrono::steady_clock::now() + kDrainTime;
    std::size_t drained = 0;
    while (drained < kDrainLimit && std::chrono::steady_clock::now() < end) {
        buffer_.clear();
        expireIn(kDrainPause);
        const auto [error, count] = co_await stream_.async_read_some(buffer_.prepare(kReadStep), kTuple);
        if (error) break;
        drained += count;
    }
}

net::awaitable<bool> Connection::refuse(unsigned status, std::string text) {
    shared_.log.info(peer_ + " refused: " + std::to_string(status));
    co_await send(Reply::text(status, std::move(text)), false, true);
    co_await drain();
    co_return false;
}

bool ServerShared::Registry::enter(Connection* connection, std::size_t limit) {
    const std::lock_guard lock(lock_);
    return connections_.size() < limit && connections_.insert(connection).second;
}

void ServerShared::Registry::leave(Connection* connection) {
    const std::lock_guard lock(lock_);
    connections_.erase(connection);
    if (connections_.empty()) empty_.notify_all();
}

void ServerShared::Registry::closeAll(bool evenBusy) {
    std::vector<std::shared_ptr<Connection>> alive;
    {
        const std::lock_guard lock(lock_);
        for (Connection* connection : connections_) {
            // None for one that is at its end and waits for this lock to leave.
            if (auto shared = connection->weak_from_this().lock()) alive.push_back(std::move(shared));
        }
    }
    // Without the lock: the last reference may be one of these.
    for (const auto& connection : alive)
        connection->close(evenBusy);
}

bool ServerShared::Registry::waitUntilEmpty(std::chrono::milliseconds time) {
    std::unique_lock lock(lock_);
    return empty_.wait_for(lock, time, [this] { return connections_.empty(); });
}

}  // namespace tarnwell::service
