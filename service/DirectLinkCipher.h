#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarnwell::service {

/// The text that a client encrypted into the address of a log-in link; none for anything else. `base64` is
/// the ciphertext. Any thread.
std::optional<std::string> decryptDirectLink(std::string_view base64);

}  // namespace tarnwell::service
