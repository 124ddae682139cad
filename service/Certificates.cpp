#include "service/Certificates.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "service/FileDescriptor.h"
#include "service/ServiceError.h"

namespace tarnwell::service {

namespace fs = std::filesystem;

namespace {

constexpr long kDay = 24 * 3600;
constexpr long kAuthorityDays = 3650;
constexpr long kServerDays = 365;
constexpr long kRenewDays = 30;

template <auto Free>
struct Freed {
    template <class T>
    void operator()(T* object) const {
        Free(object);
    }
};
void freeNames(GENERAL_NAMES* names) {
    GENERAL_NAMES_free(names);
}
using Key = std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freed<X509_free>>;
using Bio = std::unique_ptr<BIO, Freed<BIO_free_all>>;
using Extension = std::unique_ptr<X509_EXTENSION, Freed<X509_EXTENSION_free>>;
using AlternativeNames = std::unique_ptr<GENERAL_NAMES, Freed<freeNames>>;

void need(bool done, const char* what) {
    if (done) return;
    const char* reason = ERR_reason_error_string(ERR_get_error());
    throw ServiceError(std::string("certificates: cannot ") + what + ": " +
                       (reason ? reason : "unknown error"));
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return in ? std::move(text).str() : std::string();
}

/// A reader sees the old or the new file, never a part, and the mode holds from the first byte on.
void replaceFile(const fs::path& path, const std::string& text, mode_t mode) {
    const std::string temporary = path.string() + ".new";
    ::unlink(temporary.c_str());
    const FileDescriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (!file || ::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        ::fsync(file.get()) != 0 || ::rename(temporary.c_str(), path.c_str()) != 0) {
        throw ServiceError("cannot write " + path.string() + ": " + std::strerror(errno));
    }
}

std::string pemText(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return {data, static_cast<std::size_t>(size)};
}

std::string pemOf(EVP_PKEY* key) {
    const Bio bio(BIO_new(BIO_s_mem()));
    need(bio && PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr),
         "write a key");
    return pemText(bio.get());
}

std::string pemOf(X509* certificate) {
    const Bio bio(BIO_new(BIO_s_mem()));
    need(bio && PEM_write_bio_X509(bio.get(), certificate), "write a certificate");
    return pemText(bio.get());
}

Key keyFrom(const std::string& pem) {
    const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return Key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

Certificate certificateFrom(const std::string& pem) {
    const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return Certificate(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

void addExtension(X509* certificate, X509* issuer, int id, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509V3_set_ctx_nodb(&context);
    const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, id, value.c_str()));
    need(extension && X509_add_ext(certificate, extension.get(), -1), "add an extension");
}

/// A version 3 certificate with its names, times and key; extensions and signature are the caller's.
Certificate blankCertificate(EVP_PKEY* key, const std::string& commonName, long days) {
    Certificate certificate(X509_new());
    need(certificate && X509_set_version(certificate.get(), X509_VERSION_3), "make a certificate");
    unsigned char serial[16];
    need(RAND_bytes(serial, sizeof serial) == 1, "make a serial number");
    serial[0] &= 0x7F;
    const std::unique_ptr<BIGNUM, Freed<BN_free>> number(BN_bin2bn(serial, sizeof serial, nullptr));
    need(number && BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate.get())),
         "set the number");
    // A day earlier, for clients whose clocks are behind.
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kDay);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), days * kDay);
    X509_NAME* name = X509_get_subject_name(certificate.get());
    need(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0) &&
             X509_set_pubkey(certificate.get(), key),
         "fill a certificate");
    return certificate;
}

struct Authority {
    Key key;
    Certificate certificate;
};

Authority makeAuthority(const CertificateFiles& files) {
    Authority authority{Key(EVP_EC_gen("P-256")), nullptr};
    need(authority.key != nullptr, "make a key");
    authority.certificate =
        blankCertificate(authority.key.get(), "Tarnwell service authority", kAuthorityDays);
    X509* certificate = authority.certificate.get();
    need(X509_set_issuer_name(certificate, X509_get_subject_name(certificate)), "set the issuer");
    addExtension(certificate, certificate, NID_basic_constraints, "critical,CA:TRUE,pathlen:0");
    addExtension(certificate, certificate, NID_key_usage, "critical,keyCertSign,cRLSign");
    addExtension(certificate, certificate, NID_subject_key_identifier, "hash");
    need(X509_sign(certificate, authority.key.get(), EVP_sha256()) > 0, "sign");
    replaceFile(files.authorityKey, pemOf(authority.key.get()), 0600);
    replaceFile(files.authority, pemOf(certificate), 0644);
    return authority;
}

