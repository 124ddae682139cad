#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "util/BinaryPropertyListReader.h"
#include "util/BinaryPropertyListWriter.h"
#include "util/PropertyList.h"
#include "util/RecordMapping.h"
#include "util/StoredKey.h"

/// The stored form of a described record: a dictionary of a property list, in one table per record.
///
/// The record names its keys, in their order, in `static constexpr StoredKey storedKeys[]`, and the fields
/// that are never saved in `static constexpr std::string_view notStored[]`; every described field is in one
/// of the two. The form exists as a PropertyList (saveToDictionary, loadFromDictionary) and, for a million
/// records, as a stream (StoredRecordWriter, readStoredRecords). Both read and write the same files.
///
/// Reading is forgiving where a file may be old or damaged: a key that is missing or of a wrong kind leaves
/// the field absent, 0 or false; unknown keys are ignored. Any thread; records are the caller's.
namespace tarnwell {

template <class T>
concept StoredRecord = Record<T> && requires {
    T::storedKeys;
    T::notStored;
};

namespace stored {

template <StoredRecord T>
inline constexpr std::size_t keyCount = std::size(T::storedKeys);

template <class T>
inline constexpr std::size_t fieldCount = boost::mp11::mp_size<RecordFields<T>>::value;

/// The described field of that name; fieldCount<T> when there is none.
template <StoredRecord T>
constexpr std::size_t fieldIndex(std::string_view name) {
    std::size_t found = fieldCount<T>;
    std::size_t index = 0;
    boost::mp11::mp_for_each<RecordFields<T>>([&](auto field) {
        if (name == field.name) found = index;
        ++index;
    });
    return found;
}

template <StoredRecord T>
constexpr bool tableIsWhole() {
    std::array<int, fieldCount<T> + 1> named{};
    for (const StoredKey& key : T::storedKeys)
        ++named[fieldIndex<T>(key.name)];
    for (const std::string_view name : T::notStored)
        ++named[fieldIndex<T>(name)];
    return named.back() == 0 && std::all_of(named.begin(), named.end() - 1, [](int n) { return n == 1; });
}

/// The member pointer of the key at that place of the table.
template <StoredRecord T, std::size_t I>
inline constexpr auto member =
    boost::mp11::mp_at_c<RecordFields<T>, fieldIndex<T>(T::storedKeys[I].name)>::pointer;

/// Texts that were read a moment ago, by their reference: records of one file name the same share, user and
/// folder, and keep one copy of it in memory.
class RecentTexts {
  public:
    SharedString get(const BinaryPropertyListReader::Value& value) {
        if (value.kind() != BinaryPropertyListReader::Kind::kText) return {};
        auto& [reference, text] = slots_[value.reference() & (kSlots - 1)];
        if (reference != value.reference() || !text) {
            // A hostile file names one long text a million times; what repeats in a real one stays in the
            // slots.
            if (value.length() > budget_)
                throw MalformedPropertyList("property list expands beyond its size");
            budget_ -= value.length();
            const auto fresh = value.text(scratch_);
            if (!fresh) return {};
            text = SharedString(*fresh);
            reference = value.reference();
        }
        return text;
    }

    explicit RecentTexts(std::size_t fileSize)
        : slots_(kSlots), budget_(4 * std::uint64_t{fileSize} + 65536) {}

