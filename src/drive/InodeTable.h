#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>

#include "util/SharedString.h"

namespace tarnwell {

/// What a node of the mounted volume stands for. Identity is the record's, not its path: a node that the
/// kernel knows stays the same item through renames and moves.
///
/// Names have no letter case here, and the kernel does not know that: were "a" and "A" one node to it, it
/// would take the rename of one to the other for a rename of a file to itself, and not ask. So the item has a
/// second node for all spellings that are not its own.
struct NodeIdentity {
    enum class Kind : std::uint8_t {
        root,
        item,      ///< a file or folder (`id` is the InternalName) or a share (ShareId)
        alias,     ///< an item under a name of other letter case than its own
        fuseLock,  ///< "/.fuselock"
        refresh,   ///< a ".twrefresh"; `id` is the folder in which it was asked for, absent at the root
        gone,      ///< an item that was replaced: the node of the item that replaced it has its id, `id`
    };
    Kind kind = Kind::root;
    SharedString id;

    friend bool operator==(const NodeIdentity&, const NodeIdentity&) = default;
    [[nodiscard]] bool isItem() const { return kind == Kind::item || kind == Kind::alias; }
    [[nodiscard]] bool isSpecial() const { return kind == Kind::fuseLock || kind == Kind::refresh; }
    /// A number for the item that stays the same over mounts.
    [[nodiscard]] std::uint64_t stableNumber() const;
};

/// The nodes that the kernel holds, with how often it was told each of them. A node lives until the kernel
/// forgot it as often; its number is never given out again in the same mount.
///
/// What programs see as the inode is another number: the stable one of the identity under which the node was
/// entered. It stays while the node lives, also when the item gets another identity, and no two living nodes
/// show the same: programs take files of one number for one file.
///
/// Threads: any; own lock, innermost.
class InodeTable {
  public:
    static constexpr std::uint64_t kRoot = 1;

    /// The node of `identity`, made if need be, told to the kernel once more. Never forgotten for the root.
    std::uint64_t enter(const NodeIdentity& identity);
    [[nodiscard]] std::optional<NodeIdentity> find(std::uint64_t node) const;
    /// The inode that programs see; of an item that the kernel holds no node of, its stable one.
    [[nodiscard]] std::uint64_t shownNumber(std::uint64_t node) const;
    [[nodiscard]] std::uint64_t shownNumber(const NodeIdentity& identity) const;
    /// As DriveObserver says. A node that was `to` before stands for an item that is gone.
    void identityChanged(const SharedString& from, const SharedString& to);
    void identitiesExchanged(const SharedString& a, const SharedString& b);
    /// The kernel forgets `count` of the times. More than it was told are ignored.
    void forget(std::uint64_t node, std::uint64_t count);
    /// Nodes beside the root.
    [[nodiscard]] std::size_t size() const;

  private:
    struct Node {
        NodeIdentity identity;
        std::uint64_t told = 0;
        std::uint64_t shown = 0;
    };
    using Kind = NodeIdentity::Kind;
    std::uint64_t takeOut(const NodeIdentity& identity);
    void putIn(std::uint64_t node, const NodeIdentity& identity);

    struct IdentityHash {
        std::size_t operator()(const NodeIdentity& identity) const { return identity.stableNumber(); }
    };

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    boost::unordered_flat_map<std::uint64_t, Node> nodes_;
    boost::unordered_flat_map<NodeIdentity, std::uint64_t, IdentityHash> numbers_;
    boost::unordered_flat_set<std::uint64_t> shown_;
    std::uint64_t next_ = kRoot + 1;
};

}  // namespace tarnwell
