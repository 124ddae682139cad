#include "store/DirectoryItems.h"

#include <utility>

namespace tarnwell {

namespace {

/// Below this many slots gaps are not worth a pass.
constexpr std::size_t kFewSlots = 32;

}  // namespace

bool DirectoryItems::holds(const TWVirtualFile& file) const {
    const std::size_t index = file.listPosition.index;
    return index < items_.size() && items_[index].get() == &file;
}

void DirectoryItems::add(TWVirtualFilePtr file) {
    file->listPosition.index = static_cast<std::uint32_t>(items_.size());
    items_.push_back(std::move(file));
    ++size_;
}

bool DirectoryItems::remove(const TWVirtualFile& file) {
    if (!holds(file)) return false;
    const std::size_t index = file.listPosition.index;
    // May be the last owner: `file` is not used any more.
    items_[index].reset();
    --size_;
    if (size_ == 0) {
        items_ = {};
    } else if (items_.size() > kFewSlots && items_.size() > 2 * size_) {
        closeGaps();
    }
    return true;
}

bool DirectoryItems::replace(const TWVirtualFile& old, TWVirtualFilePtr file) {
    if (!holds(old)) return false;
    const std::uint32_t index = old.listPosition.index;
    file->listPosition.index = index;
    items_[index] = std::move(file);
    return true;
}

std::vector<TWVirtualFilePtr> DirectoryItems::snapshot() const {
    std::vector<TWVirtualFilePtr> files;
    files.reserve(size_);
    forEach([&](const TWVirtualFilePtr& file) { files.push_back(file); });
    return files;
}

void DirectoryItems::closeGaps() {
    std::vector<TWVirtualFilePtr> closed;
    closed.reserve(size_ + size_ / 2);
    for (auto& file : items_) {
        if (!file) continue;
        file->listPosition.index = static_cast<std::uint32_t>(closed.size());
        closed.push_back(std::move(file));
    }
    items_ = std::move(closed);
}

}  // namespace tarnwell
