#include "drive/InodeTable.h"

namespace tarnwell {

std::uint64_t NodeIdentity::stableNumber() const {
    if (kind == Kind::root) return InodeTable::kRoot;
    std::uint64_t hash = 14695981039346656037u;  // FNV-1a
    const auto mix = [&hash](unsigned char byte) { hash = (hash ^ byte) * 1099511628211u; };
    for (const char character : id.view())
        mix(static_cast<unsigned char>(character));
    mix(static_cast<unsigned char>(kind));
    return hash > InodeTable::kRoot ? hash : hash + 2;
}

std::uint64_t InodeTable::enter(const NodeIdentity& identity) {
    if (identity.kind == NodeIdentity::Kind::root) return kRoot;
    std::lock_guard lock(mutex_);
    const auto [found, isNew] = numbers_.try_emplace(identity, next_);
    if (isNew) nodes_.try_emplace(next_++, Node{identity, 0});
    ++nodes_.at(found->second).told;
    return found->second;
}

std::optional<NodeIdentity> InodeTable::find(std::uint64_t node) const {
    if (node == kRoot) return NodeIdentity{};
    std::lock_guard lock(mutex_);
    const auto found = nodes_.find(node);
    if (found == nodes_.end()) return std::nullopt;
    return found->second.identity;
}

void InodeTable::forget(std::uint64_t node, std::uint64_t count) {
    std::lock_guard lock(mutex_);
    const auto found = nodes_.find(node);
    if (found == nodes_.end()) return;
    if (found->second.told > count) {
        found->second.told -= count;
        return;
    }
    numbers_.erase(found->second.identity);
    nodes_.erase(found);
}

std::size_t InodeTable::size() const {
    std::lock_guard lock(mutex_);
    return nodes_.size();
}

}  // namespace tarnwell
