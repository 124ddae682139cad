#pragma once

#include <mutex>
#include <string>

#include "platform/Keychain.h"

namespace tarnwell {

/// Passwords in a private file, for machines without a secret service. The file's mode (0600) is all that
/// protects them: a file that others can read, or that belongs to another user, is refused with a log line,
/// as is a damaged one; nothing is written over either.
///
/// Each call reads the file anew under a lock beside it ("<file>.lock"), so several processes may share it;
/// changes replace it atomically and are durable on return.
class FileKeychain final : public Keychain {
  public:
    explicit FileKeychain(std::string path);

    [[nodiscard]] std::vector<std::string> accounts(std::string_view service) override;
    [[nodiscard]] std::optional<std::string> password(std::string_view service,
                                                      std::string_view account) override;
    bool setPassword(std::string_view service, std::string_view account, std::string_view password) override;
    bool deletePassword(std::string_view service, std::string_view account) override;

  private:
    struct Entries;
    std::optional<Entries> load();
    bool save(const Entries& entries);

    const std::string path_;
    std::mutex mutex_;  // one call at a time
};

}  // namespace tarnwell
