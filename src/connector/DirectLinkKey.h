#pragma once

#include <array>
#include <string_view>

/// What client and service share to hide the parameters of a log-in link in its address: AES, 256-bit key,
/// CBC, the text filled up with zero bytes. It keeps them from logs and histories; what protects the account
/// is that the link works once and for a minute.
namespace tarnwell {

inline constexpr std::array<unsigned char, 32> kDirectLinkKey = {
    0x5c, 0x2e, 0x9b, 0x17, 0xa0, 0x4f, 0x83, 0xd6, 0xe1, 0xb7, 0xc9, 0x0a, 0x2f, 0x6d, 0x4e, 0x85,
    0xb3, 0xa1, 0xc7, 0xf0, 0x9e, 0x2d, 0x5b, 0x86, 0x43, 0xa7, 0xf1, 0xc0, 0xe9, 0xd2, 0xb6, 0xa4};
inline constexpr std::string_view kDirectLinkVector = "Qv7Lp2Xw9Rt4Mz6K";

}  // namespace tarnwell
