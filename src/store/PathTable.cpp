#include "store/PathTable.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

#include "util/TWUtils.h"

namespace tarnwell {

namespace {

constexpr std::uint64_t kEachByte = 0x0101010101010101U;
constexpr std::uint64_t kHighBits = 0x80 * kEachByte;

std::uint64_t wordAt(std::string_view text, std::size_t at, std::size_t size) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + at, size);
    return word;
}

/// Eight ASCII characters in lower case. REQUIRES: no byte has its high bit set.
std::uint64_t lowered(std::uint64_t word) {
    const std::uint64_t fromA = word + (0x80 - 'A') * kEachByte;
    const std::uint64_t aboveZ = word + (0x7F - 'Z') * kEachByte;
    return word | ((fromA & ~aboveZ & kHighBits) >> 2U);
}

/// Whether `key`, already folded, is the path key of `path`. ASCII, the common case, is compared eight at a
/// time.
bool isKeyOf(std::string_view key, std::string_view path) {
    bool ascii = true;
    bool equal = key.size() == path.size();
    for (std::size_t at = 0; at < path.size() && ascii; at += sizeof(std::uint64_t)) {
        const std::size_t size = std::min(sizeof(std::uint64_t), path.size() - at);
        const std::uint64_t word = wordAt(path, at, size);
        ascii = (word & kHighBits) == 0;
        equal = equal && lowered(word) == wordAt(key, at, size);
    }
    if (ascii) return equal;
    static thread_local std::string folded;
    keyFromPath(path, folded);
    return folded == key;
}

}  // namespace

bool PathTable::Equal::operator()(const Entry& a, const Entry& b) const {
    if (a.hash != b.hash) return false;
    return isKeyOf(keyFromPath(a.path.view()), b.path.view());
}

bool PathTable::Equal::operator()(const Probe& probe, const Entry& entry) const {
    if (probe.hash != entry.hash) return false;
    __builtin_prefetch(entry.file.get());
    return isKeyOf(probe.key, entry.path.view());
}

PathTable::Probe PathTable::probe(std::string_view path) {
    static thread_local std::string key;
    keyFromPath(path, key);
    return {std::hash<std::string_view>{}(key), key};
}

void PathTable::add(const TWVirtualFilePtr& file) {
    const Probe wanted = probe(file->FullPath.view());
    const auto [entry, isNew] = entries_.insert(Entry{wanted.hash, file, file->FullPath});
    if (isNew) return;
    waiting_[wanted.hash].insert(entry->file);
    entry->file = file;
    entry->path = file->FullPath;
}

void PathTable::remove(const TWVirtualFile& file) {
    const Probe wanted = probe(file.FullPath.view());
    const auto entry = entries_.find(wanted);
    if (entry == entries_.end()) return;
    if (entry->file.get() == &file) {
        if (auto next = takeWaiting(wanted)) {
            entry->path = next->FullPath;
            entry->file = std::move(next);
        } else {
            entries_.erase(entry);
        }
        return;
    }
    const auto waiting = waiting_.find(wanted.hash);
    if (waiting == waiting_.end()) return;
    // Finds by id without owning: the alias is not kept.
    const auto it =
        waiting->second.find(TWVirtualFilePtr(TWVirtualFilePtr(), const_cast<TWVirtualFile*>(&file)));
    if (it == waiting->second.end() || it->get() != &file) return;
    waiting->second.erase(it);
    if (waiting->second.empty()) waiting_.erase(waiting);
}

TWVirtualFilePtr PathTable::find(std::string_view path) const {
    const auto entry = entries_.find(probe(path));
    return entry == entries_.end() ? nullptr : entry->file;
}

TWVirtualFilePtr PathTable::takeWaiting(const Probe& wanted) {
    if (waiting_.empty()) return nullptr;
    const auto waiting = waiting_.find(wanted.hash);
    if (waiting == waiting_.end()) return nullptr;
    auto& files = waiting->second;
    const auto it = std::find_if(files.begin(), files.end(), [&](const TWVirtualFilePtr& file) {
        return isKeyOf(wanted.key, file->FullPath.view());
    });
    if (it == files.end()) return nullptr;
    auto file = *it;
    files.erase(it);
    if (files.empty()) waiting_.erase(waiting);
    return file;
}

}  // namespace tarnwell
