#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Text of requests. Any thread.
namespace tarnwell::service {

/// None for an escape that is cut off or not hexadecimal, and for an escaped zero byte. "+" is itself:
/// clients put e-mail addresses into queries as they stand.
std::optional<std::string> percentDecode(std::string_view text);

/// The pairs of a query or form, "a=1&b=2", decoded, in their order.
class Parameters {
  public:
    /// None when an escape is malformed.
    static std::optional<Parameters> parse(std::string_view text);
    /// The first value of that name; null when absent.
    [[nodiscard]] const std::string* find(std::string_view name) const;

  private:
    std::vector<std::pair<std::string, std::string>> pairs_;
};

/// A whole decimal number, a minus sign allowed, nothing around it; none also when it is out of range.
std::optional<std::int64_t> parseInteger(std::string_view text);
std::optional<std::int32_t> parseInt32(std::string_view text);

}  // namespace tarnwell::service
