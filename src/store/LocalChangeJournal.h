#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "store/Enums.h"
#include "store/JournalExchange.h"
#include "store/JournalMerge.h"
#include "store/JournalQueue.h"
#include "store/JournalTexts.h"
#include "store/LocalJournal.h"
#include "store/UploadCopies.h"

namespace tarnwell {

class TWMetadataStorage;

/// The local change journal: what the user changed on the drive and the service does not know yet, in order.
///
/// The face of the journal: takes the store's lock and composes the queue with its indexes (JournalQueue),
/// the rules (JournalMerge), the exchange of items (JournalExchange) and the upload copies (UploadCopies).
///
/// Threads: any; every operation takes the store's lock itself, except those marked REQUIRES LOCK. Entries
/// and records are guarded by it. A change of a record and its entry are one step: the caller holds the lock
/// around both.
class LocalChangeJournal final : public JournalTexts, private JournalMerge::Host, private UploadCopies::Host {
  public:
    LocalChangeJournal(TWMetadataStorage& store, Executor& background);

    /// A new entry for a change that was just made, not yet in the journal. For a Create or Update of a file
    /// with contents it begins the upload copy and gives the record the copy's name.
    [[nodiscard]] LocalJournalPtr createJournalForFile(const TWVirtualFilePtr& file,
                                                       LocalJournalType eventType);
    /// Merges the entry with what is queued, or queues it; an entry for a name that takes no part in
    /// synchronisation is dropped. An entry that was sent without success is queued again so.
    ///
    /// A file that was just created may take over the identity of one that was deleted or moved away at its
    /// place. Returns the record that the change belongs to now, null when it is not stored: after a Create
    /// use this one.
    TWVirtualFilePtr addChangeToJournal(const LocalJournalPtr& entry);

    /// The journal, in order. REQUIRES LOCK as long as it is used; entries that are removed or added
    /// meanwhile invalidate iterators to them only.
    [[nodiscard]] JournalQueue::View journalItems() const { return queue_.items(); }
    [[nodiscard]] std::vector<LocalJournalPtr> journalEntriesForShare(std::string_view shareId) const;
    /// The share's first entry behind the place `after` in the order (`queue.order`; 0: behind none); null at
    /// the end.
    [[nodiscard]] LocalJournalPtr nextOfShare(std::string_view shareId, std::uint64_t after) const;
    /// Whether that very entry stands in the journal.
    [[nodiscard]] bool isQueued(const LocalJournal& entry) const;
    /// What the service has not got yet, Catch-up markers left out: changes, and bytes of the files among
    /// them.
    struct Backlog {
        std::int64_t changes = 0;
        std::int64_t bytes = 0;
    };
    [[nodiscard]] Backlog backlog() const;
    /// That very entry.
    void deleteJournalEntry(const LocalJournalPtr& entry);
    void setTransmitting(const LocalJournalPtr& entry, bool transmitting);
    /// The caller changed fields of an upload in progress, or when the entry is due: keeps the change. The
    /// entry alone is kept, whatever the length of the journal.
    void entryChanged(const LocalJournalPtr& entry);
    /// The service has the contents of the entry. What they replaced may still come once more, with a page
    /// that was asked for before.
    void contentsSent(const LocalJournal& entry);
    /// How many contents were sent by now, for replacedSince().
    [[nodiscard]] std::uint64_t sendings() const;
    /// Whether contents that were sent since then replaced those of `file`. REQUIRES LOCK.
    [[nodiscard]] bool replacedSince(std::uint64_t sendings, const TWVirtualFile& file) const;
    /// The service told of the item as it is since. REQUIRES LOCK.
    void forgetSent(std::string_view internalName);
    /// The service has something else of the item at `tick`, which cannot be taken while entries wait: the
    /// share is asked again from there when they are sent. REQUIRES LOCK.
    void putOff(std::string_view internalName, std::int32_t tick);
    /// The user changed times or permissions: what still waits to bring the item takes them along. By
    /// themselves they are nothing to send.
    void attributesChanged(const TWVirtualFile& file);
    /// Deletes the upload copy and its side file.
    void removeUploadFileData(const TWVirtualFile& file);
    /// Journals what is still marked as changed by the user; at the end of the program.
    void checkForFileModifications();
    /// Makes sure of one Catch-up entry for the file's share.
    void addCatchupForFileUpdate(const TWVirtualFilePtr& file);

