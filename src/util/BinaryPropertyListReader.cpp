#include "util/BinaryPropertyListReader.h"

#include <utf8proc.h>

#include <array>
#include <bit>
#include <cstring>

namespace tarnwell {

namespace {

constexpr std::uint64_t kHeaderSize = 8;
constexpr std::uint64_t kTrailerSize = 32;

bool isAscii(std::string_view text) {
    unsigned char all = 0;
    for (const char letter : text)
        all |= static_cast<unsigned char>(letter);
    return all < 0x80;
}

void appendUtf16(std::string_view units, std::string& out) {
    const auto unitAt = [&](std::size_t i) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(units[i]) << 8 |
                                          static_cast<unsigned char>(units[i + 1]));
    };
    for (std::size_t i = 0; i + 1 < units.size(); i += 2) {
        std::uint32_t point = unitAt(i);
        if (point >= 0xD800 && point < 0xE000) {
            const std::uint32_t low = i + 3 < units.size() ? unitAt(i + 2) : 0;
            if (point < 0xDC00 && low >= 0xDC00 && low < 0xE000) {
                point = 0x10000 + ((point - 0xD800) << 10) + (low - 0xDC00);
                i += 2;
            } else {
                point = 0xFFFD;
            }
        }
        std::array<utf8proc_uint8_t, 4> bytes{};
        const auto size = utf8proc_encode_char(static_cast<utf8proc_int32_t>(point), bytes.data());
        out.append(reinterpret_cast<const char*>(bytes.data()), static_cast<std::size_t>(size));
    }
}

}  // namespace

/// How much a tree may still grow. A file may name one large value many times, which costs it a few bytes
/// each.
struct BinaryPropertyListReader::Budget {
    std::uint64_t values;
    std::uint64_t bytes;

    explicit Budget(std::uint64_t fileSize) : values(fileSize), bytes(16 * fileSize) {}
    void spend(std::uint64_t copied) {
        if (values == 0 || copied > bytes)
            throw MalformedPropertyList("property list expands beyond its size");
        --values;
        bytes -= copied;
    }
};

BinaryPropertyListReader::BinaryPropertyListReader(std::string_view bytes) : bytes_(bytes) {
    if (!isBinary(bytes) || bytes.size() < kHeaderSize + kTrailerSize) {
        throw MalformedPropertyList("not a binary property list");
    }
    const std::uint64_t trailer = bytes.size() - kTrailerSize;
    offsetSize_ = static_cast<unsigned char>(bytes[trailer + 6]);
    referenceSize_ = static_cast<unsigned char>(bytes[trailer + 7]);
    objects_ = bigEndian(trailer + 8, 8);
    top_ = bigEndian(trailer + 16, 8);
    table_ = bigEndian(trailer + 24, 8);
    const bool sane = offsetSize_ >= 1 && offsetSize_ <= 8 && referenceSize_ >= 1 && referenceSize_ <= 8 &&
                      table_ > kHeaderSize && table_ <= trailer &&
                      objects_ <= (trailer - table_) / offsetSize_ && top_ < objects_;
    if (!sane) throw MalformedPropertyList("damaged trailer");
}

std::uint64_t BinaryPropertyListReader::bigEndian(std::uint64_t position, unsigned size) const {
    const auto* from = reinterpret_cast<const unsigned char*>(bytes_.data()) + position;
    switch (size) {
        case 1:
            return *from;
        case 2:
            return static_cast<std::uint64_t>(from[0]) << 8 | from[1];
        case 4: {
            std::uint32_t value = 0;
            std::memcpy(&value, from, 4);
            return std::endian::native == std::endian::little ? __builtin_bswap32(value) : value;
        }
        default: {
            std::uint64_t value = 0;
            for (unsigned i = 0; i < size; ++i)
                value = value << 8 | from[i];
            return value;
        }
    }
}

