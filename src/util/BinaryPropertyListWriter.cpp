#include "util/BinaryPropertyListWriter.h"

#include <unistd.h>
#include <utf8proc.h>

#include <algorithm>
#include <bit>
#include <cerrno>

#include "util/PropertyList.h"

namespace tarnwell {

namespace {

constexpr std::size_t kBufferSize = std::size_t{256} * 1024;
constexpr std::size_t kRecentNumbers = 4096;
constexpr std::size_t kRecentTexts = 65536;
constexpr std::size_t kMaxRecentText = 256;  // bytes; longer texts repeat too seldom
constexpr std::string_view kHeader = "bplist00";

unsigned bytesFor(std::uint64_t value) {
    return value <= UINT8_MAX ? 1 : value <= UINT16_MAX ? 2 : value <= UINT32_MAX ? 4 : 8;
}

bool isAscii(std::string_view text) {
    unsigned char all = 0;
    for (const char letter : text)
        all |= static_cast<unsigned char>(letter);
    return all < 0x80;
}

/// UTF-16, big-endian.
std::string utf16(std::string_view text) {
    std::string out;
    out.reserve(text.size() * 2);
    const auto unit = [&](std::uint32_t value) {
        out += static_cast<char>(value >> 8 & 0xFF);
        out += static_cast<char>(value & 0xFF);
    };
    while (!text.empty()) {
        utf8proc_int32_t point = -1;
        const auto size = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                           static_cast<utf8proc_ssize_t>(text.size()), &point);
        text.remove_prefix(size > 0 ? static_cast<std::size_t>(size) : 1);
        if (size <= 0) {
            unit(0xFFFD);
        } else if (point >= 0x10000) {
            unit(0xD800 + (static_cast<std::uint32_t>(point - 0x10000) >> 10));
            unit(0xDC00 + (static_cast<std::uint32_t>(point - 0x10000) & 0x3FF));
        } else {
            unit(static_cast<std::uint32_t>(point));
        }
    }
    return out;
}

}  // namespace

