#pragma once

#include <filesystem>
#include <ostream>

namespace tarnwell::service {

/// Puts a copy of the database in place of the present one, which is kept as "service.db.replaced-TIME".
///
/// Every item and share gets ticks beyond any that a device can have seen, so that all devices hear of the
/// restored state: a device asks for what is above the ticks that it knows, and does not take back an item
/// with a smaller one. Uploads under way begin anew. Contents that no item of the copy names are moved to
/// "contents/unclaimed": they are all that is left of what was stored after the copy was made.
///
/// No server and no import may run. Cut off at any moment it can be run again. Throws ServiceError; the
/// present database is in place then. `out` gets what was done.
void restoreDatabase(const std::filesystem::path& folder, const std::filesystem::path& copy,
                     std::ostream& out);

}  // namespace tarnwell::service
