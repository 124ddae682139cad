#include "disk/FileContents.h"

#include <algorithm>
#include <limits>
#include <set>

namespace tarnwell::testing {

namespace {

/// Of a page that is written all the time some versions in the middle are left out.
constexpr std::size_t kMostVersions = 24;
constexpr std::int64_t kSector = 512;

template <class Versions>
void thinOut(Versions& versions) {
    if (versions.size() < kMostVersions) return;
    const auto middle = versions.begin() + static_cast<std::ptrdiff_t>(versions.size() / 2);
    if (!middle->isTruncation) versions.erase(middle);
}

/// The versions that can be on the disk without a later truncation, or more of the metadata journal.
template <class Versions>
std::size_t countPossible(const Versions& versions, std::uint64_t position) {
    const auto first = std::find_if(versions.begin(), versions.end(), [position](const auto& v) {
        return v.isTruncation || v.position > position;
    });
    return static_cast<std::size_t>(first - versions.begin());
}

/// Removes all versions up to the last that is due to a truncation up to this number; false: there is none.
template <class Versions, class Value>
bool takeTruncated(Versions& versions, std::uint64_t number, Value& value) {
    const auto last = std::find_if(versions.rbegin(), versions.rend(), [number](const auto& v) {
        return v.isTruncation && v.truncation <= number;
    });
    if (last == versions.rend()) return false;
    value = last->value;
    versions.erase(versions.begin(), last.base());
    return true;
}

}  // namespace

void FileContents::store(Pages& pages, std::int64_t index, const Page& page) {
    if (page) {
        pages[index] = page;
    } else {
        pages.erase(index);
    }
}

void FileContents::setPage(std::int64_t index, Page page, bool byTruncation) {
    store(now_, index, page);
    auto& versions = versions_[index];
    thinOut(versions);
    versions.push_back({std::move(page), truncations_, byTruncation, position_});
}

void FileContents::setSize(std::int64_t size, bool byTruncation) {
    size_ = size;
    thinOut(sizes_);
    sizes_.push_back({size, truncations_, byTruncation, position_});
}

void FileContents::patch(std::int64_t index, std::int64_t from, std::string_view bytes, bool byTruncation) {
    const auto old = now_.find(index);
    auto page = std::make_shared<std::string>(old == now_.end() ? std::string(kPage, '\0') : *old->second);
    page->replace(static_cast<std::size_t>(from), bytes.size(), bytes);
    setPage(index, std::move(page), byTruncation);
}

std::string FileContents::read(std::int64_t offset, std::size_t count) const {
    if (offset >= size_) return {};
    const auto end = std::min(size_, offset + static_cast<std::int64_t>(count));
    std::string bytes(static_cast<std::size_t>(end - offset), '\0');
    for (auto at = now_.lower_bound(offset / kPage); at != now_.end() && at->first * kPage < end; ++at) {
        const auto begin = std::max(offset, at->first * kPage);
        const auto length = std::min(end, (at->first + 1) * kPage) - begin;
        bytes.replace(static_cast<std::size_t>(begin - offset), static_cast<std::size_t>(length), *at->second,
                      static_cast<std::size_t>(begin - at->first * kPage), static_cast<std::size_t>(length));
    }
    return bytes;
}

std::int64_t FileContents::newPages(std::int64_t offset, std::int64_t count) const {
    std::int64_t missing = 0;
    for (auto index = offset / kPage; index * kPage < offset + count; ++index)
        missing += !now_.contains(index);
    return missing;
}

void FileContents::write(std::int64_t offset, std::string_view bytes) {
    while (!bytes.empty()) {
        const auto from = offset % kPage;
        const auto piece = bytes.substr(0, static_cast<std::size_t>(kPage - from));
        patch(offset / kPage, from, piece, false);
        offset += std::ssize(piece);
        bytes.remove_prefix(piece.size());
        if (offset > size_) setSize(offset, false);
    }
}

void FileContents::allocate(std::int64_t offset, std::int64_t count, bool keepSize) {
    static const Page zeros = std::make_shared<std::string>(kPage, '\0');
    for (auto index = offset / kPage; index * kPage < offset + count; ++index) {
        if (!now_.contains(index)) setPage(index, zeros);
    }
    if (!keepSize && offset + count > size_) setSize(offset + count, false);
}

void FileContents::punch(std::int64_t offset, std::int64_t count) {
    const auto end = offset + count;
    const std::string zeros(kPage, '\0');
    for (auto at = now_.lower_bound(offset / kPage); at != now_.end() && at->first * kPage < end;) {
        const auto index = (at++)->first;
        const auto from = std::max(offset - index * kPage, std::int64_t{0});
        const auto to = std::min(end - index * kPage, kPage);
        if (to - from == kPage) {
            setPage(index, nullptr);
        } else {
            patch(index, from, std::string_view(zeros).substr(0, static_cast<std::size_t>(to - from)), false);
        }
    }
}

std::uint64_t FileContents::truncate(std::int64_t size) {
    ++truncations_;
    if (size < size_) {
        const auto inside = size % kPage;
        std::set<std::int64_t> cutOff;
        for (const auto* pages : {&now_, &durable_}) {
            for (auto at = pages->lower_bound((size + kPage - 1) / kPage); at != pages->end(); ++at)
                cutOff.insert(at->first);
        }
        for (auto at = versions_.lower_bound((size + kPage - 1) / kPage); at != versions_.end(); ++at)
            cutOff.insert(at->first);
        for (const auto index : cutOff)
            setPage(index, nullptr, true);
        if (inside != 0 && now_.contains(size / kPage))
            patch(size / kPage, inside, std::string(static_cast<std::size_t>(kPage - inside), '\0'), true);
    }
    setSize(size, true);
    return truncations_;
}

void FileContents::sync() {
    for (const auto& [index, versions] : versions_)
        store(durable_, index, versions.back().value);
    durableSize_ = size_;
    versions_.clear();
    sizes_.clear();
}

void FileContents::loseUnsynced() {
    commitTruncation(truncations_);
    durableSize_ = size_;
    versions_.clear();
    sizes_.clear();
}

void FileContents::commitTruncation(std::uint64_t number) {
    for (auto at = versions_.begin(); at != versions_.end();) {
        Page page;
        if (takeTruncated(at->second, number, page)) store(durable_, at->first, page);
        at = at->second.empty() ? versions_.erase(at) : std::next(at);
    }
    takeTruncated(sizes_, number, durableSize_);
}

bool FileContents::hasGrown() const {
    return !sizes_.empty() || std::any_of(versions_.begin(), versions_.end(), [this](const auto& page) {
        return !durable_.contains(page.first);
    });
}

void FileContents::cut(Random& random, Keep keep, std::uint64_t position) {
    const auto choose = [&](std::size_t most) {
        if (keep == Keep::kNothing) return std::size_t{0};
        return keep == Keep::kAll ? most : static_cast<std::size_t>(random() % (most + 1));
    };
    for (const auto& [index, versions] : versions_) {
        const bool isInPlace = durable_.contains(index);
        const auto chosen =
            choose(countPossible(versions, isInPlace ? std::numeric_limits<std::uint64_t>::max() : position));
        if (chosen == 0) continue;
        auto page = versions[chosen - 1].value;
        // Sectors are what a disk writes whole.
        if (keep == Keep::kAny && page && random() % 8 == 0) {
            const auto old = durable_.find(index);
            const auto before = chosen > 1              ? versions[chosen - 2].value
                                : old == durable_.end() ? nullptr
                                                        : old->second;
            const auto torn = static_cast<std::size_t>(random() % (kPage / kSector) * kSector);
            auto mixed = std::make_shared<std::string>(before ? *before : std::string(kPage, '\0'));
            mixed->replace(0, torn, *page, 0, torn);
            page = std::move(mixed);
        }
        store(durable_, index, page);
    }
    if (const auto chosen = choose(countPossible(sizes_, position)); chosen > 0)
        durableSize_ = sizes_[chosen - 1].value;
    // What lies beyond the size is no part of the file, should it grow again.
    std::erase_if(durable_, [this](const auto& page) { return page.first * kPage >= durableSize_; });
}

}  // namespace tarnwell::testing
