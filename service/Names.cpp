#include "service/Names.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "util/TWUtils.h"

namespace tarnwell::service {

namespace {

bool isContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

bool hasControl(std::string_view text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

/// At most `bytes` bytes, cut before a character that does not fit whole.
std::string_view cut(std::string_view text, std::size_t bytes) {
    if (text.size() <= bytes) return text;
    while (bytes > 0 && isContinuation(text[bytes]))
        --bytes;
    return text.substr(0, bytes);
}

bool isHostLabel(std::string_view label) {
    return !label.empty() && label.size() <= 63 && label.front() != '-' && label.back() != '-' &&
           std::all_of(label.begin(), label.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                      c == '-' || c == '_';
           });
}

}  // namespace

bool isUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        if (lead < 0x80) {
            ++i;
            continue;
        }
        const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
        if (lead < 0xC2 || lead > 0xF4 || i + length > text.size()) return false;
        std::uint32_t code = lead & (0xFFu >> (length + 1));
        for (std::size_t j = 1; j < length; ++j) {
            if (!isContinuation(text[i + j])) return false;
            code = (code << 6) | (static_cast<unsigned char>(text[i + j]) & 0x3F);
        }
        constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
        i += length;
    }
    return true;
}

std::string lowerAscii(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

std::string whyNotItemName(std::string_view name) {
    if (name.empty()) return "the name is empty";
    if (name == "." || name == "..") return "\".\" and \"..\" are not names";
    if (name.size() > kMaxNameBytes) return "the name is longer than 255 bytes";
    if (name.find('/') != std::string_view::npos) return "the name contains a slash";
    if (hasControl(name)) return "the name contains a control character";
    if (!isUtf8(name)) return "the name is not valid UTF-8";
    return {};
}

std::string whyNotEmail(std::string_view email) {
    const auto at = email.find('@');
    if (at == std::string_view::npos || at == 0 || at + 1 == email.size()) return "not an e-mail address";
    if (email.size() > 254 || !isUtf8(email)) return "not an e-mail address";
    // Clients put the address into query strings and header lines as it stands.
    if (hasControl(email) || email.find_first_of(" ,&#%?=\"<>;") != std::string_view::npos) {
        return "the e-mail address contains a character that cannot be sent";
    }
    return {};
}

std::string whyNotAddress(std::string_view address) {
    std::string_view host = address;
    if (const auto colon = address.find(':'); colon != std::string_view::npos) {
        const std::string_view port = address.substr(colon + 1);
        int value = 0;
        const auto result = std::from_chars(port.data(), port.data() + port.size(), value);
        if (result.ec != std::errc() || result.ptr != port.data() + port.size() || value < 1 ||
            value > 65535) {
            return "the port is not a number from 1 to 65535";
        }
        host = address.substr(0, colon);
    }
    if (host.empty() || host.size() > 200) return "the address is a host name suffix such as \"example.com\"";
    for (std::string_view rest = host;;) {
        const auto dot = rest.find('.');
        if (!isHostLabel(rest.substr(0, dot))) return "the address is not a valid host name";
        if (dot == std::string_view::npos) break;
        rest.remove_prefix(dot + 1);
    }
    const std::string first = lowerAscii(host.substr(0, host.find('.')));
    if (first == "clientgateway" || first == "filecache01" || first == "webclient") {
        return "the address is the suffix without the \"" + first + "\" label";
    }
    return {};
}

std::string suffixedName(std::string_view name, bool isFile, const std::string& suffix) {
    std::size_t dot = isFile ? name.rfind('.') : std::string_view::npos;
    // A leading dot hides a file, it does not begin an extension; nor does the dot of a name that is cut
    // anyway.
    if (dot == 0 || (dot != std::string_view::npos && name.size() - dot > 64)) dot = std::string_view::npos;
    const std::string_view extension = dot == std::string_view::npos ? std::string_view() : name.substr(dot);
    const std::string end = " (" + suffix + ")" + std::string(extension);
    return std::string(cut(name.substr(0, dot), kMaxNameBytes - end.size())) + end;
}

std::string freeName(std::string_view name, bool isFile,
                     const std::function<bool(const std::string&)>& isTaken) {
    for (std::uint64_t number = 2;; ++number) {
        std::string candidate = suffixedName(name, isFile, std::to_string(number));
        if (!isTaken(candidate)) return candidate;
    }
}

std::string usableName(std::string_view name) {
    std::string out(cut(name, kMaxNameBytes));
    for (char& c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F || c == '/') c = '_';
    }
    if (!isUtf8(out) || out.empty()) return "unnamed";
    return out == "." || out == ".." ? out + "_" : out;
}

bool isInternalName(std::string_view name) {
    return name.size() > 1 && name.size() <= 100 && name.front() == 'F' &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                      c == '-' || c == '_';
           });
}

std::string newInternalName() {
    return "F" + generateGUID() + generateGUID();
}

std::string newUploadName() {
    return "U" + generateGUID() + generateGUID();
}

}  // namespace tarnwell::service
