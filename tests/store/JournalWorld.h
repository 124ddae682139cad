#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "store/LocalChangeJournal.h"
#include "store/StoreWorld.h"

namespace tarnwell::testing {

/// A file's bytes; "(none)" when it cannot be read.
std::string bytesOf(const std::string& path);

/// The tree of the service, which performs journal entries and refuses what it could not do.
class RemoteTree {
  public:
    struct Item {
        std::string parent, name, contents;
        bool isFile = false;
    };
    /// Why the entry cannot be performed; empty when it was. `isHere`: whether the client still shows an
    /// item.
    std::string perform(const LocalJournal& entry, const std::string& contents,
                        const std::function<bool(const std::string& id)>& isHere);
    [[nodiscard]] std::string path(const std::string& id) const;

    std::map<std::string, Item> items;
    /// Ids of items whose change was sent in vain: the client cannot know whether the service has them.
    std::set<std::string> doubtful;

  private:
    [[nodiscard]] std::string whyNotAt(const std::string& id, const TWVirtualFile& file) const;
};

/// A store that is changed as the drive changes it, and the service that performs its journal.
///
/// Items that the service knows from the start have the ids that the test gives them; what is created
/// locally is called "new1", "new2" in the order of creation.
class JournalWorld : public StoreWorld {
  public:
    [[nodiscard]] LocalChangeJournal& journal() { return store.journal(); }

    // Names are drive paths without "/Share/".
    /// An item that the service knows, its contents cached. `contents` null: a folder.
    void known(const std::string& id, const std::string& path, const char* contents);
    void create(const std::string& path) { make(path, false); }
    void mkdir(const std::string& path) { make(path, true); }
    void write(const std::string& path, const std::string& contents);
    /// create() and write().
    void save(const std::string& path, const std::string& contents);
    bool rename(const std::string& from, const std::string& to);
    void remove(const std::string& path);
    /// The steps of one line: "save a X; mv a b; rm b; mkdir d".
    void run(const std::string& steps);

    [[nodiscard]] TWVirtualFilePtr item(const std::string& path) const;
    /// Journal entries in order, "[Create] new1 a=X; [Rename] fb a<b": type, item, place, contents of the
    /// upload copy, original place.
    [[nodiscard]] std::string shown();
    /// Paths with ids and cached contents, in order: "a fa=X; d/ new1".
    [[nodiscard]] std::string tree();
    /// The same as the service sees it.
    [[nodiscard]] std::string remoteTree() const;

    enum class Outcome { kDone, kFailed, kAnswerLost };
    /// The first entry is on its way; nothing happens when there is none.
    void beginSending();
    [[nodiscard]] bool isSending() const { return sent_ != nullptr; }
    /// Why the service cannot perform what was sent; empty when it could.
    std::string endSending(Outcome outcome);
    /// The service performs all entries.
    std::string performAll();

  private:
    void make(const std::string& path, bool isFolder);
    [[nodiscard]] std::string nameOf(const SharedString& id);
    [[nodiscard]] std::string contentsOf(const LocalJournal& entry) const;
    std::string perform(const LocalJournal& entry);

    RemoteTree remote_;
    std::map<std::string, std::string> names_;
    LocalJournalPtr sent_;
};

}  // namespace tarnwell::testing
