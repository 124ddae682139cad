#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "store/Enums.h"
#include "store/LocalJournal.h"

namespace tarnwell {

/// The entries of the journal in their order, and the indexes that find the ones a new change concerns:
/// adding to a queue of 20,000 costs what adding to an empty one does. Plain code; guarded by the store's
/// lock.
///
/// A place is a parent id and a name without regard to case and Unicode form: what may exist once in the
/// service's tree. Unlike a path it stays the same when a folder above is renamed. Catch-up markers stand in
/// the order and nowhere else.
///
/// INVARIANT: what an entry is found by (`File`'s ids and name, `LocalJournalType`, the original place) does
/// not change while it stands here; see Edit.
class JournalQueue {
  public:
    using Items = std::map<std::uint64_t, LocalJournalPtr>;

    /// The number of a first entry, and one for entries that have to go before all others.
    static constexpr std::uint64_t kFirst = std::uint64_t{1} << 32U;
    static constexpr std::uint64_t kBeforeFirst = std::uint64_t{1} << 31U;

    /// Iterates over the entries in journal order.
    class View {
      public:
        class Iterator {
          public:
            using iterator_category = std::forward_iterator_tag;
            using value_type = LocalJournalPtr;
            using difference_type = std::ptrdiff_t;
            using pointer = const LocalJournalPtr*;
            using reference = const LocalJournalPtr&;
            Iterator() = default;
            explicit Iterator(Items::const_iterator at) : at_(at) {}
            reference operator*() const { return at_->second; }
            pointer operator->() const { return &at_->second; }
            Iterator& operator++() {
                ++at_;
                return *this;
            }
            Iterator operator++(int) { return Iterator(at_++); }
            bool operator==(const Iterator&) const = default;

          private:
            Items::const_iterator at_;
        };
        explicit View(const Items& items) : items_(&items) {}
        [[nodiscard]] Iterator begin() const { return Iterator(items_->begin()); }
        [[nodiscard]] Iterator end() const { return Iterator(items_->end()); }
        [[nodiscard]] std::size_t size() const { return items_->size(); }
        [[nodiscard]] bool empty() const { return items_->empty(); }

      private:
        const Items* items_;
    };

    /// Hears of the number of every entry that came, went or was changed.
    using Noted = std::function<void(std::uint64_t order)>;

    explicit JournalQueue(Noted noted) : noted_(std::move(noted)) {}

    /// Takes an entry out of the indexes while it is changed; its place in the order stays.
    class Edit {
      public:
        Edit(JournalQueue& queue, LocalJournalPtr entry) : queue_(queue), entry_(std::move(entry)) {
            queue_.unindex(*entry_);
        }
        ~Edit() {
            queue_.index(entry_);
            queue_.noted_(entry_->queue.order);
        }
        Edit(const Edit&) = delete;
        Edit& operator=(const Edit&) = delete;

      private:
        JournalQueue& queue_;
        const LocalJournalPtr entry_;
    };

    // REQUIRES of append and putBack: `File` is there, the entry does not stand here.
    void append(const LocalJournalPtr& entry);
    /// At the place in the order that it had, or at the end when that is taken.
    void putBack(const LocalJournalPtr& entry);
    /// That very object. False when it does not stand here.
    bool remove(const LocalJournal& entry);
    void moveToEnd(const LocalJournalPtr& entry);
    void clear();
    /// An entry that stands here was changed in fields by which it is not found.
    void noteChanged(const LocalJournal& entry) const {
        if (contains(entry)) noted_(entry.queue.order);
    }
    /// Null when there is none of that number.
    [[nodiscard]] LocalJournalPtr at(std::uint64_t order) const;
    [[nodiscard]] bool contains(const LocalJournal& entry) const;
    [[nodiscard]] bool isLast(const LocalJournal& entry) const {
        return !items_.empty() && items_.rbegin()->second.get() == &entry;
    }

    [[nodiscard]] View items() const { return View(items_); }
    [[nodiscard]] std::vector<LocalJournalPtr> ofShare(std::string_view shareId) const;
    /// The share's first entry behind the place `after` in the order (0: behind none); null at the end.
    [[nodiscard]] LocalJournalPtr nextOfShare(std::string_view shareId, std::uint64_t after) const;
    /// Entries other than Catch-up markers, and the sizes of the files that they bring.
    [[nodiscard]] std::size_t changes() const { return items_.size() - markers_; }
    [[nodiscard]] std::int64_t bytes() const { return bytes_; }
    /// Entries of an item, in order.
    [[nodiscard]] const std::vector<LocalJournalPtr>& ofItem(std::string_view internalName) const;
    /// Entries that leave a place free for others, in order.
    [[nodiscard]] const std::vector<LocalJournalPtr>& leavers(const std::string& place) const;
    /// The Create or Update whose upload copy has this name; null when there is none.
    [[nodiscard]] LocalJournalPtr withUpload(std::string_view uploadName) const;
    /// Entries whose item lies directly in the folder after them.
    [[nodiscard]] std::size_t countBelow(std::string_view parentId) const;
    [[nodiscard]] bool hasCatchUp(std::string_view shareId) const;

    /// Where the item of an entry is after it.
    [[nodiscard]] static std::string placeAfter(const LocalJournal& entry);
    /// The places that an entry leaves free: where the service knows the item, and what a deleted one had
    /// here.
    [[nodiscard]] static std::vector<std::string> placesLeft(const LocalJournal& entry);

  private:
    using Entries = std::vector<LocalJournalPtr>;
    using Index = std::unordered_map<std::string, Entries>;

    void insert(const LocalJournalPtr& entry, std::uint64_t order);
    void index(const LocalJournalPtr& entry);
    void unindex(LocalJournal& entry);
    static void enter(Index& index, const std::string& key, const LocalJournalPtr& entry);
    static void leave(Index& index, const std::string& key, const LocalJournal& entry);

    Noted noted_;
    Items items_;
    std::unordered_map<std::string, Items> shares_;
    Index byItem_, byPlaceLeft_;
    std::unordered_map<std::string, LocalJournalPtr> byUpload_;
    std::unordered_map<std::string, std::size_t> below_;
    std::unordered_map<std::string, std::size_t> catchUps_;
    std::uint64_t lastOrder_ = kFirst - 1;
    std::size_t markers_ = 0;
    std::int64_t bytes_ = 0;
};

/// Whether the entry brings new contents, with an upload copy of its own.
inline bool bringsContents(const LocalJournal& entry) {
    return entry.LocalJournalType == kJournalCreate || entry.LocalJournalType == kJournalUpdate;
}

}  // namespace tarnwell
