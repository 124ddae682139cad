#include "store/ContentVersion.h"

#include <openssl/evp.h>
#include <sys/xattr.h>

#include <array>
#include <cerrno>
#include <cstdint>

namespace tarnwell {

namespace {

constexpr std::size_t kDigestBytes = 16;
constexpr std::size_t kDigits = 2 * kDigestBytes;

std::string digestOf(std::string_view uploadName) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned size = 0;
    EVP_Digest(uploadName.data(), uploadName.size(), bytes.data(), &size, EVP_sha256(), nullptr);
    constexpr std::string_view kHex = "0123456789abcdef";
    std::string digest;
    digest.reserve(kDigits);
    for (std::size_t i = 0; i < kDigestBytes; ++i) {
        digest += kHex[bytes[i] >> 4U];
        digest += kHex[bytes[i] & 15U];
    }
    return digest;
}

}  // namespace

ContentVersion ContentVersion::clean(std::string_view uploadName) {
    return {false, digestOf(uploadName)};
}

ContentVersion ContentVersion::edited(std::string_view uploadName) {
    return {true, digestOf(uploadName)};
}

bool ContentVersion::isOf(std::string_view uploadName) const {
    return digest_ == digestOf(uploadName);
}

std::string ContentVersion::text() const {
    return (edited_ ? "e" : "c") + digest_;
}

std::optional<ContentVersion> ContentVersion::parse(std::string_view text) {
    if (text.size() != kDigits + 1 || (text.front() != 'c' && text.front() != 'e')) return std::nullopt;
    return ContentVersion(text.front() == 'e', std::string(text.substr(1)));
}

int ContentVersion::set(int descriptor) const {
    const auto value = text();
    return ::fsetxattr(descriptor, kAttribute, value.data(), value.size(), 0) == 0 ? 0 : errno;
}

int ContentVersion::set(const std::string& path) const {
    const auto value = text();
    return ::lsetxattr(path.c_str(), kAttribute, value.data(), value.size(), 0) == 0 ? 0 : errno;
}

std::optional<ContentVersion> ContentVersion::of(int descriptor) {
    std::array<char, kDigits + 1> value{};
    const auto size = ::fgetxattr(descriptor, kAttribute, value.data(), value.size());
    return size < 0 ? std::nullopt : parse({value.data(), static_cast<std::size_t>(size)});
}

std::optional<ContentVersion> ContentVersion::of(const std::string& path) {
    std::array<char, kDigits + 1> value{};
    const auto size = ::lgetxattr(path.c_str(), kAttribute, value.data(), value.size());
    return size < 0 ? std::nullopt : parse({value.data(), static_cast<std::size_t>(size)});
}

}  // namespace tarnwell