  private:
    static constexpr std::size_t kSlots = 16384;
    std::vector<std::pair<BinaryPropertyListReader::Reference, SharedString>> slots_;
    std::string scratch_;
    std::uint64_t budget_;  ///< units of text that may still be decoded
};

/// A stored value, from a tree or from a stream.
struct TreeSource {
    const PropertyList& value;
    [[nodiscard]] std::optional<std::int64_t> integer() const { return value.integer(); }
    [[nodiscard]] std::optional<bool> boolean() const { return value.boolean(); }
    [[nodiscard]] std::optional<Date> date() const {
        const auto* date = value.get<Date>();
        return date ? std::optional(*date) : std::nullopt;
    }
    [[nodiscard]] SharedString text() const {
        const auto* text = value.get<std::string>();
        return text ? SharedString(*text) : SharedString();
    }
};
struct StreamSource {
    const BinaryPropertyListReader::Value& value;
    RecentTexts& texts;
    [[nodiscard]] std::optional<std::int64_t> integer() const { return value.integer(); }
    [[nodiscard]] std::optional<bool> boolean() const { return value.boolean(); }
    [[nodiscard]] std::optional<Date> date() const { return value.date(); }
    [[nodiscard]] SharedString text() const { return texts.get(value); }
};

template <class Field, class Source>
std::optional<Field> contentOf(const Source& source) {
    if constexpr (std::is_same_v<Field, bool>) {
        return source.boolean();
    } else if constexpr (std::is_same_v<Field, Date>) {
        return source.date();
    } else {
        static_assert(std::is_same_v<Field, std::int32_t> || std::is_same_v<Field, std::int64_t>);
        const auto number = source.integer();
        if (!number || *number < std::numeric_limits<Field>::min() ||
            *number > std::numeric_limits<Field>::max()) {
            return std::nullopt;
        }
        return static_cast<Field>(*number);
    }
}

template <StoredRecord T, std::size_t I, class Source>
void assign(T& record, const Source& source) {
    auto& field = record.*member<T, I>;
    using Field = std::remove_reference_t<decltype(field)>;
    if constexpr (std::is_same_v<Field, SharedString>) {
        field = source.text();
    } else if constexpr (mapping::isOptional<Field>) {
        field = contentOf<typename Field::value_type>(source);
    } else if (const auto content = contentOf<Field>(source)) {
        field = *content;
    }
}

/// Calls `emit(key's index, value)` for each key that the record has: bool, std::int64_t, Date or
/// std::string_view.
template <StoredRecord T, class Emit>
void forEachValue(const T& record, Emit&& emit) {
    const auto plain = [&](std::size_t index, const auto& value) {
        using Field = std::remove_cvref_t<decltype(value)>;
        if constexpr (std::is_same_v<Field, std::int32_t>)
            emit(index, std::int64_t{value});
        else
            emit(index, value);
    };
    const auto one = [&]<std::size_t I>(std::integral_constant<std::size_t, I>) {
        const auto& field = record.*member<T, I>;
        using Field = std::remove_cvref_t<decltype(field)>;
        if constexpr (std::is_same_v<Field, SharedString>) {
            // An absent name stays absent even where the key is due: an empty text would pass for an
            // identity.
            if (field) emit(I, field.view());
        } else if constexpr (mapping::isOptional<Field>) {
            if (field)
                plain(I, *field);
            else if constexpr (T::storedKeys[I].when == Stored::kAlways)
                plain(I, typename Field::value_type{});
        } else {
            plain(I, field);
        }
    };
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        (one(std::integral_constant<std::size_t, I>{}), ...);
    }
    (std::make_index_sequence<keyCount<T>>{});
}

template <StoredRecord T, class Source>
using Assigner = void (*)(T&, const Source&);

template <StoredRecord T, class Source>
inline constexpr auto assigners = []<std::size_t... I>(std::index_sequence<I...>) {
    return std::array<Assigner<T, Source>, sizeof...(I)>{&assign<T, I, Source>...};
}
(std::make_index_sequence<keyCount<T>>{});

template <StoredRecord T>
std::optional<std::size_t> keyIndex(std::string_view name) {
    for (std::size_t i = 0; i < keyCount<T>; ++i) {
        if (T::storedKeys[i].name == name) return i;
    }
    return std::nullopt;
}

}  // namespace stored

template <StoredRecord T>
PropertyList::Dictionary saveToDictionary(const T& record) {
    static_assert(stored::tableIsWhole<T>(), "storedKeys and notStored name every field once");
    PropertyList::Dictionary dictionary;
    stored::forEachValue(record, [&](std::size_t index, const auto& value) {
        dictionary.append(std::string(T::storedKeys[index].name), PropertyList(value));
    });
    return dictionary;
}

/// Sets the fields whose keys the dictionary has; call it on a fresh record.
template <StoredRecord T>
void loadFromDictionary(T& record, const PropertyList::Dictionary& dictionary) {
    static_assert(stored::tableIsWhole<T>(), "storedKeys and notStored name every field once");
    for (const auto& [key, value] : dictionary.entries()) {
        if (const auto index = stored::keyIndex<T>(key)) {
            stored::assigners<T, stored::TreeSource>[*index](record, stored::TreeSource{value});
        }
    }
}

/// Streams {"arrayKey": [record, ...]} as a binary property list. One thread.
template <StoredRecord T>
class StoredRecordWriter {
    static_assert(stored::tableIsWhole<T>(), "storedKeys and notStored name every field once");

  public:
    /// `maxRecords`: no more than that will be added.
    StoredRecordWriter(BinaryPropertyListWriter::Sink sink, std::string_view arrayKey,
                       std::uint64_t maxRecords)
        : writer_(std::move(sink), (maxRecords + 1) * (stored::keyCount<T> + 1) + 4), arrayKey_(arrayKey) {
        for (std::size_t i = 0; i < keys_.size(); ++i)
            keys_[i] = writer_.text(T::storedKeys[i].name);
        records_.reserve(maxRecords);
    }

