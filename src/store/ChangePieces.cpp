#include "store/ChangePieces.h"

#include <optional>
#include <utility>

#include "util/Hash.h"
#include "util/StoredForm.h"

namespace tarnwell {

namespace {

using Keys = std::integral_constant<std::size_t, stored::keyCount<TWVirtualFile>>;

enum Operation : unsigned char {
    kKeys = 1,
    kJournalBase = 2,
    kShare = 3,
    kShareGone = 4,
    kFile = 5,
    kFileGone = 6,
    kEntry = 7,
    kEntryGone = 8,
    kExchange = 9,
};

enum ValueKind : unsigned char { kFalse, kTrue, kInteger, kDate, kText };

void putByte(std::string& bytes, unsigned value) {
    bytes += static_cast<char>(value);
}

/// Seven bits a byte, the lowest first.
void putNumber(std::string& bytes, std::uint64_t number) {
    for (; number >= 0x80; number >>= 7U)
        putByte(bytes, 0x80U | (number & 0x7FU));
    putByte(bytes, static_cast<unsigned>(number));
}

/// Small numbers of either sign stay short.
void putSigned(std::string& bytes, std::int64_t number) {
    const auto bits = static_cast<std::uint64_t>(number);
    putNumber(bytes, (bits << 1U) ^ (number < 0 ? ~std::uint64_t{0} : 0));
}

void putText(std::string& bytes, std::string_view text) {
    putNumber(bytes, text.size());
    bytes += text;
}

/// One value of a record, as stored::assigners take it.
struct PieceValue {
    ValueKind kind = kFalse;
    std::int64_t number = 0;
    std::string_view content;

    [[nodiscard]] std::optional<std::int64_t> integer() const {
        return kind == kInteger ? std::optional(number) : std::nullopt;
    }
    [[nodiscard]] std::optional<bool> boolean() const {
        return kind <= kTrue ? std::optional(kind == kTrue) : std::nullopt;
    }
    [[nodiscard]] std::optional<Date> date() const {
        return kind == kDate ? std::optional(Date{TickDuration{number}}) : std::nullopt;
    }
    [[nodiscard]] SharedString text() const { return kind == kText ? SharedString(content) : SharedString(); }
};

}  // namespace

class ByteReader {
  public:
    explicit ByteReader(std::string_view bytes) : rest_(bytes) {}
    [[nodiscard]] bool atEnd() const { return rest_.empty(); }

    unsigned char byte() {
        if (rest_.empty()) throw MalformedPiece("a piece ends too early");
        const auto value = static_cast<unsigned char>(rest_.front());
        rest_.remove_prefix(1);
        return value;
    }
    std::uint64_t number() {
        std::uint64_t number = 0;
        for (unsigned shift = 0; shift < 64; shift += 7) {
            const unsigned char value = byte();
            number |= std::uint64_t{value & 0x7FU} << shift;
            if (value < 0x80) return number;
        }
        throw MalformedPiece("a number is too long");
    }
    std::int64_t signedNumber() {
        const std::uint64_t bits = number();
        return static_cast<std::int64_t>((bits >> 1U) ^ ((bits & 1U) ? ~std::uint64_t{0} : 0));
    }
    std::string_view text() {
        const std::uint64_t size = number();
        if (size > rest_.size()) throw MalformedPiece("a text ends too early");
        const auto text = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return text;
    }
    std::string string() { return std::string(text()); }