BinaryPropertyListReader::Value BinaryPropertyListReader::value(Reference reference) const {
    if (reference >= objects_) throw MalformedPropertyList("reference to nothing");
    const std::uint64_t offset = bigEndian(table_ + reference * offsetSize_, offsetSize_);
    if (offset < kHeaderSize || offset >= table_)
        throw MalformedPropertyList("offset outside of the objects");
    Value value;
    value.reader_ = this;
    value.reference_ = reference;
    decodeHead(value, offset);
    return value;
}

void BinaryPropertyListReader::decodeHead(Value& value, std::uint64_t offset) const {
    const auto marker = static_cast<unsigned char>(bytes_[offset]);
    const unsigned low = marker & 0x0FU;
    const auto scalar = [&](Kind kind, std::uint64_t size) {
        if (size > table_ - offset - 1) throw MalformedPropertyList("number is cut off");
        value.kind_ = kind;
        value.position_ = offset + 1;
        value.size_ = size;
        value.bits_ = bigEndian(offset + 1 + (size > 8 ? size - 8 : 0),
                                static_cast<unsigned>(std::min<std::uint64_t>(size, 8)));
    };
    switch (marker >> 4) {
        case 0x0:
            value.kind_ = low == 8 || low == 9 ? Kind::kBoolean : Kind::kOther;
            value.bits_ = low == 9;
            break;
        case 0x1:
            if (low > 4) throw MalformedPropertyList("number of unknown size");
            scalar(Kind::kInteger, 1ULL << low);
            break;
        case 0x2:
            if (low != 2 && low != 3) throw MalformedPropertyList("real of unknown size");
            scalar(Kind::kReal, 1ULL << low);
            break;
        case 0x3:
            if (low != 3) throw MalformedPropertyList("date of unknown size");
            scalar(Kind::kDate, 8);
            break;
        case 0x4:
            value.kind_ = Kind::kData;
            decodeCounted(value, offset, low, 1);
            break;
        case 0x5:
        case 0x6:
            value.kind_ = Kind::kText;
            value.wideText_ = marker >> 4 == 0x6;
            decodeCounted(value, offset, low, value.wideText_ ? 2 : 1);
            break;
        case 0xA:
            value.kind_ = Kind::kArray;
            decodeCounted(value, offset, low, referenceSize_);
            break;
        case 0xD:
            value.kind_ = Kind::kDictionary;
            decodeCounted(value, offset, low, 2ULL * referenceSize_);
            break;
        default:
            value.kind_ = Kind::kOther;
            break;
    }
}

void BinaryPropertyListReader::decodeCounted(Value& value, std::uint64_t offset, unsigned low,
                                             std::uint64_t unit) const {
    value.position_ = offset + 1;
    value.size_ = low;
    if (low == 0x0F) {
        const std::uint64_t rest = table_ - offset - 1;
        const unsigned head = rest > 0 ? static_cast<unsigned char>(bytes_[offset + 1]) : 0;
        const unsigned power = head & 0x0FU;
        if (head >> 4 != 0x1 || power > 3 || (1ULL << power) > rest - 1)
            throw MalformedPropertyList("damaged count");
        value.size_ = bigEndian(offset + 2, 1U << power);
        value.position_ = offset + 2 + (1ULL << power);
    }
    if (value.size_ > (table_ - value.position_) / unit) throw MalformedPropertyList("object is cut off");
}

std::optional<std::int64_t> BinaryPropertyListReader::Value::integer() const {
    if (kind_ == Kind::kReal) return wholeNumber(*real());
    if (kind_ != Kind::kInteger) return std::nullopt;
    const auto value = static_cast<std::int64_t>(bits_);
    if (size_ == 16) {
        // Beyond 64 bits unless the upper half only repeats the sign.
        const std::uint64_t upper = reader_->bigEndian(position_, 8);
        if (upper != (value < 0 ? ~0ULL : 0ULL)) return std::nullopt;
    }
    return value;
}

std::optional<bool> BinaryPropertyListReader::Value::boolean() const {
    if (kind_ == Kind::kBoolean) return bits_ != 0;
    const auto number = integer();
    return number ? std::optional(*number != 0) : std::nullopt;
}

