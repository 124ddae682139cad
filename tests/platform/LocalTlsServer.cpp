#include "LocalTlsServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace tarnwell::testing {

namespace {

template <class T, void (*release)(T*)>
struct Release {
    void operator()(T* object) const { release(object); }
};
using Key = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY, EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Release<X509, X509_free>>;
using Context = std::unique_ptr<SSL_CTX, Release<SSL_CTX, SSL_CTX_free>>;
using Session = std::unique_ptr<SSL, Release<SSL, SSL_free>>;

void extend(X509* certificate, X509* issuer, int kind, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    auto* extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
    if (!extension) throw std::runtime_error("certificate extension " + value);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

/// `issuer` null: an authority that signs itself.
Certificate makeCertificate(EVP_PKEY* key, const std::string& name, X509* issuer, EVP_PKEY* issuerKey) {
    Certificate certificate(X509_new());
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), issuer ? 2 : 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
    X509_set_pubkey(certificate.get(), key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer ? issuer : certificate.get()));
    if (issuer)
        extend(certificate.get(), issuer, NID_subject_alt_name, "DNS:" + name + ",IP:127.0.0.1");
    else
        extend(certificate.get(), certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
    X509_sign(certificate.get(), issuer ? issuerKey : key, EVP_sha256());
    return certificate;
}

}  // namespace

class LocalTlsServer::Tls {
  public:
    Tls(const std::string& host, const std::string& authorityFile)
        : context(SSL_CTX_new(TLS_server_method())) {
        const Key authorityKey(EVP_EC_gen("P-256")), key(EVP_EC_gen("P-256"));
        const auto authority = makeCertificate(authorityKey.get(), "Test authority", nullptr, nullptr);
        const auto certificate = makeCertificate(key.get(), host, authority.get(), authorityKey.get());
        SSL_CTX_use_certificate(context.get(), certificate.get());
        SSL_CTX_use_PrivateKey(context.get(), key.get());
        std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(authorityFile.c_str(), "w"), std::fclose);
        if (!file || PEM_write_X509(file.get(), authority.get()) != 1)
            throw std::runtime_error(authorityFile);
    }
    Context context;
};

namespace {

class TlsConnection final : public LocalTlsServer::Connection {
  public:
    TlsConnection(SSL_CTX* context, int descriptor, const std::atomic<bool>& stopping)
        : session_(SSL_new(context)), descriptor_(descriptor), stopping_(stopping) {
        SSL_set_fd(session_.get(), descriptor);
    }
    bool handshake() { return SSL_accept(session_.get()) == 1; }
    void closeNotify() { SSL_shutdown(session_.get()); }

    void write(std::string_view bytes) override {
        while (!bytes.empty()) {
            const int count = SSL_write(session_.get(), bytes.data(), static_cast<int>(bytes.size()));
            if (count <= 0) return;
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    bool ended() override {
        pollfd watched{descriptor_, POLLIN | POLLRDHUP, 0};
        ::poll(&watched, 1, 10);
        return stopping_ || (watched.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
    }
    /// False at the end of the connection.
    bool read(LocalTlsServer::Request& request) {
        std::size_t head = std::string::npos;
        while ((head = buffer_.find("\r\n\r\n")) == std::string::npos) {
            if (!fill()) return false;
        }
        auto text = buffer_.substr(0, head + 2);
        buffer_.erase(0, head + 4);
        request.method = text.substr(0, text.find(' '));
        text.erase(0, request.method.size() + 1);
        request.target = text.substr(0, text.find(' '));
        text.erase(0, text.find("\r\n") + 2);
        while (!text.empty()) {
            auto name = text.substr(0, text.find(':'));
            auto value = text.substr(name.size() + 1, text.find("\r\n") - name.size() - 1);
            value.erase(0, value.find_first_not_of(' '));
            std::transform(name.begin(), name.end(), name.begin(),
                           [](unsigned char c) { return std::tolower(c); });
            request.headers.emplace(name, value);
            text.erase(0, text.find("\r\n") + 2);
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

  private:
    bool fill() {
        while (SSL_pending(session_.get()) == 0) {
            pollfd watched{descriptor_, POLLIN, 0};
            const int ready = ::poll(&watched, 1, 20);
            if (stopping_) return false;
            if (ready > 0) break;
        }
        char block[16384];
        const int count = SSL_read(session_.get(), block, sizeof block);
        if (count > 0) buffer_.append(block, static_cast<std::size_t>(count));
        return count > 0;
    }

    Session session_;
    int descriptor_;
    const std::atomic<bool>& stopping_;
    std::string buffer_;
};

}  // namespace

void LocalTlsServer::Connection::reply(int status, std::string_view body, std::string_view headers) {
    write("HTTP/1.1 " + std::to_string(status) + " Status\r\nContent-Length: " + std::to_string(body.size()) +
          "\r\n" + std::string(headers) + "\r\n" + std::string(body));
}

LocalTlsServer::LocalTlsServer(Handler handler, const std::string& certificateHost)
    : handler_(std::move(handler)), tls_(std::make_unique<Tls>(certificateHost, authorityFile())) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener_, plain, sizeof address) != 0 || ::listen(listener_, 64) != 0 ||
        ::getsockname(listener_, plain, &length) != 0) {
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
}

std::string LocalTlsServer::url(const std::string& target, const std::string& host) const {
    return "https://" + host + ":" + std::to_string(port_) + target;
}

void LocalTlsServer::acceptAll() {
    while (!stopping_) {
        const int descriptor = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor < 0) continue;
        ++accepted_;
        std::lock_guard lock(mutex_);
        connections_.emplace_back([this, descriptor] { serve(descriptor); });
    }
}

void LocalTlsServer::serve(int descriptor) {
    // A peer that stops in the middle of a handshake must not hold up the test's end.
    const timeval limit{10, 0};
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    {
        TlsConnection connection(tls_->context.get(), descriptor, stopping_);
        if (connection.handshake()) {
            ++handshakes_;
            Request request;
            while (connection.read(request) && handler_(request, connection))
                request = {};
        }
    }
    ::close(descriptor);
}

}  // namespace tarnwell::testing
