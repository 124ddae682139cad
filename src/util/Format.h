#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "util/Date.h"
#include "util/SharedString.h"

namespace tarnwell {

/// One argument of a log or message text. Holds views: lives no longer than the call that it is made for.
class FormatArgument {
  public:
    template <class T>
    requires std::is_integral_v<T> FormatArgument(T value)  // NOLINT(google-explicit-constructor)
        : value_(std::is_signed_v<T> || std::is_same_v<T, bool> ? Value(static_cast<std::int64_t>(value))
                                                                : Value(static_cast<std::uint64_t>(value))) {}
    template <class T>
    requires std::is_enum_v<T> FormatArgument(T value)
        : FormatArgument(static_cast<std::underlying_type_t<T>>(value)) {}                  // NOLINT
    FormatArgument(double value) : value_(value) {}                                         // NOLINT
    FormatArgument(std::string_view text) : value_(text) {}                                 // NOLINT
    FormatArgument(const std::string& text) : value_(std::string_view(text)) {}             // NOLINT
    FormatArgument(const char* text) : value_(std::string_view(text ? text : "(null)")) {}  // NOLINT
    FormatArgument(const SharedString& text) : value_(text.value_or("(null)")) {}           // NOLINT

    using Value = std::variant<std::int64_t, std::uint64_t, double, std::string_view>;
    [[nodiscard]] const Value& value() const { return value_; }

  private:
    Value value_;
};

/// Fills a printf-like text. "%@" takes any argument in its plain form; %d %u %x %c %f %g %s with the usual
/// flags, width, precision and length letters take the argument whatever its real type, so a wrong letter is
/// never undefined behaviour. A missing argument prints as "(missing)"; "%%" is a percent sign. Never throws
/// but for memory.
std::string formatText(std::string_view format, std::initializer_list<FormatArgument> arguments);

/// The same for a line of a log: control characters that an argument brings, line breaks too, are written as
/// "\n" and
/// "\x1b", so that a hostile file name cannot forge a line. The format's own line breaks stay.
std::string formatLogText(std::string_view format, std::initializer_list<FormatArgument> arguments);

/// Appends `text` with its control characters escaped as above.
void appendEscaped(std::string_view text, std::string& out);

template <class... T>
std::string format(std::string_view text, const T&... arguments) {
    return formatText(text, {FormatArgument(arguments)...});
}

}  // namespace tarnwell
