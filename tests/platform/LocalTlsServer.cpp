#include "LocalTlsServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace tarnwell::testing {

namespace {

/// A context with a certificate for the host that signs itself and is written to `file` as well.
SSL_CTX* selfSigned(const std::string& host, const std::string& file) {
    EVP_PKEY* const key = EVP_EC_gen("P-256");
    X509* const certificate = X509_new();
    X509_set_version(certificate, 2);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
    X509_set_pubkey(certificate, key);
    auto* const name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("test"), -1,
                               -1, 0);
    X509_set_issuer_name(certificate, name);
    auto* const hosts = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name,
                                            ("DNS:" + host + ",IP:127.0.0.1").c_str());
    X509_add_ext(certificate, hosts, -1);
    X509_EXTENSION_free(hosts);
    X509_sign(certificate, key, EVP_sha256());

    auto* const context = SSL_CTX_new(TLS_server_method());
    SSL_CTX_use_certificate(context, certificate);
    SSL_CTX_use_PrivateKey(context, key);
    FILE* const out = std::fopen(file.c_str(), "w");
    if (!out || PEM_write_X509(out, certificate) != 1) throw std::runtime_error(file);
    std::fclose(out);
    X509_free(certificate);
    EVP_PKEY_free(key);
    return context;
}

}  // namespace

void LocalTlsServer::Connection::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const int count = SSL_write(session_, bytes.data(), static_cast<int>(bytes.size()));
        if (count <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

bool LocalTlsServer::Connection::ended() {
    pollfd watched{SSL_get_fd(session_), POLLIN | POLLRDHUP, 0};
    ::poll(&watched, 1, 10);
    return stopping_ || (watched.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

void LocalTlsServer::Connection::reply(int status, std::string_view body, std::string_view headers) {
    write("HTTP/1.1 " + std::to_string(status) + " Status\r\nContent-Length: " + std::to_string(body.size()) +
          "\r\n" + std::string(headers) + "\r\n" + std::string(body));
}

bool LocalTlsServer::Connection::read(Request& request) {
    std::size_t head = std::string::npos;
    while ((head = buffer_.find("\r\n\r\n")) == std::string::npos) {
        if (!fill()) return false;
    }
    std::istringstream text(buffer_.substr(0, head + 2));
    buffer_.erase(0, head + 4);
    std::string line;
    text >> request.method >> request.target;
    std::getline(text, line);
    while (std::getline(text, line)) {
        auto name = line.substr(0, line.find(':'));
        auto value = line.substr(name.size() + 1, line.size() - name.size() - 2);
        value.erase(0, value.find_first_not_of(' '));
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        request.headers.emplace(name, value);
    }
    const auto length = request.headers.find("content-length");
    const std::size_t size = length == request.headers.end() ? 0 : std::stoul(length->second);
    while (buffer_.size() < size) {
        if (!fill()) return false;
    }
    request.body = buffer_.substr(0, size);
    buffer_.erase(0, size);
    return true;
}

bool LocalTlsServer::Connection::fill() {
    while (SSL_pending(session_) == 0) {
        pollfd watched{SSL_get_fd(session_), POLLIN, 0};
        const int ready = ::poll(&watched, 1, 20);
        if (stopping_) return false;
        if (ready > 0) break;
    }
    char block[16384];
    const int count = SSL_read(session_, block, sizeof block);
    if (count > 0) buffer_.append(block, static_cast<std::size_t>(count));
    return count > 0;
}

LocalTlsServer::LocalTlsServer(Handler handler, const std::string& certificateHost)
    : handler_(std::move(handler)), context_(selfSigned(certificateHost, authorityFile())) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::listen(listener_, 64) != 0 ||  // on a port of the system's choice
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("cannot listen");
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { acceptAll(); });
}

LocalTlsServer::~LocalTlsServer() {
    stopping_ = true;
    ::shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    ::close(listener_);
    for (auto& connection : connections_)
        connection.join();
    SSL_CTX_free(context_);
}

std::string LocalTlsServer::url(const std::string& target, const std::string& host) const {
    return "https://" + host + ":" + std::to_string(port_) + target;
}

void LocalTlsServer::acceptAll() {
    while (!stopping_) {
        const int descriptor = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor < 0) continue;
        ++accepted_;
        connections_.emplace_back([this, descriptor] { serve(descriptor); });
    }
}

void LocalTlsServer::serve(int descriptor) {
    // A peer that stops in the middle of a handshake must not hold up the test's end.
    const timeval limit{10, 0};
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    SSL* const session = SSL_new(context_);
    SSL_set_fd(session, descriptor);
    if (SSL_accept(session) == 1) {
        ++handshakes_;
        Connection connection(session, stopping_);
        for (Request request; connection.read(request) && handler_(request, connection); request = {}) {
        }
    }
    SSL_free(session);
    ::close(descriptor);
}

}  // namespace tarnwell::testing
