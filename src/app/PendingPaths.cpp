#include "app/PendingPaths.h"

#include <algorithm>

#include "util/TWUtils.h"

namespace tarnwell {

PendingPaths::PendingPaths(const std::vector<std::string>& paths) {
    keys_.reserve(paths.size());
    for (const auto& path : paths)
        keys_.push_back(keyFromPath(path));
    std::sort(keys_.begin(), keys_.end());
}

bool PendingPaths::anyBeginsWith(std::string_view path) const {
    const std::string key = keyFromPath(path);
    const auto first = std::lower_bound(keys_.begin(), keys_.end(), key);
    return first != keys_.end() && first->starts_with(key);
}

}  // namespace tarnwell
