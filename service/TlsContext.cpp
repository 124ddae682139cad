#include "service/TlsContext.h"

#include <sys/stat.h>

#include <boost/asio/ssl/context.hpp>
#include <boost/system/system_error.hpp>
#include <cstring>

#include "service/ServiceError.h"

namespace tarnwell::service {

namespace ssl = boost::asio::ssl;

namespace {

timespec timeOf(const CertificateFiles& files) {
    struct stat status {};
    return ::stat(files.server.c_str(), &status) == 0 ? status.st_mtim : timespec{};
}

/// The only protocol spoken here; clients that offer HTTP/2 as well must not be answered with it.
int chooseHttp1(SSL*, const unsigned char** out, unsigned char* outSize, const unsigned char* offered,
                unsigned int offeredSize, void*) {
    static constexpr unsigned char kHttp1[] = "\x08http/1.1";
    unsigned char* chosen = nullptr;
    if (SSL_select_next_proto(&chosen, outSize, kHttp1, sizeof kHttp1 - 1, offered, offeredSize) !=
        OPENSSL_NPN_NEGOTIATED) {
        return SSL_TLSEXT_ERR_NOACK;
    }
    *out = chosen;
    return SSL_TLSEXT_ERR_OK;
}

}  // namespace

TlsContext::TlsContext(CertificateFiles files) : files_(std::move(files)) {
    loaded_ = timeOf(files_);
    try {
        context_ = load();
    } catch (const boost::system::system_error& error) {
        throw ServiceError("cannot load " + files_.server.string() + ": " + error.what());
    }
}

TlsContext::~TlsContext() = default;

std::shared_ptr<ssl::context> TlsContext::load() const {
    auto context = std::make_shared<ssl::context>(ssl::context::tls_server);
    context->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                         ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1 | ssl::context::no_compression);
    context->use_private_key_file(files_.server.string(), ssl::context::pem);
    context->use_certificate_chain_file(files_.server.string());
    SSL_CTX* handle = context->native_handle();
    SSL_CTX_set_alpn_select_cb(handle, chooseHttp1, nullptr);
    SSL_CTX_set_options(handle, SSL_OP_NO_RENEGOTIATION);
    // Returning clients resume by ticket; the identifier is what OpenSSL wants to see for it.
    static constexpr unsigned char kSessionContext[] = "tarnwell-service";
    SSL_CTX_set_session_id_context(handle, kSessionContext, sizeof kSessionContext - 1);
    // Idle connections give their record buffers back: thousands of them are mostly idle.
    SSL_CTX_set_mode(handle, SSL_MODE_RELEASE_BUFFERS);
    return context;
}

std::shared_ptr<ssl::context> TlsContext::current() {
    const std::lock_guard lock(lock_);
    const auto now = std::chrono::steady_clock::now();
    if (now < nextLook_) return context_;
    nextLook_ = now + std::chrono::seconds(1);
    const timespec written = timeOf(files_);
    if (std::memcmp(&written, &loaded_, sizeof written) == 0) return context_;
    try {
        context_ = load();
        loaded_ = written;
    } catch (const boost::system::system_error&) {
        // The former certificate serves on; the next look tries again.
    }
    return context_;
}

}  // namespace tarnwell::service
