#pragma once

#include <string>

#include "store/JournalQueue.h"
#include "store/TWVirtualFile.h"

namespace tarnwell {

/// The rules by which a new change joins the journal, so that a burst of changes becomes as few operations of
/// the service as possible. Plain code; guarded by the store's lock.
///
/// The service performs the entries of a share in journal order. Whatever is merged, each of them must be
/// valid when its turn comes: the item was created before it is renamed or updated, its new parent is there,
/// its new place is free, and what stood in a deleted folder was moved out before. A merge that would break
/// this is not made; the changes then stand one after the other, which is always valid.
///
/// Two rules go by place instead of item. A file that is created where one was deleted becomes a new version
/// of that one, and a file that is created where one was moved away trades places with it: the way many
/// editors save keeps the identity, the links and the history of the document.
class JournalMerge {
  public:
    /// What the rules need done outside the journal.
    class Host {
      public:
        virtual ~Host() = default;
        /// The upload copy of this entry is needed no more.
        virtual void releaseUpload(const LocalJournal& entry) = 0;
        /// `created` becomes a new version of the file that `earlier` deletes: `earlier` turns into the
        /// Update. False, with nothing changed, when that cannot be done. Both are out of the indexes.
        virtual bool takeOver(const LocalJournalPtr& created, const LocalJournalPtr& earlier) = 0;
        /// The file that `earlier` moves away stays, with the contents of `created`; the other way round for
        /// what was created. False, with nothing changed, when that cannot be done. Both are out of the
        /// indexes.
        virtual bool tradePlaces(const LocalJournalPtr& created, const LocalJournalPtr& earlier) = 0;
        /// Id of the folder that an item lies in now; empty at the root of a share and for none.
        [[nodiscard]] virtual std::string parentOf(std::string_view internalName) const = 0;
    };

    JournalMerge(JournalQueue& queue, Host& host) : queue_(queue), host_(host) {}

    /// Enters `entry`, or what it adds to an earlier entry. False when nothing needs to be saved for it.
    bool add(const LocalJournalPtr& entry);
    /// For entries that did not come through add(): finds out which of them made room for later ones.
    void noteTakenPlaces();

  private:
    bool addToItem(const LocalJournalPtr& entry);
    void addAgain(const LocalJournalPtr& older);
    void takeNewerContents(LocalJournal& older, const LocalJournalPtr& newer);
    void mergeDelete(const LocalJournalPtr& entry);
    [[nodiscard]] bool staysWithout(const LocalJournal& earlier) const;
    void replaceByDelete(const LocalJournal& older, const LocalJournalPtr& deletion);
    static void inherit(LocalJournal& entry, const LocalJournal& earlier);
    void mergeContents(const LocalJournalPtr& earlier, const LocalJournal& entry);
    void mergeRename(const LocalJournalPtr& earlier, const LocalJournalPtr& entry);
    [[nodiscard]] bool mustFollow(const LocalJournal& earlier, const LocalJournal& entry) const;
    void append(const LocalJournalPtr& entry);
    void arrive(const LocalJournalPtr& entry);
    [[nodiscard]] bool exchange(const LocalJournalPtr& created, const LocalJournalPtr& earlier);
    [[nodiscard]] LocalJournalPtr latestOf(const LocalJournal& entry) const;

    JournalQueue& queue_;
    Host& host_;
};

}  // namespace tarnwell
