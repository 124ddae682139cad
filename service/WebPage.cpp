#include "service/WebPage.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "service/Names.h"
#include "service/Secrets.h"
#include "service/ServiceError.h"
#include "util/TWUtils.h"

namespace tarnwell::service {

namespace {

constexpr std::string_view kStyle =
    "body{font:16px/1.5 system-ui,sans-serif;max-width:60rem;margin:2rem auto;padding:0 1rem;color:#222;"
    "background:#fff}"
    "h1{font-size:1.4rem;overflow-wrap:anywhere}table{border-collapse:collapse;width:100%}"
    "td,th{padding:.4rem .6rem;border-bottom:1px solid #ddd;text-align:left;overflow-wrap:anywhere}"
    "td+td,th+th{white-space:nowrap;color:#555}a{color:#06c;text-decoration:none}a:hover{text-decoration:"
    "underline}"
    ".get{display:inline-block;padding:.5rem 1.2rem;border:1px solid #06c;border-radius:.4rem}"
    "@media(prefers-color-scheme:dark){body{color:#ddd;background:#1b1b1b}a{color:#7bf}"
    "td,th{border-color:#444}td+td,th+th{color:#aaa}}";

/// The one style sheet is allowed by its hash: markup that slipped through could not bring its own.
const std::string& pagePolicy() {
    static const std::string policy = [] {
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
        unsigned int size = 0;
        if (EVP_Digest(kStyle.data(), kStyle.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1)
            throw ServiceError("SHA-256 is not available");
        return "default-src 'none'; style-src 'sha256-" +
               base64Encode({reinterpret_cast<const char*>(digest.data()), size}) +
               "'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
    }();
    return policy;
}

void protect(Reply& reply, std::string policy) {
    reply.headers.emplace_back("Content-Security-Policy", std::move(policy));
    reply.headers.emplace_back("X-Content-Type-Options", "nosniff");
    // The address is the secret of a link.
    reply.headers.emplace_back("Referrer-Policy", "no-referrer");
    reply.headers.emplace_back("X-Robots-Tag", "noindex");
}

bool isPlain(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
           c == '_' || c == '.';
}

std::string percentEncoded(std::string_view text) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (isPlain(c))
            out += c;
        else
            out += {'%', digits[byte >> 4], digits[byte & 15]};
    }
    return out;
}

/// A name in letters that every browser takes, and the whole name for those that know how to read it.
std::string disposition(std::string_view name) {
    std::string plain;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        // One sign for each character, not for each of its bytes.
        if ((byte & 0xC0) == 0x80) continue;
        plain += byte >= 0x20 && byte < 0x7F && c != '"' && c != '\\' && c != '%' ? c : '_';
    }
    return "attachment; filename=\"" + plain + "\"; filename*=UTF-8''" + percentEncoded(name);
}

struct Span {
    std::int64_t begin = 0;
    std::int64_t end = 0;
};
enum class RangeKind { whole, part, beyond };

/// "bytes=A-B", "bytes=A-", "bytes=-N". Anything else, several ranges too, means the whole.
RangeKind parseRange(const std::string* header, std::int64_t size, Span& span) {
    if (!header || !header->starts_with("bytes=")) return RangeKind::whole;
    const std::string_view text = std::string_view(*header).substr(6);
    const auto dash = text.find('-');
    if (dash == std::string_view::npos) return RangeKind::whole;
    const auto number = [](std::string_view digits) -> std::optional<std::int64_t> {
        if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos)
            return std::nullopt;
        return parseInteger(digits);
    };
    const auto first = number(text.substr(0, dash));
    const auto last = number(text.substr(dash + 1));
    if (text.substr(0, dash).empty()) {
        if (!last) return RangeKind::whole;
        if (*last == 0 || size == 0) return RangeKind::beyond;
        span = {size - std::min(*last, size), size};
        return RangeKind::part;
    }
    if (!first || (!last && dash + 1 != text.size()) || (last && *last < *first)) return RangeKind::whole;
    if (*first >= size) return RangeKind::beyond;
    span = {*first, last ? std::min(*last, size - 1) + 1 : size};
    return RangeKind::part;
}

}  // namespace

