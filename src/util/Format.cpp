#include "util/Format.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>

namespace tarnwell {

namespace {

/// Bounds of width and precision: a wild format costs a few hundred bytes, not memory.
constexpr int kMaxWidth = 4096;
constexpr int kMaxPrecision = 256;

/// One "%..." of a format.
struct Specification {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    int width = 0;
    std::optional<int> precision;
    bool wide = false;  ///< a length letter for 64 bits stood there
    char conversion = 0;
};

/// What a number is made of before it is padded.
struct Number {
    std::string sign;  ///< or the prefix "0x"
    std::string digits;
    bool padWithZeros = false;
};

class Formatter {
  public:
    Formatter(std::string_view format, std::initializer_list<FormatArgument> arguments, bool escapeText)
        : rest_(format), next_(arguments.begin()), end_(arguments.end()), escapeText_(escapeText) {
        out_.reserve(format.size() + 32 * arguments.size());
    }

    std::string run() {
        while (!rest_.empty()) {
            const auto percent = rest_.find('%');
            out_ += rest_.substr(0, percent);
            if (percent == std::string_view::npos) break;
            rest_.remove_prefix(percent);
            one();
        }
        return std::move(out_);
    }

  private:
    void one() {
        const std::string_view whole = rest_;
        rest_.remove_prefix(1);
        if (take('%')) {
            out_ += '%';
            return;
        }
        Specification spec;
        flags(spec);
        spec.width = std::min(count(spec.left), kMaxWidth);
        if (take('.')) {
            bool negative = false;
            const int precision = count(negative);
            if (!negative) spec.precision = std::min(precision, kMaxPrecision);
        }
        while (!rest_.empty() && std::string_view("hlqjztL").find(rest_.front()) != std::string_view::npos) {
            spec.wide = spec.wide || rest_.front() != 'h';
            rest_.remove_prefix(1);
        }
        if (!rest_.empty()) {
            spec.conversion = rest_.front();
            rest_.remove_prefix(1);
        }
        constexpr std::string_view kKnown = "@diuxXocfFeEgGaAsp";
        if (!spec.conversion || kKnown.find(spec.conversion) == std::string_view::npos) {
            out_ += whole.substr(0, whole.size() - rest_.size());  // no conversion: it stands for itself
            return;
        }
        if (next_ == end_) {
            out_ += "(missing)";
            return;
        }
        convert(spec, (next_++)->value());
    }

    void flags(Specification& spec) {
        for (; !rest_.empty(); rest_.remove_prefix(1)) {
            switch (rest_.front()) {
                case '-':
                    spec.left = true;
                    break;
                case '+':
                    spec.plus = true;
                    break;
                case ' ':
                    spec.space = true;
                    break;
                case '#':
                    spec.alternate = true;
                    break;
                case '0':
                    spec.zero = true;
                    break;
                default:
                    return;
            }
        }
    }

    /// Digits, or "*" for an argument; `negative` is set when that argument is below zero.
    int count(bool& negative) {
        std::int64_t value = 0;
        if (take('*')) {
            if (next_ == end_) return 0;
            if (const auto* number = std::get_if<std::int64_t>(&(next_++)->value())) value = *number;
            negative = negative || value < 0;
            value = value < 0 ? -std::max<std::int64_t>(value, -kMaxWidth)
                              : std::min<std::int64_t>(value, kMaxWidth);
        } else {
            for (; !rest_.empty() && rest_.front() >= '0' && rest_.front() <= '9'; rest_.remove_prefix(1)) {
                value = std::min<std::int64_t>(value * 10 + (rest_.front() - '0'), kMaxWidth);
            }
        }
        return static_cast<int>(value);
    }

    void convert(const Specification& spec, const FormatArgument::Value& value) {
        if (const auto* text = std::get_if<std::string_view>(&value)) {
            // Precision cuts text for %s only; under another letter the text is a mistake worth seeing whole.
            pad(spec, spec.conversion == 's' && spec.precision
                          ? text->substr(0, static_cast<std::size_t>(*spec.precision))
                          : *text);
            return;
        }
        switch (spec.conversion) {
            case 'd':
            case 'i':
                padNumber(spec, signedNumber(spec, value));
                break;
            case 'u':
            case 'o':
            case 'x':
            case 'X':
            case 'p':
                padNumber(spec, unsignedNumber(spec, value));
                break;
            case 'c':
                pad(spec, character(value));
                break;
            case '@':
            case 's':
                pad(spec, plain(value));
                break;
            default:
                padNumber(spec, realNumber(spec, value));
                break;
        }
    }

    static std::string plain(const FormatArgument::Value& value) {
        std::array<char, 64> buffer{};
        char* end = buffer.data();
        if (const auto* number = std::get_if<std::int64_t>(&value)) {
            end = std::to_chars(buffer.begin(), buffer.end(), *number).ptr;
        } else if (const auto* natural = std::get_if<std::uint64_t>(&value)) {
            end = std::to_chars(buffer.begin(), buffer.end(), *natural).ptr;
        } else if (const auto* real = std::get_if<double>(&value)) {
            end = std::to_chars(buffer.begin(), buffer.end(), *real).ptr;
        }
        return {buffer.data(), end};
    }

    static std::string character(const FormatArgument::Value& value) {
        const auto* number = std::get_if<std::int64_t>(&value);
        if (number && *number > 0 && *number < 0x80) return std::string(1, static_cast<char>(*number));
        return plain(value);
    }

