#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>

#include "util/SharedString.h"

namespace tarnwell {

/// What a node of the mounted volume stands for. Identity is the record's, not its path: a node that the
/// kernel knows stays the same item through renames and moves.
struct NodeIdentity {
    enum class Kind : std::uint8_t {
        root,
        item,      ///< a file or folder (`id` is the InternalName) or a share (ShareId)
        fuseLock,  ///< "/.fuselock"
        refresh,   ///< a ".twrefresh"; `id` is the folder in which it was asked for, absent at the root
    };
    Kind kind = Kind::root;
    SharedString id;

    friend bool operator==(const NodeIdentity&, const NodeIdentity&) = default;
    [[nodiscard]] bool isSpecial() const { return kind == Kind::fuseLock || kind == Kind::refresh; }
    /// A number for the item that stays the same over mounts: what programs see as the inode.
    [[nodiscard]] std::uint64_t stableNumber() const;
};

/// The nodes that the kernel holds, with how often it was told each of them. A node lives until the kernel
/// forgot it as often; its number is never given out again in the same mount.
///
/// Threads: any; own lock, innermost.
class InodeTable {
  public:
    static constexpr std::uint64_t kRoot = 1;

    /// The node of `identity`, made if need be, told to the kernel once more. Never forgotten for the root.
    std::uint64_t enter(const NodeIdentity& identity);
    [[nodiscard]] std::optional<NodeIdentity> find(std::uint64_t node) const;
    /// The kernel forgets `count` of the times. More than it was told are ignored.
    void forget(std::uint64_t node, std::uint64_t count);
    /// Nodes beside the root.
    [[nodiscard]] std::size_t size() const;

  private:
    struct Node {
        NodeIdentity identity;
        std::uint64_t told = 0;
    };
    struct IdentityHash {
        std::size_t operator()(const NodeIdentity& identity) const { return identity.stableNumber(); }
    };

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    boost::unordered_flat_map<std::uint64_t, Node> nodes_;
    boost::unordered_flat_map<NodeIdentity, std::uint64_t, IdentityHash> numbers_;
    std::uint64_t next_ = kRoot + 1;
};

}  // namespace tarnwell
