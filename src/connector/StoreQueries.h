#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "connector/Endpoints.h"
#include "store/ManagedShare.h"

namespace tarnwell {

class TWMetadataStorage;

/// What a request needs of a stored share. The caller holds the store's lock.
[[nodiscard]] ShareAddress shareAddress(const ManagedShare& share);
/// None when the share is not stored. Locks the store.
[[nodiscard]] std::optional<ShareAddress> shareAddress(const TWMetadataStorage& store,
                                                       std::string_view shareId);

/// A text from the wire as a log line may carry it: at most about 2 KB of it.
[[nodiscard]] std::string forLog(std::string_view text);
/// "(null)" for no error, as a reply with a bad status alone has none.
[[nodiscard]] std::string_view errorText(const std::string& error);

}  // namespace tarnwell
