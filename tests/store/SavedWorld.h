#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "store/JournalTexts.h"
#include "store/StoreFiles.h"
#include "store/StorePersistence.h"
#include "store/StoreWorld.h"
#include "util/PropertyList.h"
#include "util/RecordMapping.h"

namespace tarnwell::testing {

/// A journal of texts, each of which counts as an entry unless it is "bad".
class TextJournal final : public JournalTexts {
  public:
    [[nodiscard]] std::function<std::vector<JournalText>()> journalSnapshot() const override {
        std::vector<JournalText> entries;
        for (const auto& text : texts)
            entries.push_back({entries.size() + 1, text});
        return [entries] { return entries; };
    }
    [[nodiscard]] std::optional<std::string> journalText(std::uint64_t) const override { return {}; }
    std::size_t loadJournals(const std::vector<JournalText>& loaded) override {
        texts.clear();
        for (const auto& entry : loaded) {
            if (entry.text != "bad") texts.push_back(entry.text);
        }
        return texts.size();
    }
    std::vector<std::string> texts;
};

/// A store with its files, and the same folder as the next run of the program finds it.
class SavedWorld : public StoreWorld {
  public:
    SavedWorld() {
        store.persistence().setJournal(&journal);
        // The share that stands here already is in the change log. What is saved is the question here.
        for (const auto& entry : std::filesystem::directory_iterator(layout.rootCachePath())) {
            if (entry.path().filename().string().starts_with("changes-"))
                std::filesystem::remove(entry.path());
        }
    }

    /// The next run.
    struct Run {
        explicit Run(SavedWorld& world)
            : store({world.layout, world.clock, world.background, [] { return std::string("someone"); },
                     [] {}}) {
            store.persistence().setJournal(&journal);
            store.persistence().load();
        }
        [[nodiscard]] std::string path(std::string_view id) const {
            const auto item = store.fileWithId(id);
            return item ? item->FullPath.str() : "-";
        }
        [[nodiscard]] int tick(std::string_view shareId) const {
            const auto share = store.shareWithId(shareId);
            return share ? share->LastApplyedJournalTick : -100;
        }
        TextJournal journal;
        TWMetadataStorage store;
    };

    bool save() { return store.persistence().save(); }

    [[nodiscard]] std::string inTemporary(std::string_view name) const {
        return "data/Tarnwell/" + std::string(name);
    }
    void writeFile(std::string_view name, std::string_view bytes) const {
        temporary.write(inTemporary(name), bytes);
    }
    [[nodiscard]] std::string readFile(std::string_view name) const {
        return temporary.read(inTemporary(name));
    }
    [[nodiscard]] bool has(std::string_view name) const { return temporary.exists(inTemporary(name)); }
    /// Whatever stands in the file's way makes its next save fail.
    void blockFile(std::string_view name) const { temporary.write(inTemporary(name) + ".new/block", ""); }
    void unblockFile(std::string_view name) const {
        std::filesystem::remove_all(temporary.path(inTemporary(name) + ".new"));
    }

    /// Store files by name, each with a number that a new file has not got. "a b" for what changed since
    /// `then`.
    using Files = std::map<std::string, std::pair<ino_t, std::int64_t>>;
    [[nodiscard]] Files files() const {
        Files found;
        for (const auto& name : storeFileNames(layout.rootCachePath(), true)) {
            struct stat status {};
            if (::stat((layout.rootCachePath() + "/" + name).c_str(), &status) == 0)
                found[name] = {status.st_ino, status.st_mtim.tv_sec * 1'000'000'000 + status.st_mtim.tv_nsec};
        }
        return found;
    }
    [[nodiscard]] std::string changedSince(const Files& then) const {
        std::string names;
        for (const auto& [name, number] : files()) {
            const auto old = then.find(name);
            if (old == then.end() || old->second != number) names += (names.empty() ? "" : " ") + name;
        }
        return names;
    }

    TextJournal journal;
};

}  // namespace tarnwell::testing
