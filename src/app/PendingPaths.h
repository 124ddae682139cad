#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarnwell {

/// The places of everything that waits for a transfer, for many questions at once: each costs the logarithm
/// of the queue instead of its length. A folder window may ask for a thousand folders while twenty thousand
/// files wait.
///
/// Paths are drive paths, compared as beginnings of texts without regard to letter case: "/S/ab" counts as
/// below "/S/a" too. Belongs to one thread.
class PendingPaths {
  public:
    PendingPaths() = default;
    explicit PendingPaths(const std::vector<std::string>& paths);

    [[nodiscard]] bool anyBeginsWith(std::string_view path) const;

  private:
    std::vector<std::string> keys_;  // sorted
};

}  // namespace tarnwell
