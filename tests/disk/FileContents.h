#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell::testing {

/// The bytes of one file behind a disk cache: what programs see now, what is durable, and the versions of
/// each page in between. A power cut leaves of each page any one of its versions since the last sync,
/// whatever became of the other pages; a truncation is part of the metadata, and the versions that follow it
/// exist on the disk only when it does. Growth and new blocks are metadata as well: they become durable in
/// the order of the metadata journal, so each version notes its position there.
///
/// Not thread-safe. Copies are cheap: pages are shared.
class FileContents {
  public:
    static constexpr std::int64_t kPage = 4096;
    using Random = std::mt19937_64;
    /// How much of what was not synced a cut keeps of one file.
    enum class Keep { kNothing, kAll, kAny };

    [[nodiscard]] std::int64_t size() const { return size_; }
    [[nodiscard]] std::int64_t durableSize() const { return durableSize_; }
    [[nodiscard]] std::string read(std::int64_t offset, std::size_t count) const;
    /// How many pages a write or an allocation of this range would add.
    [[nodiscard]] std::int64_t newPages(std::int64_t offset, std::int64_t count) const;
    [[nodiscard]] std::int64_t pages() const { return static_cast<std::int64_t>(now_.size()); }

    /// How far the metadata journal has come; holds for all changes until the next call.
    void setPosition(std::uint64_t position) { position_ = position; }
    void write(std::int64_t offset, std::string_view bytes);
    void allocate(std::int64_t offset, std::int64_t count, bool keepSize);
    /// Zeros; whole pages are given back.
    void punch(std::int64_t offset, std::int64_t count);
    /// The number of this truncation, for commitTruncation().
    std::uint64_t truncate(std::int64_t size);

    /// Everything is durable.
    void sync();
    /// A sync that failed: the cache takes the pages for clean, the disk has the old ones, and a later sync
    /// does not write them.
    void loseUnsynced();
    /// The truncation and those before it are durable.
    void commitTruncation(std::uint64_t number);
    /// Size or blocks are not durable yet.
    [[nodiscard]] bool hasGrown() const;
    /// A cut: what is durable becomes one of the possible states when the metadata journal was kept up to
    /// `position`.
    void cut(Random& random, Keep keep, std::uint64_t position);

    /// Each durable page below the durable size, by offset, cut at the size.
    template <class Each>
    void eachDurablePage(Each each) const {
        eachPage(durable_, durableSize_, each);
    }
    template <class Each>
    void eachPageNow(Each each) const {
        eachPage(now_, size_, each);
    }

  private:
    using Page = std::shared_ptr<const std::string>;  ///< null: a hole
    using Pages = std::map<std::int64_t, Page>;
    template <class T>
    struct Version {
        T value;
        std::uint64_t truncation = 0;  ///< the last one before it
        bool isTruncation = false;     ///< was made by that one
        std::uint64_t position = 0;
    };

    template <class Each>
    static void eachPage(const Pages& pages, std::int64_t size, Each each) {
        for (const auto& [index, page] : pages) {
            if (page && index * kPage < size) {
                const auto count = std::min<std::int64_t>(kPage, size - index * kPage);
                each(index * kPage, std::string_view(*page).substr(0, static_cast<std::size_t>(count)));
            }
        }
    }
    void setPage(std::int64_t index, Page page, bool byTruncation = false);
    void setSize(std::int64_t size, bool byTruncation);
    void patch(std::int64_t index, std::int64_t from, std::string_view bytes, bool byTruncation);
    static void store(Pages& pages, std::int64_t index, const Page& page);

    std::int64_t size_ = 0, durableSize_ = 0;
    Pages now_, durable_;
    // Since the last sync, oldest first.
    std::map<std::int64_t, std::vector<Version<Page>>> versions_;
    std::vector<Version<std::int64_t>> sizes_;
    std::uint64_t truncations_ = 0, position_ = 0;
};

}  // namespace tarnwell::testing