    /// Whether an entry brings contents of the file that the service has not got yet.
    [[nodiscard]] bool hasPendingContents(std::string_view internalName) const;
    /// Whether contents of that name wait to be sent. REQUIRES LOCK.
    [[nodiscard]] bool isPending(const SharedString& uploadName) const;
    /// Whether the item's Create is still in the journal: nothing that names the item can be sent before.
    [[nodiscard]] bool hasPendingCreate(std::string_view internalName) const;
    /// That Create; null when there is none.
    [[nodiscard]] LocalJournalPtr pendingCreate(std::string_view internalName) const;
    /// Whether any entry is about the item.
    [[nodiscard]] bool refersTo(std::string_view internalName) const;
    /// Whether an entry of that type is about the item. REQUIRES LOCK.
    [[nodiscard]] bool hasPending(std::string_view internalName, LocalJournalType type) const;
    /// Whether the item has a name or parent here that the service has not heard of. REQUIRES LOCK.
    [[nodiscard]] bool hasPendingPlace(std::string_view internalName) const;

    /// An item got another identity. REQUIRES LOCK.
    void changeInternalName(std::string_view fromName, const SharedString& toName);
    /// Removes what waits for a share, entries in transmission excepted. REQUIRES LOCK.
    void deleteShareEntries(std::string_view shareId);
    void clear();

    /// Screenshots are sent at once when this is on.
    void setUploadsScreenshots(bool on) { uploadsScreenshots_ = on; }

    [[nodiscard]] std::function<std::vector<JournalText>()> journalSnapshot() const override;
    [[nodiscard]] std::optional<std::string> journalText(std::uint64_t order) const override;
    std::size_t loadJournals(const std::vector<JournalText>& texts) override;
    /// Journals what was being written, with the sizes that the files have, and makes upload copies again
    /// that are not there. REQUIRES LOCK.
    void recover(const std::vector<TWVirtualFilePtr>& changed) override;

  private:
    void releaseUpload(const LocalJournal& entry) override;
    bool takeOver(const LocalJournalPtr& created, const LocalJournalPtr& earlier) override;
    bool tradePlaces(const LocalJournalPtr& created, const LocalJournalPtr& earlier) override;
    [[nodiscard]] std::string parentOf(std::string_view internalName) const override;

    [[nodiscard]] LocalJournalPtr entryWithUpload(const std::string& uploadName) const override;
    void copyEnded(const std::string& uploadName, std::int64_t size) override;

    void copyForUpload(const LocalJournalPtr& entry, TWVirtualFile& record);
    void stampContents(const SharedString& internalName, const SharedString& uploadName, bool sent) const;
    [[nodiscard]] bool isScreenshot(const TWVirtualFile& file) const;
    void adopt(const LocalJournalPtr& entry, std::uint64_t order);
    void journalModified(const TWVirtualFilePtr& file);
    bool takeSizeFromCache(TWVirtualFile& file) const;
    void recoverUpload(const LocalJournalPtr& entry);

    TWMetadataStorage& store_;
    std::atomic<bool> uploadsScreenshots_{false};
    // Guarded by the store's lock.
    JournalQueue queue_;
    JournalMerge merge_;
    JournalExchange exchange_;
    /// The record that an exchange put in the place of what was created.
    TWVirtualFilePtr takenOver_;
    /// What was sent lately, by item; of this run only.
    struct Sent {
        std::uint64_t when = 0;
        std::vector<SharedString> replaced;
    };
    std::unordered_map<std::string, Sent> sent_;
    std::uint64_t sendings_ = 0;
    // Last: its end waits for copies that use the others.
    UploadCopies copies_;
};

}  // namespace tarnwell