    static void applyPrecision(const Specification& spec, Number& number) {
        if (!spec.precision) {
            number.padWithZeros = spec.zero && !spec.left;
            return;
        }
        const auto least = static_cast<std::size_t>(*spec.precision);
        if (number.digits.size() < least) number.digits.insert(0, least - number.digits.size(), '0');
    }

    static void takeSign(const Specification& spec, Number& number) {
        if (number.digits.starts_with('-')) {
            number.digits.erase(0, 1);
            number.sign = "-";
        } else if (spec.plus) {
            number.sign = "+";
        } else if (spec.space) {
            number.sign = " ";
        }
    }

    static Number signedNumber(const Specification& spec, const FormatArgument::Value& value) {
        Number number;
        const auto* real = std::get_if<double>(&value);
        number.digits =
            real && std::abs(*real) < 9.2e18 ? plain(static_cast<std::int64_t>(*real)) : plain(value);
        takeSign(spec, number);
        applyPrecision(spec, number);
        return number;
    }

    static Number unsignedNumber(const Specification& spec, const FormatArgument::Value& value) {
        std::uint64_t bits = 0;
        if (const auto* integer = std::get_if<std::int64_t>(&value)) {
            bits = static_cast<std::uint64_t>(*integer);
            // An int's worth of a negative number, as printf would show it.
            if (*integer < 0 && *integer >= INT32_MIN && !spec.wide) bits &= UINT32_MAX;
        } else if (const auto* natural = std::get_if<std::uint64_t>(&value)) {
            bits = *natural;
        } else {
            return signedNumber(spec, value);
        }
        const bool hexadecimal = spec.conversion == 'x' || spec.conversion == 'X' || spec.conversion == 'p';
        std::array<char, 32> buffer{};
        const int base = hexadecimal ? 16 : spec.conversion == 'o' ? 8 : 10;
        const char* end = std::to_chars(buffer.begin(), buffer.end(), bits, base).ptr;
        Number number;
        number.digits.assign(static_cast<const char*>(buffer.data()), end);
        if (spec.conversion == 'p' || (spec.alternate && hexadecimal && bits != 0)) number.sign = "0x";
        if (spec.alternate && base == 8 && bits != 0) number.digits.insert(0, 1, '0');
        if (spec.conversion == 'X') upper(number);
        applyPrecision(spec, number);
        return number;
    }

    static Number realNumber(const Specification& spec, const FormatArgument::Value& value) {
        double real = 0;
        if (const auto* integer = std::get_if<std::int64_t>(&value))
            real = static_cast<double>(*integer);
        else if (const auto* natural = std::get_if<std::uint64_t>(&value))
            real = static_cast<double>(*natural);
        else
            real = std::get<double>(value);
        const char letter = static_cast<char>(spec.conversion | 0x20);
        const auto form = letter == 'f'   ? std::chars_format::fixed
                          : letter == 'e' ? std::chars_format::scientific
                          : letter == 'g' ? std::chars_format::general
                                          : std::chars_format::hex;
        std::array<char, 1024> buffer{};  // 309 digits, the point, kMaxPrecision digits and the sign
        const char* end =
            letter == 'a' && !spec.precision
                ? std::to_chars(buffer.begin(), buffer.end(), real, form).ptr
                : std::to_chars(buffer.begin(), buffer.end(), real, form, spec.precision.value_or(6)).ptr;
        Number number;
        number.digits.assign(static_cast<const char*>(buffer.data()), end);
        takeSign(spec, number);
        if (letter == 'a' && std::isfinite(real)) number.sign += "0x";
        if (spec.conversion != letter) upper(number);
        number.padWithZeros = spec.zero && !spec.left && std::isfinite(real);
        return number;
    }

    static void upper(Number& number) {
        for (std::string* part : {&number.sign, &number.digits}) {
            for (char& letter : *part) {
                if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter & ~0x20);
            }
        }
    }

    void padNumber(const Specification& spec, Number number) {
        const std::size_t size = number.sign.size() + number.digits.size();
        if (number.padWithZeros && size < static_cast<std::size_t>(spec.width)) {
            number.digits.insert(0, static_cast<std::size_t>(spec.width) - size, '0');
        }
        pad(spec, number.sign + number.digits);
    }

    /// Width counts bytes, as printf does.
    void pad(const Specification& spec, std::string_view text) {
        const auto width = static_cast<std::size_t>(spec.width);
        const std::size_t blanks = text.size() < width ? width - text.size() : 0;
        if (!spec.left) out_.append(blanks, ' ');
        if (escapeText_)
            appendEscaped(text, out_);
        else
            out_ += text;
        if (spec.left) out_.append(blanks, ' ');
    }

    bool take(char letter) {
        if (!rest_.starts_with(letter)) return false;
        rest_.remove_prefix(1);
        return true;
    }

    std::string_view rest_;
    const FormatArgument* next_;
    const FormatArgument* end_;
    bool escapeText_;
    std::string out_;
};

}  // namespace

std::string formatText(std::string_view format, std::initializer_list<FormatArgument> arguments) {
    return Formatter(format, arguments, false).run();
}

std::string formatLogText(std::string_view format, std::initializer_list<FormatArgument> arguments) {
    return Formatter(format, arguments, true).run();
}

void appendEscaped(std::string_view text, std::string& out) {
    static constexpr char kDigits[] = "0123456789abcdef";
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte >= 0x20 && byte != 0x7F) {
            out += letter;
        } else if (letter == '\n') {
            out += "\\n";
        } else {
            out += "\\x";
            out += kDigits[byte >> 4];
            out += kDigits[byte & 0x0F];
        }
    }
}

}  // namespace tarnwell
