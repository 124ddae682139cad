#pragma once

#include <memory>
#include <string>
#include <string_view>

/// Tokens, password hashes and content hashes. Any thread. Failures of the crypto library are ServiceErrors.
namespace tarnwell::service {

/// 256 random bits as 64 lower-case hexadecimal digits: the alphabet survives every percent-encoding on the
/// way.
std::string randomToken();
/// SHA-256 as 64 hexadecimal digits: what tokens are looked up by.
std::string digestOf(std::string_view token);
/// In a time that depends on the lengths only.
bool equalSecrets(std::string_view a, std::string_view b);

/// A salted scrypt hash, "scrypt$LOG2N$R$P$SALT$KEY" (salt and key in base64). Takes about 0.1 s and 32 MiB,
/// on purpose.
std::string hashPassword(std::string_view password);
/// Costs the same for a wrong password as for the right one. False for a hash that is not of the form above.
bool verifyPassword(std::string_view password, std::string_view stored);
/// As expensive as verifyPassword(), so that an unknown user cannot be told from a wrong password by the
/// clock.
void spendPasswordTime(std::string_view password);

/// The hash of contents on the wire: MD5 as sixteen upper-case hex pairs joined by "-".
class ContentHash {
  public:
    ContentHash();
    ~ContentHash();
    /// The same state: both go on by themselves.
    ContentHash(const ContentHash& other);
    ContentHash(ContentHash&&) noexcept;
    ContentHash& operator=(ContentHash&&) noexcept;

    void update(std::string_view bytes);
    /// Ends the hash; call once.
    std::string finish();

  private:
    struct Context;
    std::unique_ptr<Context> context_;
};

}  // namespace tarnwell::service
