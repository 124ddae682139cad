#include "store/ShareFiles.h"

#include <algorithm>

namespace tarnwell {

ShareFiles::Share& ShareFiles::shareOf(const TWVirtualFile& file) {
    if (!last_ || lastId_ != file.ShareId) {
        last_ = &shares_.try_emplace(file.ShareId).first->second;
        lastId_ = file.ShareId;
    }
    last_->generation = ++changes_;
    return *last_;
}

const ShareFiles::Share* ShareFiles::find(std::string_view shareId) const {
    const auto it = shares_.find(shareId);
    return it == shares_.end() ? nullptr : &it->second;
}

void ShareFiles::add(TWVirtualFile& file) {
    auto& files = shareOf(file).files;
    file.listPosition.inShare = static_cast<std::uint32_t>(files.size());
    files.push_back(&file);
}

void ShareFiles::remove(const TWVirtualFile& file) {
    auto& files = shareOf(file).files;
    const auto at = file.listPosition.inShare;
    // It may come back at once, behind the walk: what is saved must have it in one form or the other.
    if (walk_ && at < walk_->at_ && walk_->shareId_ == file.ShareId.view()) walk_->removed_.push_back(file);
    files[at] = files.back();
    files[at]->listPosition.inShare = at;
    files.pop_back();
    if (files.empty()) files = {};
}

void ShareFiles::replace(const TWVirtualFile& old, TWVirtualFile& file) {
    file.listPosition.inShare = old.listPosition.inShare;
    shareOf(file).files[file.listPosition.inShare] = &file;
}

void ShareFiles::touch(std::string_view shareId) {
    if (const auto it = shares_.find(shareId); it != shares_.end()) it->second.generation = ++changes_;
}

std::uint64_t ShareFiles::generation(std::string_view shareId) const {
    const auto* share = find(shareId);
    return share ? share->generation : 0;
}

std::size_t ShareFiles::count(std::string_view shareId) const {
    const auto* share = find(shareId);
    return share ? share->files.size() : 0;
}

std::vector<TWVirtualFile*> ShareFiles::all(std::string_view shareId) const {
    const auto* share = find(shareId);
    return share ? share->files : std::vector<TWVirtualFile*>();
}

/// From the end to the beginning: a removal fills its gap with the last record, so what comes before the
/// walk's place at any time was there and is not copied yet, or is copied twice; what is added stands behind.
void ShareFiles::copyNext(Walk& walk, std::size_t most, std::vector<TWVirtualFile>& out) const {
    out.insert(out.end(), walk.removed_.begin(), walk.removed_.end());
    walk.removed_.clear();
    const auto* share = find(walk.shareId_);
    walk.at_ = share ? std::min(walk.at_, share->files.size()) : 0;
    for (; walk.at_ > 0 && most > 0; --most)
        out.push_back(*share->files[--walk.at_]);
}

}  // namespace tarnwell
