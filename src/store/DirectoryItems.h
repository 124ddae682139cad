#pragma once

#include <cstddef>
#include <vector>

#include "store/TWVirtualFile.h"

namespace tarnwell {

/// The children of one folder or share root, in insertion order. Adding and removing take constant time
/// (amortised), also in a folder of 100,000: each record remembers its place, a removed one leaves a gap,
/// gaps are closed when they outnumber the children.
///
/// INVARIANT: a record stands in at most one list, once. Guarded by the store's lock.
class DirectoryItems {
  public:
    /// REQUIRES: `file` stands in no list.
    void add(TWVirtualFilePtr file);
    /// Removes the very object. False when it does not stand here.
    bool remove(const TWVirtualFile& file);
    /// Puts `file`, which stands in no list, in the place of `old`. False when `old` does not stand here.
    bool replace(const TWVirtualFile& old, TWVirtualFilePtr file);
    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] bool empty() const { return size_ == 0; }
    /// The children as they are now, in order.
    [[nodiscard]] std::vector<TWVirtualFilePtr> snapshot() const;

    /// Calls `visit(const TWVirtualFilePtr&)` for each child in order. `visit` must not add to or remove from
    /// this list.
    template <class Visit>
    void forEach(Visit visit) const {
        for (const auto& file : items_) {
            if (file) visit(file);
        }
    }

  private:
    [[nodiscard]] bool holds(const TWVirtualFile& file) const;
    void closeGaps();

    std::vector<TWVirtualFilePtr> items_;  // null: a gap
    std::size_t size_ = 0;
};

}  // namespace tarnwell