Authority loadAuthority(const CertificateFiles& files) {
    if (!fs::exists(files.authority)) return makeAuthority(files);
    Authority authority{keyFrom(readFile(files.authorityKey)), certificateFrom(readFile(files.authority))};
    if (!authority.key || !authority.certificate ||
        X509_check_private_key(authority.certificate.get(), authority.key.get()) != 1) {
        throw ServiceError(
            "the certificate authority in " + files.authority.parent_path().string() +
            " is damaged: restore ca.pem and ca-key.pem, or remove both and let clients trust a new one");
    }
    return authority;
}

std::vector<std::string> hostsOf(const std::vector<std::string>& domainHosts) {
    std::vector<std::string> hosts = {"localhost"};
    for (const auto& domain : domainHosts) {
        for (const char* label : {"clientgateway.", "filecache01.", "webclient.", "*.", ""}) {
            hosts.push_back(label + domain);
        }
    }
    return hosts;
}

bool covers(X509* certificate, const std::vector<std::string>& hosts) {
    const AlternativeNames names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    std::vector<std::string> covered;
    for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
        if (name->type != GEN_DNS) continue;
        covered.emplace_back(reinterpret_cast<const char*>(ASN1_STRING_get0_data(name->d.dNSName)),
                             static_cast<std::size_t>(ASN1_STRING_length(name->d.dNSName)));
    }
    for (const auto& host : hosts) {
        if (std::find(covered.begin(), covered.end(), host) == covered.end()) return false;
    }
    return true;
}

bool isStillGood(const CertificateFiles& files, const Authority& authority,
                 const std::vector<std::string>& hosts) {
    const std::string pem = readFile(files.server);
    const Key key = keyFrom(pem);
    const Certificate certificate = certificateFrom(pem);
    if (!key || !certificate || X509_check_private_key(certificate.get(), key.get()) != 1) return false;
    const Key authorityKey(X509_get_pubkey(authority.certificate.get()));
    if (X509_verify(certificate.get(), authorityKey.get()) != 1) return false;
    int days = 0;
    int seconds = 0;
    if (!ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate.get())) ||
        days < kRenewDays) {
        return false;
    }
    return covers(certificate.get(), hosts);
}

void makeServerCertificate(const CertificateFiles& files, const Authority& authority,
                           const std::vector<std::string>& hosts) {
    const Key key(EVP_EC_gen("P-256"));
    need(key != nullptr, "make a key");
    const Certificate certificate = blankCertificate(key.get(), "Tarnwell service", kServerDays);
    X509* issuer = authority.certificate.get();
    need(X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer)), "set the issuer");
    std::string names = "IP:127.0.0.1,IP:::1";
    for (const auto& host : hosts)
        names += ",DNS:" + host;
    addExtension(certificate.get(), issuer, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(certificate.get(), issuer, NID_key_usage, "critical,digitalSignature");
    addExtension(certificate.get(), issuer, NID_ext_key_usage, "serverAuth");
    addExtension(certificate.get(), issuer, NID_subject_key_identifier, "hash");
    addExtension(certificate.get(), issuer, NID_authority_key_identifier, "keyid");
    addExtension(certificate.get(), issuer, NID_subject_alt_name, names);
    need(X509_sign(certificate.get(), authority.key.get(), EVP_sha256()) > 0, "sign");
    replaceFile(files.server, pemOf(key.get()) + pemOf(certificate.get()), 0600);
}

}  // namespace

bool ensureCertificates(const CertificateFiles& files, const std::vector<std::string>& domainHosts) {
    const fs::path folder = files.authority.parent_path();
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        throw ServiceError("cannot make " + folder.string() + ": " + std::strerror(errno));
    }
    // A command and the server may come here at the same time; the second one finds all done.
    const FileDescriptor lock(::open((folder / "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lock || ::flock(lock.get(), LOCK_EX) != 0) {
        throw ServiceError("cannot lock " + folder.string() + ": " + std::strerror(errno));
    }
    const Authority authority = loadAuthority(files);
    const auto hosts = hostsOf(domainHosts);
    if (isStillGood(files, authority, hosts)) return false;
    makeServerCertificate(files, authority, hosts);
    return true;
}

}  // namespace tarnwell::service
