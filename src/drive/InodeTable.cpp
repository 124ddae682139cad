#include "drive/InodeTable.h"

namespace tarnwell {
namespace {

/// Odd, so that multiplying by it runs through all numbers.
constexpr std::uint64_t kShuffle = 6364136223846793005u;

}  // namespace

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
    if (isNew) {
        std::uint64_t shown = identity.stableNumber();
        while (!shown_.insert(shown).second || shown <= kRoot)
            shown = shown * kShuffle + 1;
        nodes_.try_emplace(next_++, Node{identity, 0, shown});
    }
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

std::uint64_t InodeTable::shownNumber(std::uint64_t node) const {
    std::lock_guard lock(mutex_);
    const auto found = nodes_.find(node);
    return found == nodes_.end() ? kRoot : found->second.shown;
}

std::uint64_t InodeTable::shownNumber(const NodeIdentity& identity) const {
    {
        std::lock_guard lock(mutex_);
        const auto found = numbers_.find(identity);
        if (found != numbers_.end()) return nodes_.at(found->second).shown;
    }
    return identity.stableNumber();
}

/// The node that stands for `identity`, which it does no longer; 0: none.
std::uint64_t InodeTable::takeOut(const NodeIdentity& identity) {
    const auto found = numbers_.find(identity);
    if (found == numbers_.end()) return 0;
    const auto node = found->second;
    numbers_.erase(found);
    return node;
}

void InodeTable::putIn(std::uint64_t node, const NodeIdentity& identity) {
    if (node == 0) return;
    nodes_.at(node).identity = identity;
    if (identity.kind != Kind::gone) numbers_[identity] = node;
}

void InodeTable::identityChanged(const SharedString& from, const SharedString& to) {
    std::lock_guard lock(mutex_);
    for (const auto kind : {Kind::item, Kind::alias, Kind::refresh}) {
        putIn(takeOut({kind, to}), {Kind::gone, to});
        putIn(takeOut({kind, from}), {kind, to});
    }
}

void InodeTable::identitiesExchanged(const SharedString& a, const SharedString& b) {
    std::lock_guard lock(mutex_);
    for (const auto kind : {Kind::item, Kind::alias}) {
        const auto first = takeOut({kind, a});
        const auto second = takeOut({kind, b});
        putIn(first, {kind, b});
        putIn(second, {kind, a});
    }
}

void InodeTable::forget(std::uint64_t node, std::uint64_t count) {
    std::lock_guard lock(mutex_);
    const auto found = nodes_.find(node);
    if (found == nodes_.end()) return;
    if (found->second.told > count) {
        found->second.told -= count;
        return;
    }
    takeOut(found->second.identity);
    shown_.erase(found->second.shown);
    nodes_.erase(found);
}

std::size_t InodeTable::size() const {
    std::lock_guard lock(mutex_);
    return nodes_.size();
}

}  // namespace tarnwell
