#include "service/Gzip.h"

#include <zlib.h>

#include "service/Names.h"
#include "service/ServiceError.h"

namespace tarnwell::service {

namespace {

/// 15 is the largest window; 16 more asks zlib for the gzip frame.
constexpr int kGzipWindow = 15 + 16;

std::string_view trimmed(std::string_view text) {
    while (text.starts_with(' ') || text.starts_with('\t'))
        text.remove_prefix(1);
    while (text.ends_with(' ') || text.ends_with('\t'))
        text.remove_suffix(1);
    return text;
}

bool isZeroQuality(std::string_view parameters) {
    const auto q = parameters.find("q=");
    if (q == std::string_view::npos) return false;
    const std::string_view value = trimmed(parameters.substr(q + 2));
    return value.starts_with('0') && value.find_first_of("123456789") == std::string_view::npos;
}

}  // namespace

std::string gzip(std::string_view bytes) {
    z_stream stream{};
    if (deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, kGzipWindow, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw ServiceError("cannot compress a reply");
    }
    std::string out(deflateBound(&stream, bytes.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) throw ServiceError("cannot compress a reply");
    return out;
}

bool acceptsGzip(std::string_view acceptEncoding) {
    while (!acceptEncoding.empty()) {
        const auto comma = acceptEncoding.find(',');
        const std::string_view one = acceptEncoding.substr(0, comma);
        acceptEncoding =
            comma == std::string_view::npos ? std::string_view() : acceptEncoding.substr(comma + 1);
        const auto semicolon = one.find(';');
        const std::string coding = lowerAscii(trimmed(one.substr(0, semicolon)));
        if (coding != "gzip" && coding != "*") continue;
        return semicolon == std::string_view::npos || !isZeroQuality(one.substr(semicolon + 1));
    }
    return false;
}

}  // namespace tarnwell::service
