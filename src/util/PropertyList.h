#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "util/Date.h"

namespace tarnwell {

/// One value of a property list: the form of the store's files and of the extended attributes of an item.
///
/// A tree in memory, for what is small. Files of a million records are written by BinaryPropertyListWriter
/// and walked by BinaryPropertyListReader instead. A value type; any thread, not locked.
class PropertyList {
  public:
    /// Raw bytes, as distinct from text.
    struct Data {
        std::string bytes;
        bool operator==(const Data&) const = default;
    };
    using Array = std::vector<PropertyList>;

    /// Keys and values in their written order. Looking up is linear: for dictionaries of tens of keys.
    class Dictionary {
      public:
        using Entry = std::pair<std::string, PropertyList>;

        /// The first value of that key, or null.
        [[nodiscard]] const PropertyList* find(std::string_view key) const;
        /// Replaces the value of the key or appends it.
        void set(std::string_view key, PropertyList value);
        /// Appends. REQUIRES: no such key yet, or that the earlier one wins.
        void append(std::string key, PropertyList value);
        [[nodiscard]] const std::vector<Entry>& entries() const { return entries_; }
        bool operator==(const Dictionary&) const;

      private:
        std::vector<Entry> entries_;
    };

    using Value = std::variant<bool, std::int64_t, double, Date, std::string, Data, Array, Dictionary>;

    PropertyList() : value_(false) {}
    PropertyList(bool value) : value_(value) {}                        // NOLINT(google-explicit-constructor)
    PropertyList(std::int64_t value) : value_(value) {}                // NOLINT
    PropertyList(std::int32_t value) : value_(std::int64_t{value}) {}  // NOLINT
    PropertyList(double value) : value_(value) {}                      // NOLINT
    PropertyList(Date value) : value_(value) {}                        // NOLINT
    PropertyList(std::string value) : value_(std::move(value)) {}      // NOLINT
    PropertyList(std::string_view value) : value_(std::string(value)) {}  // NOLINT
    PropertyList(const char* value) : value_(std::string(value)) {}       // NOLINT
    PropertyList(Data value) : value_(std::move(value)) {}                // NOLINT
    PropertyList(Array value) : value_(std::move(value)) {}               // NOLINT
    PropertyList(Dictionary value) : value_(std::move(value)) {}          // NOLINT

    [[nodiscard]] const Value& value() const { return value_; }
    /// The value where it is a T of the variant, or null.
    template <class T>
    [[nodiscard]] const T* get() const {
        return std::get_if<T>(&value_);
    }
    /// A whole number; a real without fraction counts as one, since writers differ.
    [[nodiscard]] std::optional<std::int64_t> integer() const;
    /// A truth value; a number counts as one.
    [[nodiscard]] std::optional<bool> boolean() const;

    bool operator==(const PropertyList&) const;

  private:
    Value value_;
};

enum class PropertyListForm { kXml, kBinary };

/// Containers in containers, at most; more is refused when read and when written.
inline constexpr int kMaxPropertyListDepth = 64;

/// The value in a file's bytes of either form, or none with `error` set. Safe with hostile bytes: time and
/// memory stay within a small multiple of the size of `bytes`. XML dates have whole seconds.
std::optional<PropertyList> parsePropertyList(std::string_view bytes, std::string& error);

/// The bytes of `value`, or none with `error` set: too deep, or a text that XML cannot carry (a control
/// character other than tab, line feed and carriage return). Bytes of a text that are not UTF-8 become
/// U+FFFD.
std::optional<std::string> serializePropertyList(const PropertyList& value, PropertyListForm form,
                                                 std::string& error);

/// Seconds since 2001-01-01 UTC, the double that a binary property list keeps of a date.
///
/// Dates of whole milliseconds, which is what the service sends, come back exact in all of the years 1 to
/// 9999, whole microseconds in all years near ours. A single tick of 100 ns is finer than the double from
/// 2018 on: such a date comes back at most one tick off.
double propertyListSeconds(Date date);
/// None for a date outside the years 1 to 9999.
std::optional<Date> dateFromPropertyListSeconds(double seconds);

/// A real that is a whole number of 64 bits.
std::optional<std::int64_t> wholeNumber(double value);

}  // namespace tarnwell
