#include "service/UploadSpace.h"

namespace tarnwell::service {

namespace {
constexpr std::chrono::minutes kPatience{10};
}

bool UploadSpace::promise(const std::string& digest, std::int64_t bytes) {
    const std::int64_t room = room_();
    const std::lock_guard lock(lock_);
    while (!promises_.empty() && Clock::now() - promises_.front().used > kPatience)
        drop(std::string(promises_.front().digest));
    const auto known = byDigest_.find(digest);
    const std::int64_t others = total_ - (known == byDigest_.end() ? 0 : known->second->bytes);
    if (bytes > room - others) return false;
    drop(digest);
    add(digest, bytes);
    return true;
}

void UploadSpace::left(const std::string& digest, std::int64_t bytes) {
    const std::lock_guard lock(lock_);
    if (!byDigest_.contains(digest)) return;
    drop(digest);
    add(digest, bytes);
}

void UploadSpace::end(const std::string& digest) {
    const std::lock_guard lock(lock_);
    drop(digest);
}

void UploadSpace::drop(const std::string& digest) {
    const auto known = byDigest_.find(digest);
    if (known == byDigest_.end()) return;
    total_ -= known->second->bytes;
    promises_.erase(known->second);
    byDigest_.erase(known);
}

void UploadSpace::add(const std::string& digest, std::int64_t bytes) {
    promises_.push_back({digest, bytes, Clock::now()});
    byDigest_[digest] = std::prev(promises_.end());
    total_ += bytes;
}

}  // namespace tarnwell::service