std::optional<double> BinaryPropertyListReader::Value::real() const {
    if (kind_ != Kind::kReal) return std::nullopt;
    if (size_ == 4) return static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits_)));
    return std::bit_cast<double>(bits_);
}

std::optional<Date> BinaryPropertyListReader::Value::date() const {
    if (kind_ != Kind::kDate) return std::nullopt;
    return dateFromPropertyListSeconds(std::bit_cast<double>(bits_));
}

std::optional<std::string_view> BinaryPropertyListReader::Value::data() const {
    if (kind_ != Kind::kData) return std::nullopt;
    return reader_->bytes_.substr(position_, size_);
}

std::optional<std::string_view> BinaryPropertyListReader::Value::text(std::string& scratch) const {
    if (kind_ != Kind::kText) return std::nullopt;
    if (wideText_) {
        scratch.clear();
        appendUtf16(reader_->bytes_.substr(position_, size_ * 2), scratch);
        return scratch;
    }
    const auto bytes = reader_->bytes_.substr(position_, size_);
    return isAscii(bytes) ? std::optional(bytes) : std::nullopt;
}

BinaryPropertyListReader::Reference BinaryPropertyListReader::Value::element(std::uint64_t index) const {
    const std::uint64_t skipped = kind_ == Kind::kDictionary ? size_ + index : index;
    return reader_->bigEndian(position_ + skipped * reader_->referenceSize_, reader_->referenceSize_);
}

BinaryPropertyListReader::Reference BinaryPropertyListReader::Value::key(std::uint64_t index) const {
    return reader_->bigEndian(position_ + index * reader_->referenceSize_, reader_->referenceSize_);
}

std::optional<BinaryPropertyListReader::Value> BinaryPropertyListReader::Value::find(
    std::string_view key) const {
    if (kind_ != Kind::kDictionary) return std::nullopt;
    std::string scratch;
    for (std::uint64_t i = 0; i < size_; ++i) {
        const Value name = reader_->value(this->key(i));
        // Compared by size first, so that a long wrong key is not decoded.
        if (name.size_ <= key.size() && name.text(scratch) == key) return reader_->value(element(i));
    }
    return std::nullopt;
}

PropertyList BinaryPropertyListReader::tree(const Value& value) const {
    Budget budget(bytes_.size());
    return tree(value, 0, budget);
}

PropertyList BinaryPropertyListReader::tree(const Value& value, int depth, Budget& budget) const {
    if (depth > kMaxPropertyListDepth) throw MalformedPropertyList("nested too deeply");
    const auto required = [](auto content) {
        if (!content) throw MalformedPropertyList("value out of range");
        return *std::move(content);
    };
    std::string scratch;
    const auto text = [&](const Value& from) {
        if (from.kind() != Kind::kText) throw MalformedPropertyList("expected a text");
        budget.spend(from.length() * 3);
        return std::string(required(from.text(scratch)));
    };
    switch (value.kind()) {
        case Kind::kBoolean:
            budget.spend(0);
            return required(value.boolean());
        case Kind::kInteger:
            budget.spend(0);
            return required(value.integer());
        case Kind::kReal:
            budget.spend(0);
            return required(value.real());
        case Kind::kDate:
            budget.spend(0);
            return required(value.date());
        case Kind::kText:
            return text(value);
        case Kind::kData:
            budget.spend(value.size_);
            return PropertyList::Data{std::string(*value.data())};
        case Kind::kArray: {
            budget.spend(0);
            PropertyList::Array array;
            for (std::uint64_t i = 0; i < value.count(); ++i) {
                array.push_back(tree(this->value(value.element(i)), depth + 1, budget));
            }
            return array;
        }
        case Kind::kDictionary: {
            budget.spend(0);
            PropertyList::Dictionary dictionary;
            for (std::uint64_t i = 0; i < value.count(); ++i) {
                std::string key = text(this->value(value.key(i)));
                dictionary.append(std::move(key), tree(this->value(value.element(i)), depth + 1, budget));
            }
            return dictionary;
        }
        case Kind::kOther:
            break;
    }
    throw MalformedPropertyList("value of an unknown kind");
}

}  // namespace tarnwell
