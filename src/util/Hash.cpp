#include "util/Hash.h"

#include <openssl/evp.h>

#include <array>
#include <stdexcept>

namespace tarnwell {

namespace {

void check(int result) {
    if (result != 1) throw std::runtime_error("MD5 is not available");
}

}  // namespace

void Md5::Free::operator()(evp_md_ctx_st* context) const {
    EVP_MD_CTX_free(context);
}

Md5::Md5() : context_(EVP_MD_CTX_new()) {
    check(EVP_DigestInit_ex(context_.get(), EVP_md5(), nullptr));
}

void Md5::update(std::string_view bytes) {
    check(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()));
}

std::string Md5::hashText() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned size = 0;
    check(EVP_DigestFinal_ex(context_.get(), digest.data(), &size));
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(std::size_t{size} * 3);
    for (unsigned i = 0; i < size; ++i) {
        if (i > 0) text += '-';
        text += kDigits[digest[i] >> 4];
        text += kDigits[digest[i] & 0x0F];
    }
    return text;
}

std::string hashText(std::string_view bytes) {
    Md5 hash;
    hash.update(bytes);
    return hash.hashText();
}

}  // namespace tarnwell
