#include "service/HttpsClient.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace tarnwell::service::testing {

namespace {

std::size_t takeBody(char* data, std::size_t, std::size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, count);
    return count;
}

std::size_t takeHeader(char* data, std::size_t, std::size_t count, void* out) {
    const std::string_view line(data, count);
    const auto colon = line.find(": ");
    if (colon == std::string_view::npos) return count;
    std::string name(line.substr(0, colon));
    for (char& c : name)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    std::string_view value = line.substr(colon + 2);
    while (value.ends_with('\r') || value.ends_with('\n'))
        value.remove_suffix(1);
    (*static_cast<std::map<std::string, std::string>*>(out))[name] = value;
    return count;
}

}  // namespace

HttpsClient::HttpsClient(std::string authorityFile, std::uint16_t port)
    : authorityFile_(std::move(authorityFile)), port_(port), curl_(curl_easy_init()) {}

HttpsClient::~HttpsClient() {
    curl_easy_cleanup(curl_);
}

HttpsReply HttpsClient::perform(const std::string& host, const std::string& target, const Headers& headers,
                                const std::string* body) {
    HttpsReply reply;
    const std::string url = "https://" + host + ":" + std::to_string(port_) + target;
    const std::string toLoopback = "::127.0.0.1:" + std::to_string(port_);
    curl_slist* lines = nullptr;
    for (const auto& line : headers)
        lines = curl_slist_append(lines, line.c_str());
    curl_slist* connectTo = curl_slist_append(nullptr, toLoopback.c_str());

    curl_easy_reset(curl_);
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_CONNECT_TO, connectTo);
    curl_easy_setopt(curl_, CURLOPT_CAINFO, authorityFile_.c_str());
    curl_easy_setopt(curl_, CURLOPT_PROXY, "");
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, lines);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, 30'000L);
    curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
    if (compressed_) curl_easy_setopt(curl_, CURLOPT_ACCEPT_ENCODING, "gzip");
    if (body) {
        curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
        curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, body->data());
    }
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, takeBody);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &reply.body);
    curl_easy_setopt(curl_, CURLOPT_HEADERFUNCTION, takeHeader);
    curl_easy_setopt(curl_, CURLOPT_HEADERDATA, &reply.headers);
    const CURLcode code = curl_easy_perform(curl_);
    if (code == CURLE_OK)
        curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &reply.status);
    else
        reply.error = curl_easy_strerror(code);
    curl_slist_free_all(lines);
    curl_slist_free_all(connectTo);
    return reply;
}

struct RawPeer::Tls {
    SSL_CTX* context = SSL_CTX_new(TLS_client_method());
    SSL* ssl = nullptr;
    ~Tls() {
        SSL_free(ssl);
        SSL_CTX_free(context);
    }
};

RawPeer::RawPeer(std::uint16_t port, std::chrono::milliseconds patience)
    : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    // The library writes without MSG_NOSIGNAL.
    ::signal(SIGPIPE, SIG_IGN);
    timeval limit{};
    limit.tv_sec = patience.count() / 1000;
    limit.tv_usec = patience.count() % 1000 * 1000;
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(socket_);
        socket_ = -1;
    }
}

RawPeer::~RawPeer() {
    if (socket_ >= 0) ::close(socket_);
}

bool RawPeer::handshake(int maxVersion, RawPeer* former) {
    tls_ = std::make_unique<Tls>();
    if (maxVersion != 0) {
        SSL_CTX_set_security_level(tls_->context, 0);
        SSL_CTX_set_min_proto_version(tls_->context, 0);
        SSL_CTX_set_max_proto_version(tls_->context, maxVersion);
    }
    tls_->ssl = SSL_new(tls_->context);
    if (former) {
        SSL_SESSION* session = SSL_get1_session(former->tls_->ssl);
        SSL_set_session(tls_->ssl, session);
        SSL_SESSION_free(session);
    }
    SSL_set_fd(tls_->ssl, socket_);
    return SSL_connect(tls_->ssl) == 1;
}

bool RawPeer::resumed() const {
    return SSL_session_reused(tls_->ssl) == 1;
}

void RawPeer::send(std::string_view bytes) {
    if (tls_) {
        (void)SSL_write(tls_->ssl, bytes.data(), static_cast<int>(bytes.size()));
    } else {
        [[maybe_unused]] const auto sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
}

long RawPeer::readSome(char* out, std::size_t count) {
    errno = 0;
    const long got =
        tls_ ? SSL_read(tls_->ssl, out, static_cast<int>(count)) : ::recv(socket_, out, count, 0);
    if (got <= 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) timedOut_ = true;
    return got;
}

std::string RawPeer::readToEnd() {
    return readUntil(std::string_view("\0\0never", 7));
}

std::string RawPeer::readUntil(std::string_view text) {
    std::string all;
    char piece[4096];
    while (all.find(text) == std::string::npos) {
        const long got = readSome(piece, sizeof piece);
        if (got <= 0) break;
        all.append(piece, static_cast<std::size_t>(got));
    }
    return all;
}

}  // namespace tarnwell::service::testing
