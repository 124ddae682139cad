#include "app/RecentErrors.h"

namespace tarnwell {

namespace {

constexpr std::size_t kTextLimit = 300;

}  // namespace

void RecentErrors::add(std::string_view text) {
    while (text.ends_with('\n'))
        text.remove_suffix(1);
    std::string_view kept = text.substr(0, kTextLimit);
    // Never half a character at the cut.
    if (kept.size() < text.size()) {
        while (!kept.empty() && (static_cast<unsigned char>(text[kept.size()]) & 0xC0) == 0x80)
            kept.remove_suffix(1);
    }
    const std::lock_guard guard(mutex_);
    if (!texts_.empty() && texts_.back() == kept) return;
    texts_.emplace_back(kept);
    if (texts_.size() > kLimit) texts_.pop_front();
}

void RecentErrors::addLogLine(std::string_view line) {
    constexpr std::string_view kPrefixEnd = " : ";
    const auto prefix = line.find(kPrefixEnd);
    if (prefix == std::string_view::npos) return;
    const auto message = line.substr(prefix + kPrefixEnd.size());
    for (const std::string_view mark : {"Warning!", "Error!", "ERROR!", "Fatal"}) {
        if (message.starts_with(mark)) return add(message);
    }
}

std::vector<std::string> RecentErrors::list() const {
    const std::lock_guard guard(mutex_);
    return {texts_.begin(), texts_.end()};
}

}  // namespace tarnwell
