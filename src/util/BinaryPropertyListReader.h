#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "util/Date.h"
#include "util/PropertyList.h"

namespace tarnwell {

/// What a damaged or hostile property list is answered with. Caught where a file is read, never let out of
/// the room.
struct MalformedPropertyList : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A view of a binary property list that lies in memory (read or mapped whole), decoded value by value.
///
/// Nothing is trusted: every offset, count and reference is checked against the bytes before it is used,
/// nothing is allocated by a count alone, and no recursion happens here. Containers may name each other in a
/// ring: who descends limits the depth. The bytes outlive the reader and its values. Any thread; reading
/// changes nothing.
class BinaryPropertyListReader {
  public:
    using Reference = std::uint64_t;
    enum class Kind { kBoolean, kInteger, kReal, kDate, kText, kData, kArray, kDictionary, kOther };

    /// One value, its head decoded. Accessors of another kind's content give none.
    class Value {
      public:
        [[nodiscard]] Kind kind() const { return kind_; }
        [[nodiscard]] Reference reference() const { return reference_; }
        [[nodiscard]] std::optional<std::int64_t> integer() const;
        [[nodiscard]] std::optional<bool> boolean() const;
        [[nodiscard]] std::optional<double> real() const;
        [[nodiscard]] std::optional<Date> date() const;
        [[nodiscard]] std::optional<std::string_view> data() const;
        /// UTF-8, in the file's own bytes or converted into `scratch`. Lone surrogates become U+FFFD.
        std::optional<std::string_view> text(std::string& scratch) const;

        /// Bytes of data, units of a text (one or two bytes each): what decoding it would cost.
        [[nodiscard]] std::uint64_t length() const { return isContainer() ? 0 : size_; }
        /// Elements of an array, entries of a dictionary; else 0.
        [[nodiscard]] std::uint64_t count() const { return isContainer() ? size_ : 0; }
        /// REQUIRES: index < count(). An array's element, a dictionary's value.
        [[nodiscard]] Reference element(std::uint64_t index) const;
        /// REQUIRES: a dictionary, index < count().
        [[nodiscard]] Reference key(std::uint64_t index) const;
        /// The first value of that key, if this is a dictionary with it. Throws as value().
        [[nodiscard]] std::optional<Value> find(std::string_view key) const;

      private:
        friend class BinaryPropertyListReader;
        [[nodiscard]] bool isContainer() const { return kind_ == Kind::kArray || kind_ == Kind::kDictionary; }

        const BinaryPropertyListReader* reader_ = nullptr;
        Reference reference_ = 0;
        Kind kind_ = Kind::kOther;
        bool wideText_ = false;       ///< UTF-16
        std::uint64_t position_ = 0;  ///< of the content
        std::uint64_t size_ = 0;      ///< bytes of a number, else the count of the head
        std::uint64_t bits_ = 0;      ///< a scalar's content
    };

    static bool isBinary(std::string_view bytes) { return bytes.starts_with("bplist0"); }

    /// Throws MalformedPropertyList when header or trailer are.
    explicit BinaryPropertyListReader(std::string_view bytes);

    [[nodiscard]] Value top() const { return value(top_); }
    /// Throws MalformedPropertyList for a reference to nothing or an object that is cut off.
    [[nodiscard]] Value value(Reference reference) const;

    /// The whole tree below `value`. Throws MalformedPropertyList, also when it is deeper than
    /// kMaxPropertyListDepth, or when so much of it is shared that its copy would be many times the size of
    /// the file.
    [[nodiscard]] PropertyList tree(const Value& value) const;

    [[nodiscard]] std::string_view bytes() const { return bytes_; }

  private:
    struct Budget;
    [[nodiscard]] PropertyList tree(const Value& value, int depth, Budget& budget) const;
    [[nodiscard]] std::uint64_t bigEndian(std::uint64_t position, unsigned size) const;
    void decodeHead(Value& value, std::uint64_t offset) const;
    void decodeCounted(Value& value, std::uint64_t offset, unsigned low, std::uint64_t unit) const;

    std::string_view bytes_;
    unsigned offsetSize_ = 0;
    unsigned referenceSize_ = 0;
    std::uint64_t objects_ = 0;
    Reference top_ = 0;
    std::uint64_t table_ = 0;  ///< where the offsets begin and the objects end
};

}  // namespace tarnwell