BinaryPropertyListWriter::BinaryPropertyListWriter(Sink sink, std::uint64_t maxObjects)
    : sink_(std::move(sink)),
      maxObjects_(std::min<std::uint64_t>(maxObjects, UINT32_MAX)),
      referenceSize_(bytesFor(maxObjects_ > 0 ? maxObjects_ - 1 : 0)),
      buffer_(std::make_unique<char[]>(kBufferSize)),
      recentNumbers_(kRecentNumbers),
      recentTexts_(std::bit_ceil(std::min<std::size_t>(maxObjects_ + 1, kRecentTexts))) {
    put(kHeader);
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::begin() {
    objectStart_ = offset_;
    if (objects_ >= maxObjects_ && error_ == 0) error_ = EOVERFLOW;
    return static_cast<Reference>(objects_++);
}

void BinaryPropertyListWriter::end() {
    std::uint64_t size = offset_ - objectStart_;
    for (; size >= 0x80; size >>= 7)
        sizes_ += static_cast<char>(size | 0x80);
    sizes_ += static_cast<char>(size);
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::boolean(bool value) {
    if (!booleanWritten_[value]) {
        booleans_[value] = begin();
        bigEndian(value ? 0x09 : 0x08, 1);
        end();
        booleanWritten_[value] = true;
    }
    return booleans_[value];
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::number(std::uint8_t marker, std::uint64_t bits,
                                                                     unsigned bytes) {
    auto& recent = recentNumbers_[(bits * 0x9E3779B97F4A7C15ULL) >> 52];
    static_assert(kRecentNumbers == 1 << 12);
    if (recent.marker == marker && recent.bits == bits) return recent.reference;
    const Reference reference = begin();
    bigEndian(marker, 1);
    bigEndian(bits, bytes);
    end();
    recent = {bits, marker, reference};
    return reference;
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::integer(std::int64_t value) {
    // The short forms are unsigned: a negative number always takes eight bytes.
    const unsigned bytes = value < 0 ? 8 : bytesFor(static_cast<std::uint64_t>(value));
    return number(static_cast<std::uint8_t>(0x10 | std::countr_zero(bytes)),
                  static_cast<std::uint64_t>(value), bytes);
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::real(double value) {
    return number(0x23, std::bit_cast<std::uint64_t>(value), 8);
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::date(Date value) {
    return number(0x33, std::bit_cast<std::uint64_t>(propertyListSeconds(value)), 8);
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::text(std::string_view value) {
    if (value.size() > kMaxRecentText) {
        const Reference reference = begin();
        writeText(value);
        end();
        return reference;
    }
    const std::size_t hash = std::hash<std::string_view>{}(value);
    auto& recent = recentTexts_[hash & (recentTexts_.size() - 1)];
    if (recent.reference && recent.hash == hash && recent.text == value) return *recent.reference;
    const Reference reference = begin();
    writeText(value);
    end();
    recent.text = value;
    recent.hash = hash;
    recent.reference = reference;
    return reference;
}

void BinaryPropertyListWriter::writeText(std::string_view value) {
    if (isAscii(value)) {
        header(0x50, value.size());
        put(value);
    } else {
        const std::string units = utf16(value);
        header(0x60, units.size() / 2);
        put(units);
    }
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::data(std::string_view bytes) {
    const Reference reference = begin();
    header(0x40, bytes.size());
    put(bytes);
    end();
    return reference;
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::array(std::span<const Reference> elements) {
    const Reference reference = begin();
    header(0xA0, elements.size());
    references(elements);
    end();
    return reference;
}

BinaryPropertyListWriter::Reference BinaryPropertyListWriter::dictionary(std::span<const Reference> keys,
                                                                         std::span<const Reference> values) {
    const Reference reference = begin();
    header(0xD0, keys.size());
    references(keys);
    references(values);
    end();
    return reference;
}

void BinaryPropertyListWriter::header(std::uint8_t kind, std::uint64_t count) {
    if (count < 15) {
        bigEndian(kind | count, 1);
        return;
    }
    const unsigned bytes = bytesFor(count);
    bigEndian(kind | 0x0FU, 1);
    bigEndian(0x10U | static_cast<unsigned>(std::countr_zero(bytes)), 1);
    bigEndian(count, bytes);
}

void BinaryPropertyListWriter::references(std::span<const Reference> list) {
    for (const Reference reference : list)
        bigEndian(reference, referenceSize_);
}

void BinaryPropertyListWriter::bigEndian(std::uint64_t value, unsigned bytes) {
    char* out = room(bytes);
    for (unsigned i = bytes; i-- > 0; value >>= 8)
        out[i] = static_cast<char>(value & 0xFF);
}

/// The next bytes of the buffer, which are written by that. REQUIRES: fewer than the buffer has.
char* BinaryPropertyListWriter::room(std::size_t bytes) {
    if (bytes > kBufferSize - used_) flush();
    char* out = buffer_.get() + used_;
    used_ += bytes;
    offset_ += bytes;
    return out;
}

void BinaryPropertyListWriter::put(std::string_view bytes) {
    if (bytes.size() <= kBufferSize) {
        std::copy(bytes.begin(), bytes.end(), room(bytes.size()));
        return;
    }
    flush();
    offset_ += bytes.size();
    if (error_ == 0) error_ = sink_(bytes);
}

void BinaryPropertyListWriter::flush() {
    if (error_ == 0 && used_ > 0) error_ = sink_({buffer_.get(), used_});
    used_ = 0;
}

int BinaryPropertyListWriter::finish(Reference top) {
    const std::uint64_t table = offset_;
    const unsigned offsetSize = bytesFor(table);
    std::uint64_t objectOffset = kHeader.size();
    std::uint64_t size = 0;
    unsigned shift = 0;
    for (const char byte : sizes_) {
        size |= static_cast<std::uint64_t>(byte & 0x7F) << shift;
        shift += 7;
        if (byte & 0x80) continue;
        bigEndian(objectOffset, offsetSize);
        objectOffset += size;
        size = 0;
        shift = 0;
    }
    bigEndian(0, 6);
    bigEndian(offsetSize, 1);
    bigEndian(referenceSize_, 1);
    bigEndian(objects_, 8);
    bigEndian(top, 8);
    bigEndian(table, 8);
    flush();
    return error_;
}

BinaryPropertyListWriter::Sink stringSink(std::string& out) {
    return [&out](std::string_view bytes) {
        out += bytes;
        return 0;
    };
}

BinaryPropertyListWriter::Sink descriptorSink(int descriptor) {
    return [descriptor](std::string_view bytes) {
        while (!bytes.empty()) {
            const auto written = ::write(descriptor, bytes.data(), bytes.size());
            if (written > 0)
                bytes.remove_prefix(static_cast<std::size_t>(written));
            else if (written == 0)
                return EIO;
            else if (errno != EINTR)
                return errno;
        }
        return 0;
    };
}

}  // namespace tarnwell
