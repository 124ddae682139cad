#pragma once

#include <string>
#include <string_view>

#include "util/PropertyList.h"

namespace tarnwell {

/// The XML form. Both throw MalformedPropertyList.
PropertyList parseXmlPropertyList(std::string_view bytes);
std::string xmlPropertyList(const PropertyList& value);

}  // namespace tarnwell