std::string htmlText(std::string_view text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string queryText(std::string_view text) {
    return percentEncoded(text);
}

std::string sizeText(std::int64_t bytes) {
    if (bytes < 1000) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    double value = static_cast<double>(bytes);
    const char* const units[] = {"kB", "MB", "GB", "TB", "PB", "EB"};
    std::size_t unit = 0;
    for (value /= 1000; value >= 999.95 && unit + 1 < std::size(units); value /= 1000)
        ++unit;
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f %s", value, units[unit]);
    return text.data();
}

std::string dateText(Date date) {
    const std::string text = JSONObjectFromNSDate(date);
    return text.substr(0, 10) + " " + text.substr(11, 5);
}

Reply webPage(unsigned status, std::string_view title, const std::string& body) {
    Reply reply;
    reply.status = status;
    reply.contentType = "text/html; charset=utf-8";
    reply.body = "<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>" + htmlText(title) +
                 "</title><meta name=\"viewport\" content=\"width=device-width\"><style>" +
                 std::string(kStyle) + "</style></head><body>" + body + "</body></html>\n";
    protect(reply, pagePolicy());
    return reply;
}

std::string_view contentTypeOf(std::string_view name) {
    static constexpr std::pair<std::string_view, std::string_view> kTypes[] = {
        {"7z", "application/x-7z-compressed"},
        {"avi", "video/x-msvideo"},
        {"bmp", "image/bmp"},
        {"css", "text/css"},
        {"csv", "text/csv"},
        {"doc", "application/msword"},
        {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
        {"epub", "application/epub+zip"},
        {"flac", "audio/flac"},
        {"gif", "image/gif"},
        {"gz", "application/gzip"},
        {"htm", "text/html"},
        {"html", "text/html"},
        {"jpeg", "image/jpeg"},
        {"jpg", "image/jpeg"},
        {"js", "text/javascript"},
        {"json", "application/json"},
        {"md", "text/markdown"},
        {"mkv", "video/x-matroska"},
        {"mov", "video/quicktime"},
        {"mp3", "audio/mpeg"},
        {"mp4", "video/mp4"},
        {"odp", "application/vnd.oasis.opendocument.presentation"},
        {"ods", "application/vnd.oasis.opendocument.spreadsheet"},
        {"odt", "application/vnd.oasis.opendocument.text"},
        {"ogg", "audio/ogg"},
        {"pdf", "application/pdf"},
        {"png", "image/png"},
        {"ppt", "application/vnd.ms-powerpoint"},
        {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
        {"rtf", "application/rtf"},
        {"svg", "image/svg+xml"},
        {"tar", "application/x-tar"},
        {"tif", "image/tiff"},
        {"tiff", "image/tiff"},
        {"txt", "text/plain; charset=utf-8"},
        {"wav", "audio/wav"},
        {"webm", "video/webm"},
        {"webp", "image/webp"},
        {"xls", "application/vnd.ms-excel"},
        {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
        {"xml", "application/xml"},
        {"zip", "application/zip"},
    };
    const auto dot = name.rfind('.');
    const std::string extension = dot == std::string_view::npos ? "" : lowerAscii(name.substr(dot + 1));
    const auto* found =
        std::lower_bound(std::begin(kTypes), std::end(kTypes), extension,
                         [](const auto& type, const auto& text) { return type.first < text; });
    return found != std::end(kTypes) && found->first == extension ? found->second
                                                                  : "application/octet-stream";
}

Reply download(const Request& request, std::string_view name, std::shared_ptr<ContentReader> reader,
               std::string_view version) {
    const std::int64_t size = reader ? reader->size() : 0;
    const std::string tag = "\"" + digestOf(version).substr(0, 32) + "\"";
    Reply reply;
    reply.contentType = contentTypeOf(name);
    reply.headers.emplace_back("Content-Disposition", disposition(name));
    reply.headers.emplace_back("Accept-Ranges", "bytes");
    reply.headers.emplace_back("ETag", tag);
    // Nothing of it may run, should a browser show it all the same.
    protect(reply, "default-src 'none'; sandbox");

    const std::string* former = request.header("If-Range");
    Span span{0, size};
    const auto kind =
        former && *former != tag ? RangeKind::whole : parseRange(request.header("Range"), size, span);
    if (kind == RangeKind::beyond) {
        reply.status = 416;
        reply.contentType = "text/plain; charset=utf-8";
        reply.headers.emplace_back("Content-Range", "bytes */" + std::to_string(size));
        return reply;
    }
    if (kind == RangeKind::part) {
        reply.status = 206;
        reply.headers.emplace_back("Content-Range", "bytes " + std::to_string(span.begin) + "-" +
                                                        std::to_string(span.end - 1) + "/" +
                                                        std::to_string(size));
    }
    if (reader) reply.range = ContentRange{std::move(reader), span.begin, span.end - span.begin};
    return reply;
}

}  // namespace tarnwell::service
