#pragma once

#include <boost/describe.hpp>
#include <boost/json.hpp>
#include <boost/mp11.hpp>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "util/Date.h"
#include "util/SharedString.h"
#include "util/TWUtils.h"

/// Records and their JSON form, from one field list per record.
///
/// A record is a struct with public fields named as on the wire, described with BOOST_DESCRIBE_STRUCT. The
/// field's type says the rest: a plain type is required, an optional one (std::optional, SharedString,
/// std::shared_ptr, std::vector) may be absent or null. A record that has fields beside its JSON names them
/// in `static constexpr std::string_view notInJson[]`. Unknown keys are ignored.
///
/// A malformed text gives no record: a required key that is missing, a wrong type or a number out of range is
/// an error that carries its path, "ManagedShares[3].Status: expected an integer". Any thread.
namespace tarnwell {

template <class T>
concept Record = boost::describe::has_describe_members<T>::value;

template <Record T>
using RecordFields =
    boost::describe::describe_members<T, boost::describe::mod_public | boost::describe::mod_inherited>;

namespace mapping {

/// Thrown inside the mapping only; parseRecord turns it into its error text.
struct Malformed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

template <class T>
inline constexpr bool isVector = false;
template <class T>
inline constexpr bool isVector<std::vector<T>> = true;
template <class T>
inline constexpr bool isShared = false;
template <class T>
inline constexpr bool isShared<std::shared_ptr<T>> = true;
template <class T>
inline constexpr bool isOptional = false;
template <class T>
inline constexpr bool isOptional<std::optional<T>> = true;

template <class T>
inline constexpr bool mayBeAbsent =
    isVector<T> || isShared<T> || isOptional<T> || std::is_same_v<T, SharedString>;

template <Record T>
constexpr bool inJson(std::string_view name) {
    if constexpr (requires { T::notInJson; }) {
        for (std::string_view other : T::notInJson) {
            if (other == name) return false;
        }
    }
    return true;
}

template <class T>
void assign(T& out, const boost::json::value& value);

template <Record T>
void assignRecord(T& out, const boost::json::value& value) {
    const auto* object = value.if_object();
    if (!object) throw Malformed(": expected an object");
    boost::mp11::mp_for_each<RecordFields<T>>([&](auto field) {
        if constexpr (inJson<T>(field.name)) {
            using Field = std::remove_reference_t<decltype(out.*field.pointer)>;
            const boost::json::value* member = object->if_contains(field.name);
            if (!member || (member->is_null() && mayBeAbsent<Field>)) {
                if constexpr (!mayBeAbsent<Field>)
                    throw Malformed(std::string(".") + field.name + ": missing");
                return;
            }
            try {
                assign(out.*field.pointer, *member);
            } catch (const Malformed& error) {
                throw Malformed(std::string(".") + field.name + error.what());
            }
        }
    });
}

template <class T>
void assignInteger(T& out, const boost::json::value& value) {
    if (const auto* number = value.if_int64()) {
        if (*number < std::numeric_limits<T>::min() || *number > std::numeric_limits<T>::max()) {
            throw Malformed(": number out of range");
        }
        out = static_cast<T>(*number);
    } else if (value.is_uint64()) {
        throw Malformed(": number out of range");
    } else if (const auto* real = value.if_double(); real && std::nearbyint(*real) == *real) {
        // A service may write 5 as 5.0. The bounds are exact powers of two, so the comparison is.
        if (!(*real >= static_cast<double>(std::numeric_limits<T>::min()) &&
              *real < -static_cast<double>(std::numeric_limits<T>::min()))) {
            throw Malformed(": number out of range");
        }
        out = static_cast<T>(*real);
    } else {
        throw Malformed(": expected an integer");
    }
}

template <class T>
void assign(T& out, const boost::json::value& value) {
    if constexpr (std::is_same_v<T, bool>) {
        const auto* flag = value.if_bool();
        if (!flag) throw Malformed(": expected true or false");
        out = *flag;
    } else if constexpr (std::is_same_v<T, std::int32_t> || std::is_same_v<T, std::int64_t>) {
        assignInteger(out, value);
    } else if constexpr (std::is_same_v<T, double>) {
        if (value.is_double())
            out = value.get_double();
        else if (value.is_int64())
            out = static_cast<double>(value.get_int64());
        else if (value.is_uint64())
            out = static_cast<double>(value.get_uint64());
        else
            throw Malformed(": expected a number");
    } else if constexpr (std::is_same_v<T, Date>) {
        const auto* text = value.if_string();
        if (!text) throw Malformed(": expected a date string");
        out = NSDateFromNSString({text->data(), text->size()});
    } else if constexpr (std::is_same_v<T, SharedString> || std::is_same_v<T, std::string>) {
        const auto* text = value.if_string();
        if (!text) throw Malformed(": expected a string");
        out = T(std::string_view(text->data(), text->size()));
    } else if constexpr (isOptional<T>) {
        assign(out.emplace(), value);
    } else if constexpr (isShared<T>) {
        out = std::make_shared<typename T::element_type>();
        assign(*out, value);
    } else if constexpr (isVector<T>) {
        const auto* list = value.if_array();
        if (!list) throw Malformed(": expected a list");
        out.clear();
        out.reserve(list->size());
        std::size_t index = 0;
        try {
            for (const auto& element : *list) {
                assign(out.emplace_back(), element);
                ++index;
            }
        } catch (const Malformed& error) {
            throw Malformed("[" + std::to_string(index) + "]" + error.what());
        }
    } else {
        static_assert(Record<T>, "a field's type is a record or one of the kinds above");
        assignRecord(out, value);
    }
}

template <class T>
boost::json::value jsonValue(const T& value, const boost::json::storage_ptr& memory);

template <Record T>
boost::json::object jsonObject(const T& record, const boost::json::storage_ptr& memory) {
    boost::json::object object(memory);
    boost::mp11::mp_for_each<RecordFields<T>>([&](auto field) {
        if constexpr (inJson<T>(field.name)) {
            const auto& value = record.*field.pointer;
            using Field = std::remove_cvref_t<decltype(value)>;
            if constexpr (isOptional<Field> || isShared<Field> || std::is_same_v<Field, SharedString>) {
                if (!value) return;
            }
            object.emplace(field.name, jsonValue(value, memory));
        }
    });
    return object;
}

template <class T>
boost::json::value jsonValue(const T& value, const boost::json::storage_ptr& memory) {
    if constexpr (std::is_same_v<T, Date>) {
        return boost::json::value(JSONObjectFromNSDate(value), memory);
    } else if constexpr (std::is_same_v<T, SharedString>) {
        return boost::json::value(boost::json::string_view(value.view().data(), value.view().size()), memory);
    } else if constexpr (isOptional<T> || isShared<T>) {
        return value ? jsonValue(*value, memory) : boost::json::value(memory);
    } else if constexpr (isVector<T>) {
        boost::json::array list(memory);
        list.reserve(value.size());
        for (const auto& element : value)
            list.push_back(jsonValue(element, memory));
        return list;
    } else if constexpr (Record<T>) {
        return jsonObject(value, memory);
    } else {
        return boost::json::value(value, memory);
    }
}

}  // namespace mapping

/// The record in `value`, or none with `error` set.
template <Record T>
std::shared_ptr<T> parseRecord(const boost::json::value& value, std::string& error) {
    try {
        auto record = std::make_shared<T>();
        mapping::assignRecord(*record, value);
        return record;
    } catch (const mapping::Malformed& malformed) {
        error = malformed.what();
        if (error.starts_with('.')) error.erase(0, 1);
        return nullptr;
    }
}

/// The record in the JSON text, or none with `error` set. Nesting is limited to 32 levels.
template <Record T>
std::shared_ptr<T> parseRecord(std::string_view text, std::string& error) {
    boost::json::monotonic_resource memory;
    boost::json::error_code code;
    const auto value = boost::json::parse({text.data(), text.size()}, code, &memory);
    if (code) {
        error = code.message();
        return nullptr;
    }
    return parseRecord<T>(value, error);
}

/// Absent fields are left out; a list is always written.
template <Record T>
boost::json::object toJson(const T& record, const boost::json::storage_ptr& memory = {}) {
    return mapping::jsonObject(record, memory);
}

template <Record T>
std::string toJsonText(const T& record) {
    boost::json::monotonic_resource memory;
    return boost::json::serialize(mapping::jsonObject(record, &memory));
}

/// Every described field is equal; fields outside the JSON form count too. Shared records compare by value.
template <class T>
bool recordsEqual(const T& a, const T& b) {
    if constexpr (mapping::isVector<T>) {
        if (a.size() != b.size()) return false;
        for (std::size_t i = 0; i < a.size(); ++i) {
            if (!recordsEqual(a[i], b[i])) return false;
        }
        return true;
    } else if constexpr (mapping::isShared<T> || mapping::isOptional<T>) {
        return (!a && !b) || (a && b && recordsEqual(*a, *b));
    } else if constexpr (Record<T>) {
        bool equal = true;
        boost::mp11::mp_for_each<RecordFields<T>>(
            [&](auto field) { equal = equal && recordsEqual(a.*field.pointer, b.*field.pointer); });
        return equal;
    } else {
        return a == b;
    }
}

}  // namespace tarnwell
