#include "store/ContentVersion.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/xattr.h>

#include <array>
#include <cerrno>

#include "platform/LocalSocket.h"
#include "store/VersionFiles.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

constexpr std::size_t kDigestBytes = 16;
constexpr std::size_t kDigits = 2 * kDigestBytes;

/// Names this run of the program.
const std::string& runId() {
    static const std::string id = generateGUID();
    return id;
}

int openFile(const std::string& path) {
    return ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

}  // namespace

std::string ContentVersion::digestOf(Kind kind, std::string_view uploadName) {
    std::string text(uploadName);
    if (kind == Kind::kUnsynced) text += '/' + runId();
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned size = 0;
    EVP_Digest(text.data(), text.size(), bytes.data(), &size, EVP_sha256(), nullptr);
    constexpr std::string_view kHex = "0123456789abcdef";
    std::string digest;
    digest.reserve(kDigits);
    for (std::size_t i = 0; i < kDigestBytes; ++i) {
        digest += kHex[bytes[i] >> 4U];
        digest += kHex[bytes[i] & 15U];
    }
    return digest;
}

ContentVersion ContentVersion::clean(std::string_view uploadName) {
    return {Kind::kClean, digestOf(Kind::kClean, uploadName)};
}

ContentVersion ContentVersion::unsynced(std::string_view uploadName) {
    return {Kind::kUnsynced, digestOf(Kind::kUnsynced, uploadName)};
}

ContentVersion ContentVersion::unsent(std::string_view uploadName) {
    return {Kind::kUnsent, digestOf(Kind::kUnsent, uploadName)};
}

ContentVersion ContentVersion::edited(std::string_view uploadName) {
    return {Kind::kEdited, digestOf(Kind::kEdited, uploadName)};
}

bool ContentVersion::isOf(std::string_view uploadName) const {
    return digest_ == digestOf(kind_, uploadName);
}

std::string ContentVersion::text() const {
    return static_cast<char>(kind_) + digest_;
}

std::optional<ContentVersion> ContentVersion::parse(std::string_view text) {
    if (text.size() != kDigits + 1) return std::nullopt;
    const auto kind = static_cast<Kind>(text.front());
    switch (kind) {
        case Kind::kClean:
        case Kind::kUnsynced:
        case Kind::kUnsent:
        case Kind::kEdited:
            return ContentVersion(kind, std::string(text.substr(1)));
    }
    return std::nullopt;
}

int ContentVersion::set(int descriptor) const {
    const auto value = text();
    if (::fsetxattr(descriptor, kAttribute, value.data(), value.size(), 0) == 0) return 0;
    return errno == ENOTSUP ? VersionFiles::set(descriptor, value, !isEdited()) : errno;
}

int ContentVersion::set(const std::string& path) const {
    const auto value = text();
    if (::lsetxattr(path.c_str(), kAttribute, value.data(), value.size(), 0) == 0) return 0;
    if (errno != ENOTSUP) return errno;
    const OwnedDescriptor file(openFile(path));
    return file ? VersionFiles::set(file.get(), value, !isEdited()) : errno;
}

std::optional<ContentVersion> ContentVersion::of(int descriptor) {
    std::array<char, kDigits + 1> value{};
    const auto size = ::fgetxattr(descriptor, kAttribute, value.data(), value.size());
    if (size >= 0) return parse({value.data(), static_cast<std::size_t>(size)});
    const auto text = errno == ENOTSUP ? VersionFiles::of(descriptor) : std::nullopt;
    return text ? parse(*text) : std::nullopt;
}

std::optional<ContentVersion> ContentVersion::of(const std::string& path) {
    std::array<char, kDigits + 1> value{};
    const auto size = ::lgetxattr(path.c_str(), kAttribute, value.data(), value.size());
    if (size >= 0) return parse({value.data(), static_cast<std::size_t>(size)});
    if (errno != ENOTSUP) return std::nullopt;
    const OwnedDescriptor file(openFile(path));
    return file ? of(file.get()) : std::nullopt;
}

}  // namespace tarnwell