  private:
    std::string_view rest_;
};

std::string hashOfJournal(const std::vector<std::string>& texts) {
    Md5 hash;
    for (const auto& text : texts) {
        hash.update(std::to_string(text.size()) + ":");
        hash.update(text);
    }
    return hash.hashText();
}

void PieceWriter::keys() {
    putByte(bytes_, kKeys);
    putNumber(bytes_, Keys::value);
    for (const auto& key : TWVirtualFile::storedKeys)
        putText(bytes_, key.name);
}

void PieceWriter::journalBase(const JournalBase& base) {
    putByte(bytes_, kJournalBase);
    putText(bytes_, base.hash);
    putNumber(bytes_, base.orders.size());
    std::uint64_t last = 0;
    for (const auto order : base.orders)
        putNumber(bytes_, order - std::exchange(last, order));
}

void PieceWriter::share(std::string_view json) {
    putByte(bytes_, kShare);
    putText(bytes_, json);
}

void PieceWriter::shareGone(std::string_view id) {
    putByte(bytes_, kShareGone);
    putText(bytes_, id);
}

void PieceWriter::file(const TWVirtualFile& file) {
    putByte(bytes_, kFile);
    stored::forEachValue(file, [this](std::size_t key, const auto& value) {
        using Value = std::remove_cvref_t<decltype(value)>;
        putByte(bytes_, static_cast<unsigned>(key + 1));
        if constexpr (std::is_same_v<Value, bool>) {
            putByte(bytes_, value ? kTrue : kFalse);
        } else if constexpr (std::is_same_v<Value, Date>) {
            putByte(bytes_, kDate);
            putSigned(bytes_, value.time_since_epoch().count());
        } else if constexpr (std::is_same_v<Value, std::string_view>) {
            putByte(bytes_, kText);
            putText(bytes_, value);
        } else {
            putByte(bytes_, kInteger);
            putSigned(bytes_, value);
        }
    });
    putByte(bytes_, 0);
}

void PieceWriter::fileGone(std::string_view id) {
    putByte(bytes_, kFileGone);
    putText(bytes_, id);
}

void PieceWriter::entry(std::uint64_t order, std::string_view json) {
    putByte(bytes_, kEntry);
    putNumber(bytes_, order);
    putText(bytes_, json);
}

void PieceWriter::entryGone(std::uint64_t order) {
    putByte(bytes_, kEntryGone);
    putNumber(bytes_, order);
}

void PieceWriter::exchange(const CacheExchange& exchange) {
    putByte(bytes_, kExchange);
    putText(bytes_, exchange.a);
    putText(bytes_, exchange.b);
    putNumber(bytes_, exchange.inodeA);
    putNumber(bytes_, exchange.inodeB);
}

TWVirtualFilePtr PieceReader::readFile(ByteReader& bytes) const {
    auto file = std::make_shared<TWVirtualFile>();
    while (const std::size_t key = bytes.byte()) {
        const auto kind = static_cast<ValueKind>(bytes.byte());
        if (kind > kText || key > keys_.size()) throw MalformedPiece("a value of no known kind or key");
        PieceValue value{kind, 0, {}};
        if (kind == kInteger || kind == kDate) value.number = bytes.signedNumber();
        if (kind == kText) value.content = bytes.text();
        // Another version of the program may have had keys that this one lacks.
        if (const auto index = keys_[key - 1]; index < Keys::value)
            stored::assigners<TWVirtualFile, PieceValue>[index](*file, value);
    }
    return file;
}

void PieceReader::read(std::string_view piece, PieceVisitor& visitor) {
    ByteReader bytes(piece);
    while (!bytes.atEnd()) {
        switch (bytes.byte()) {
            case kKeys: {
                keys_.clear();
                for (auto count = bytes.number(); count > 0; --count)
                    keys_.push_back(stored::keyIndex<TWVirtualFile>(bytes.text()).value_or(Keys::value));
                break;
            }
            case kJournalBase: {
                JournalBase base{bytes.string(), {}};
                std::uint64_t order = 0;
                for (auto count = bytes.number(); count > 0; --count)
                    base.orders.push_back(order += bytes.number());
                visitor.journalBase(std::move(base));
                break;
            }
            case kShare:
                visitor.share(bytes.string());
                break;
            case kShareGone:
                visitor.shareGone(bytes.string());
                break;
            case kFile:
                visitor.file(readFile(bytes));
                break;
            case kFileGone:
                visitor.fileGone(bytes.string());
                break;
            case kEntry: {
                const auto order = bytes.number();
                visitor.entry(order, bytes.string());
                break;
            }
            case kEntryGone:
                visitor.entryGone(bytes.number());
                break;
            case kExchange: {
                CacheExchange exchange;
                exchange.a = bytes.string();
                exchange.b = bytes.string();
                exchange.inodeA = bytes.number();
                exchange.inodeB = bytes.number();
                visitor.exchange(std::move(exchange));
                break;
            }
            default:
                throw MalformedPiece("an operation that is not known");
        }
    }
}

}  // namespace tarnwell
