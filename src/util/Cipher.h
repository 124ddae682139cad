#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tarnwell {

/// `bytes` encrypted by AES with a 256-bit key in CBC mode, without padding of its own. None, with the
/// library's code in `error`, when that failed. REQUIRES: 32 bytes of key, 16 of vector; the length of
/// `bytes` is a multiple of 16.
std::optional<std::string> encryptAes256Cbc(std::string_view bytes, std::span<const unsigned char> key,
                                            std::string_view vector, unsigned long& error);

}  // namespace tarnwell