    void add(const T& record) {
        std::size_t count = 0;
        stored::forEachValue(record, [&](std::size_t index, const auto& value) {
            recordKeys_[count] = keys_[index];
            recordValues_[count++] = write(value);
        });
        records_.push_back(writer_.dictionary({recordKeys_.data(), count}, {recordValues_.data(), count}));
    }

    /// 0, or the errno value of the first failed write.
    [[nodiscard]] int finish() {
        const Reference key = writer_.text(arrayKey_);
        const Reference array = writer_.array(records_);
        return writer_.finish(writer_.dictionary({&key, 1}, {&array, 1}));
    }

  private:
    using Reference = BinaryPropertyListWriter::Reference;

    Reference write(bool value) { return writer_.boolean(value); }
    Reference write(std::int64_t value) { return writer_.integer(value); }
    Reference write(Date value) { return writer_.date(value); }
    Reference write(std::string_view value) { return writer_.text(value); }

    BinaryPropertyListWriter writer_;
    std::string arrayKey_;
    std::array<Reference, stored::keyCount<T>> keys_{};
    std::array<Reference, stored::keyCount<T>> recordKeys_{};
    std::array<Reference, stored::keyCount<T>> recordValues_{};
    std::vector<Reference> records_;
};

/// What reading a file of records came to.
struct StoredRecordCount {
    std::uint64_t records = 0;
    std::uint64_t damaged = 0;  ///< dictionaries that could not be read; the others were
    std::string error;          ///< the first damage, or why nothing could be read
};

/// More keys than this make a dictionary damaged: no record has them, and a hostile file could repeat them
/// for ever.
inline constexpr std::uint64_t kMaxStoredKeys = 256;
/// A longer key is no field's.
inline constexpr std::uint64_t kMaxStoredKey = 64;

/// Reads {"arrayKey": [record, ...]}, a binary property list that lies in `bytes`, and calls
/// `each(std::shared_ptr<T>, const BinaryPropertyListReader::Value& dictionary)` for each dictionary of the
/// array; the dictionary serves for keys that the record does not have. Elements that are none are skipped.
/// Nothing is thrown but by `each`. False when the file as a whole cannot be read; one damaged record costs
/// only itself.
template <StoredRecord T, class Each>
bool readStoredRecords(std::string_view bytes, std::string_view arrayKey, Each&& each,
                       StoredRecordCount& count) {
    static_assert(stored::tableIsWhole<T>(), "storedKeys and notStored name every field once");
    using Reader = BinaryPropertyListReader;
    std::optional<Reader> reader;
    std::optional<Reader::Value> array;
    try {
        reader.emplace(bytes);
        array = reader->top().find(arrayKey);
        if (!array || array->kind() != Reader::Kind::kArray)
            throw MalformedPropertyList("no list of records");
    } catch (const MalformedPropertyList& malformed) {
        count.error = malformed.what();
        return false;
    }

    // The keys of all records are the same few objects: what each one means is remembered by its reference.
    struct Key {
        Reader::Reference reference = std::numeric_limits<Reader::Reference>::max();
        std::optional<std::size_t> index;
    };
    std::array<Key, 64> keys{};
    std::string scratch;
    stored::RecentTexts texts(bytes.size());
    const auto keyAt = [&](Reader::Reference reference) {
        Key& key = keys[reference % keys.size()];
        if (key.reference != reference) {
            const Reader::Value value = reader->value(reference);
            const auto name = value.length() <= kMaxStoredKey ? value.text(scratch) : std::nullopt;
            key = {reference, name ? stored::keyIndex<T>(*name) : std::nullopt};
        }
        return key.index;
    };

    for (std::uint64_t i = 0; i < array->count(); ++i) {
        std::shared_ptr<T> record;
        Reader::Value dictionary;
        try {
            dictionary = reader->value(array->element(i));
            if (dictionary.kind() != Reader::Kind::kDictionary) continue;
            if (dictionary.count() > kMaxStoredKeys) throw MalformedPropertyList("record with too many keys");
            record = std::make_shared<T>();
            for (std::uint64_t k = 0; k < dictionary.count(); ++k) {
                const auto index = keyAt(dictionary.key(k));
                if (!index) continue;
                const Reader::Value value = reader->value(dictionary.element(k));
                stored::assigners<T, stored::StreamSource>[*index](*record,
                                                                   stored::StreamSource{value, texts});
            }
        } catch (const MalformedPropertyList& malformed) {
            if (count.damaged++ == 0) count.error = malformed.what();
            continue;
        }
        ++count.records;
        each(std::move(record), std::as_const(dictionary));
    }
    return true;
}

}  // namespace tarnwell
