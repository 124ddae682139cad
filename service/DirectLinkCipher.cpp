#include "service/DirectLinkCipher.h"

#include <openssl/evp.h>

#include <memory>

#include "connector/ClientApiRecords.h"
#include "util/TWUtils.h"

namespace tarnwell::service {

std::optional<std::string> decryptDirectLink(std::string_view base64) {
    const auto cipher = base64Decode(base64);
    if (!cipher || cipher->empty() || cipher->size() % 16 != 0 || cipher->size() > 8192) return std::nullopt;
    const std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> context(EVP_CIPHER_CTX_new(),
                                                                             EVP_CIPHER_CTX_free);
    const auto* vector = reinterpret_cast<const unsigned char*>(kDirectLinkVector.data());
    std::string text(cipher->size() + 16, '\0');
    auto* out = reinterpret_cast<unsigned char*>(text.data());
    int size = 0;
    int rest = 0;
    if (!context ||
        EVP_DecryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, kDirectLinkKey.data(), vector) != 1 ||
        EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1 ||
        EVP_DecryptUpdate(context.get(), out, &size, reinterpret_cast<const unsigned char*>(cipher->data()),
                          static_cast<int>(cipher->size())) != 1 ||
        EVP_DecryptFinal_ex(context.get(), out + size, &rest) != 1) {
        return std::nullopt;
    }
    text.resize(static_cast<std::size_t>(size + rest));
    // The text was filled up with zero bytes.
    text.resize(text.find_last_not_of('\0') + 1);
    return text;
}

}  // namespace tarnwell::service
