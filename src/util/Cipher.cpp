#include "util/Cipher.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <memory>

namespace tarnwell {

namespace {

const unsigned char* bytesOf(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

std::optional<std::string> encryptAes256Cbc(std::string_view bytes, std::span<const unsigned char> key,
                                            std::string_view vector, unsigned long& error) {
    constexpr std::size_t keySize = 32;
    constexpr std::size_t blockSize = 16;
    const std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> context(EVP_CIPHER_CTX_new(),
                                                                             EVP_CIPHER_CTX_free);
    std::string out(bytes.size() + blockSize, '\0');
    auto* target = reinterpret_cast<unsigned char*>(out.data());
    int first = 0;
    int last = 0;
    error = 0;
    const bool done =
        context && key.size() == keySize && vector.size() == blockSize &&
        EVP_EncryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, key.data(), bytesOf(vector)) == 1 &&
        EVP_CIPHER_CTX_set_padding(context.get(), 0) == 1 &&
        EVP_EncryptUpdate(context.get(), target, &first, bytesOf(bytes), static_cast<int>(bytes.size())) ==
            1 &&
        EVP_EncryptFinal_ex(context.get(), target + first, &last) == 1;
    if (!done) {
        error = ERR_get_error();
        return std::nullopt;
    }
    out.resize(static_cast<std::size_t>(first + last));
    return out;
}

}  // namespace tarnwell
