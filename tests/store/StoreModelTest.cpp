#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "store/StoreWorld.h"
#include "support/LogCapture.h"
#include "util/TWUtils.h"

namespace tarnwell {
namespace {

using testing::LogCapture;
using testing::StoreWorld;

/// What a store would hold, worked out from nothing but parents and names.
struct Model {
    struct Item {
        std::string parent, name;
    };
    std::map<std::string, Item> items;

    [[nodiscard]] bool loops(const std::string& id) const {
        std::string at = items.at(id).parent;
        for (std::size_t steps = 0; steps <= items.size(); ++steps) {
            if (at == id) return true;
            const auto it = items.find(at);
            if (it == items.end()) return false;
            at = it->second.parent;
        }
        return false;
    }
    [[nodiscard]] std::string path(const std::string& id) const {
        const auto& item = items.at(id);
        if (item.parent == "s") return "/Share/" + item.name;
        if (!items.contains(item.parent) || loops(id)) return "/__orphaned_files__/" + item.name;
        return path(item.parent) + "/" + item.name;
    }
};

void expectSame(StoreWorld& world, const Model& model) {
    std::map<std::string, std::set<std::string>> byKey, children;
    for (const auto& [id, item] : model.items) {
        const std::string path = model.path(id);
        ASSERT_EQ(world.path(id), path) << id;
        ASSERT_EQ(world.store.fuseFilePath(*world.store.fileWithId(id)), path) << id;
        byKey[keyFromPath(path)].insert(id);
        children[item.parent].insert(id);
    }
    ASSERT_EQ(world.store.fileCount(), model.items.size());
    for (const auto& [key, ids] : byKey) {
        ASSERT_TRUE(ids.contains(world.at(key))) << key;
    }
    for (const auto& [parent, ids] : children) {
        std::set<std::string> listed;
        const auto list = world.store.directoryItemsWithParent(parent)->snapshot();
        for (const auto& file : list)
            listed.insert(file->InternalName.str());
        ASSERT_EQ(listed, ids) << parent;
        ASSERT_EQ(list.size(), ids.size()) << parent;
    }
}

/// Pages of random additions, moves, renames and deletions; few ids and names, so that loops, orphans, early
/// children and equal names are common.
TEST(StoreModelTest, agreesWithANaiveModel) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pick = [&](int below) { return static_cast<int>(random() % static_cast<unsigned>(below)); };
    for (int round = 0; round < 15; ++round) {
        const LogCapture log;
        StoreWorld world;
        Model model;
        const int ids = 3 + pick(30);
        std::set<std::string> shownPaths;
        for (int page = 0; page < 25; ++page) {
            std::vector<TWVirtualFilePtr> records;
            for (int n = 1 + pick(12); n > 0; --n) {
                const std::string id = "i" + std::to_string(pick(ids));
                const std::string parent = pick(4) == 0 ? "s" : "i" + std::to_string(pick(ids));
                const std::string name = std::string(1, "aAbB"[pick(4)]) + (pick(3) ? "" : "\xC3\xA9");
                auto record = StoreWorld::folder(id, parent, name);
                record->Deleted = pick(4) == 0;
                if (record->Deleted) {
                    model.items.erase(id);
                } else {
                    model.items[id] = {parent, name};
                }
                records.push_back(record);
            }
            world.merge(records);
            ASSERT_NO_FATAL_FAILURE(expectSame(world, model)) << "round " << round << " page " << page;
            for (const auto& [id, item] : model.items)
                shownPaths.insert(keyFromPath(model.path(id)));
        }
        // Nothing is found where nothing is any more.
        std::set<std::string> paths;
        for (const auto& [id, item] : model.items)
            paths.insert(keyFromPath(model.path(id)));
        for (const auto& path : shownPaths) {
            EXPECT_EQ(world.at(path) != "-", paths.contains(path)) << path;
        }
    }
}

TEST(StoreConcurrencyTest, readersSeeWholeRecordsWhileAPageIsMerged) {
    const LogCapture log;
    StoreWorld world;
    constexpr int kFiles = 300;
    const auto merge = [&](int tick) {
        const std::string number = std::to_string(tick);
        std::vector<TWVirtualFilePtr> page{StoreWorld::folder("d", "s", "d" + number)};
        for (int i = 0; i < kFiles; ++i) {
            const std::string id = "f" + std::to_string(i);
            page.push_back(StoreWorld::file(id, "d", id + "-" + number, tick));
        }
        world.merge(page, tick);
    };
    merge(1);

    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int reader = 0; reader < 2; ++reader) {
        threads.emplace_back([&] {
            while (!done) {
                const auto lock = world.store.beginReadStorage();
                const auto folder = world.store.fileWithId("d");
                int seen = 0;
                world.store.directoryItemsWithParent("d")->forEach([&](const TWVirtualFilePtr& file) {
                    ++seen;
                    const bool found = world.store.fileWithPath(file->FullPath.view()) == file;
                    if (!found ||
                        file->FullPath.view() != folder->FullPath.str() + "/" + file->PublicName.str())
                        ++wrong;
                });
                if (seen != kFiles) ++wrong;
            }
        });
    }
    threads.emplace_back([&] {
        while (!done)
            world.store.deleteFileMetadata(world.store.createFile("made", world.share, nullptr, false));
    });
    for (int tick = 2; tick < 20; ++tick)
        merge(tick);
    done = true;
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(world.at("/Share/d19/f1-19"), "f1");
}

}  // namespace
}  // namespace tarnwell
