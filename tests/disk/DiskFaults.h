#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell::testing {

/// Which calls fail: "the NTH call of this kind from now on a path with this part, and COUNT-1 after it". Not
/// thread-safe.
class DiskFaults {
  public:
    struct Rule {
        std::string call;
        std::uint64_t first = 1;  ///< 1: the next
        int error = 0;
        std::uint64_t count = 1;  ///< 0: all from then on
        std::string pathPart{};
        std::uint64_t seen = 0;
    };
    void add(Rule rule) { rules_.push_back(std::move(rule)); }
    void clear() { rules_.clear(); }
    /// Counts the call; 0 or the errno that it fails with. `path` is only asked when a rule looks at it.
    template <class Path>
    int next(std::string_view call, Path path) {
        ++calls_[std::string(call)];
        for (auto& rule : rules_) {
            if (rule.call != call) continue;
            if (!rule.pathPart.empty() && path().find(rule.pathPart) == std::string::npos) continue;
            ++rule.seen;
            if (rule.seen >= rule.first && (rule.count == 0 || rule.seen < rule.first + rule.count)) {
                ++failed_;
                return rule.error;
            }
        }
        return 0;
    }
    [[nodiscard]] const std::map<std::string, std::uint64_t>& calls() const { return calls_; }
    [[nodiscard]] std::uint64_t failed() const { return failed_; }

  private:
    std::vector<Rule> rules_;
    std::map<std::string, std::uint64_t> calls_;
    std::uint64_t failed_ = 0;
};

}  // namespace tarnwell::testing
