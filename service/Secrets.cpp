#include "service/Secrets.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <vector>

#include "service/ServiceError.h"
#include "util/TWUtils.h"

namespace tarnwell::service {

namespace {

constexpr int kScryptLog2N = 15;
constexpr int kScryptR = 8;
constexpr int kScryptP = 1;
constexpr std::size_t kSaltBytes = 16;
constexpr std::size_t kKeyBytes = 32;
/// Bound on what a stored hash may ask for.
constexpr std::uint64_t kScryptMemory = 256u << 20;

std::string hex(const unsigned char* bytes, std::size_t count) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(count * 2);
    for (std::size_t i = 0; i < count; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 15];
    }
    return out;
}

std::string randomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1) {
        throw ServiceError("no random bytes available");
    }
    return bytes;
}

/// Empty when the parameters are refused by the library.
std::string deriveKey(std::string_view password, std::string_view salt, int log2N, int r, int p,
                      std::size_t bytes) {
    std::string key(bytes, '\0');
    const int done = EVP_PBE_scrypt(password.data() ? password.data() : "", password.size(),
                                    reinterpret_cast<const unsigned char*>(salt.data()), salt.size(),
                                    std::uint64_t{1} << log2N, static_cast<std::uint64_t>(r),
                                    static_cast<std::uint64_t>(p), kScryptMemory,
                                    reinterpret_cast<unsigned char*>(key.data()), key.size());
    return done == 1 ? key : std::string();
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (;;) {
        const auto end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) return parts;
        text.remove_prefix(end + 1);
    }
}

int number(std::string_view text) {
    int value = -1;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() ? value : -1;
}

}  // namespace

std::string randomToken() {
    const std::string bytes = randomBytes(32);
    return hex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string digestOf(std::string_view token) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    if (EVP_Digest(token.data(), token.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
        throw ServiceError("SHA-256 is not available");
    }
    return hex(digest.data(), size);
}

bool equalSecrets(std::string_view a, std::string_view b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string hashPassword(std::string_view password) {
    const std::string salt = randomBytes(kSaltBytes);
    const std::string key = deriveKey(password, salt, kScryptLog2N, kScryptR, kScryptP, kKeyBytes);
    if (key.empty()) throw ServiceError("scrypt is not available");
    return "scrypt$" + std::to_string(kScryptLog2N) + "$" + std::to_string(kScryptR) + "$" +
           std::to_string(kScryptP) + "$" + base64Encode(salt) + "$" + base64Encode(key);
}

bool verifyPassword(std::string_view password, std::string_view stored) {
    const auto parts = split(stored, '$');
    if (parts.size() != 6 || parts[0] != "scrypt") return false;
    const int log2N = number(parts[1]);
    const int r = number(parts[2]);
    const int p = number(parts[3]);
    const auto salt = base64Decode(parts[4]);
    const auto key = base64Decode(parts[5]);
    if (log2N < 1 || log2N > 24 || r < 1 || p < 1 || !salt || !key || key->empty()) return false;
    return equalSecrets(deriveKey(password, *salt, log2N, r, p, key->size()), *key);
}

void spendPasswordTime(std::string_view password) {
    (void)deriveKey(password, std::string(kSaltBytes, 's'), kScryptLog2N, kScryptR, kScryptP, kKeyBytes);
}

struct ContentHash::Context {
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, Free> md{EVP_MD_CTX_new()};
};

ContentHash::ContentHash() : context_(std::make_unique<Context>()) {
    if (!context_->md || EVP_DigestInit_ex(context_->md.get(), EVP_md5(), nullptr) != 1) {
        throw ServiceError("MD5 is not available");
    }
}

ContentHash::~ContentHash() = default;
ContentHash::ContentHash(ContentHash&&) noexcept = default;
ContentHash& ContentHash::operator=(ContentHash&&) noexcept = default;

ContentHash::ContentHash(const ContentHash& other) : context_(std::make_unique<Context>()) {
    if (!context_->md || EVP_MD_CTX_copy_ex(context_->md.get(), other.context_->md.get()) != 1) {
        throw ServiceError("MD5 is not available");
    }
}

void ContentHash::update(std::string_view bytes) {
    if (EVP_DigestUpdate(context_->md.get(), bytes.data(), bytes.size()) != 1)
        throw ServiceError("MD5 failed");
}

std::string ContentHash::finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    if (EVP_DigestFinal_ex(context_->md.get(), digest.data(), &size) != 1) throw ServiceError("MD5 failed");
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned int i = 0; i < size; ++i) {
        if (i > 0) out += '-';
        out += kDigits[digest[i] >> 4];
        out += kDigits[digest[i] & 15];
    }
    return out;
}

}  // namespace tarnwell::service
