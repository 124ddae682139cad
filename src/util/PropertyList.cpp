#include "util/PropertyList.h"

#include <algorithm>
#include <cmath>

#include "util/BinaryPropertyListReader.h"
#include "util/BinaryPropertyListWriter.h"
#include "util/XmlPropertyList.h"

namespace tarnwell {

namespace {

/// Ticks from 0001-01-01 to 2001-01-01 UTC, where a property list counts from.
constexpr std::int64_t kReferenceTicks = 631139040000000000;
constexpr std::int64_t kTicksPerSecond = TickDuration::period::den;
constexpr Date kYear10000 = std::chrono::sys_days(std::chrono::year(10000) / 1 / 1);

std::uint64_t countValues(const PropertyList& value, int depth) {
    if (depth > kMaxPropertyListDepth) throw MalformedPropertyList("nested too deeply");
    std::uint64_t count = 1;
    if (const auto* array = value.get<PropertyList::Array>()) {
        for (const auto& element : *array)
            count += countValues(element, depth + 1);
    } else if (const auto* dictionary = value.get<PropertyList::Dictionary>()) {
        for (const auto& entry : dictionary->entries())
            count += 1 + countValues(entry.second, depth + 1);
    }
    return count;
}

BinaryPropertyListWriter::Reference writeBinary(const PropertyList& value, BinaryPropertyListWriter& writer) {
    using Reference = BinaryPropertyListWriter::Reference;
    struct Visitor {
        BinaryPropertyListWriter& writer;
        Reference operator()(bool flag) const { return writer.boolean(flag); }
        Reference operator()(std::int64_t number) const { return writer.integer(number); }
        Reference operator()(double number) const { return writer.real(number); }
        Reference operator()(Date date) const { return writer.date(date); }
        Reference operator()(const std::string& text) const { return writer.text(text); }
        Reference operator()(const PropertyList::Data& data) const { return writer.data(data.bytes); }
        Reference operator()(const PropertyList::Array& array) const {
            std::vector<Reference> elements;
            elements.reserve(array.size());
            for (const auto& element : array)
                elements.push_back(writeBinary(element, writer));
            return writer.array(elements);
        }
        Reference operator()(const PropertyList::Dictionary& dictionary) const {
            std::vector<Reference> keys;
            std::vector<Reference> values;
            for (const auto& [key, element] : dictionary.entries()) {
                keys.push_back(writer.text(key));
                values.push_back(writeBinary(element, writer));
            }
            return writer.dictionary(keys, values);
        }
    };
    return std::visit(Visitor{writer}, value.value());
}

std::string binaryPropertyList(const PropertyList& value) {
    std::string bytes;
    BinaryPropertyListWriter writer(stringSink(bytes), countValues(value, 0));
    if (writer.finish(writeBinary(value, writer)) != 0) throw MalformedPropertyList("too many values");
    return bytes;
}

double encodeSeconds(std::int64_t sinceReference) {
    // In extended precision: ticks do not fit a double, and halves must be rounded once only.
    return static_cast<double>(static_cast<long double>(sinceReference) / kTicksPerSecond);
}

std::int64_t roundTo(std::int64_t value, std::int64_t unit) {
    const std::int64_t half = value < 0 ? -unit / 2 : unit / 2;
    return (value + half) / unit * unit;
}

}  // namespace

double propertyListSeconds(Date date) {
    return encodeSeconds(ticks(date) - kReferenceTicks);
}

std::optional<Date> dateFromPropertyListSeconds(double seconds) {
    const auto bound = [](Date date) { return propertyListSeconds(date); };
    if (!(seconds >= bound(kDistantPast) && seconds < bound(kYear10000))) return std::nullopt;
    const auto nearest =
        static_cast<std::int64_t>(std::round(static_cast<long double>(seconds) * kTicksPerSecond));
    std::int64_t result = nearest;
    // The double stands for several ticks; the roundest of them is the one that was meant.
    for (const std::int64_t unit : {kTicksPerSecond / 1000, kTicksPerSecond / 1'000'000}) {
        const std::int64_t candidate = roundTo(nearest, unit);
        if (encodeSeconds(candidate) == seconds) {
            result = candidate;
            break;
        }
    }
    return dateWithTicks(result + kReferenceTicks);
}

std::optional<std::int64_t> wholeNumber(double value) {
    if (!(value >= -0x1p63 && value < 0x1p63) || std::trunc(value) != value) return std::nullopt;
    return static_cast<std::int64_t>(value);
}

const PropertyList* PropertyList::Dictionary::find(std::string_view key) const {
    const auto entry =
        std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.first == key; });
    return entry == entries_.end() ? nullptr : &entry->second;
}

void PropertyList::Dictionary::set(std::string_view key, PropertyList value) {
    const auto entry =
        std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.first == key; });
    if (entry == entries_.end())
        append(std::string(key), std::move(value));
    else
        entry->second = std::move(value);
}

void PropertyList::Dictionary::append(std::string key, PropertyList value) {
    entries_.emplace_back(std::move(key), std::move(value));
}

bool PropertyList::Dictionary::operator==(const Dictionary& other) const {
    return entries_ == other.entries_;
}
bool PropertyList::operator==(const PropertyList& other) const {
    return value_ == other.value_;
}

std::optional<std::int64_t> PropertyList::integer() const {
    if (const auto* number = get<std::int64_t>()) return *number;
    if (const auto* real = get<double>()) return wholeNumber(*real);
    return std::nullopt;
}

std::optional<bool> PropertyList::boolean() const {
    if (const auto* flag = get<bool>()) return *flag;
    const auto number = integer();
    return number ? std::optional(*number != 0) : std::nullopt;
}

std::optional<PropertyList> parsePropertyList(std::string_view bytes, std::string& error) {
    try {
        if (!BinaryPropertyListReader::isBinary(bytes)) return parseXmlPropertyList(bytes);
        const BinaryPropertyListReader reader(bytes);
        return reader.tree(reader.top());
    } catch (const MalformedPropertyList& malformed) {
        error = malformed.what();
        return std::nullopt;
    }
}

std::optional<std::string> serializePropertyList(const PropertyList& value, PropertyListForm form,
                                                 std::string& error) {
    try {
        return form == PropertyListForm::kXml ? xmlPropertyList(value) : binaryPropertyList(value);
    } catch (const MalformedPropertyList& malformed) {
        error = malformed.what();
        return std::nullopt;
    }
}

}  // namespace tarnwell
