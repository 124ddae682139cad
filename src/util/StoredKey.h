#pragma once

#include <string_view>

namespace tarnwell {

/// Whether a field's key is in every stored record or only where the field has a value.
enum class Stored { kAlways, kWhenPresent };

/// One line of a record's table of stored keys; the key is the field's name. See StoredForm.h.
struct StoredKey {
    std::string_view name;
    Stored when;
};

}  // namespace tarnwell
