#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "store/JournalQueue.h"
#include "store/JournalWorld.h"
#include "util/TWUtils.h"

namespace tarnwell {
namespace {

using testing::JournalWorld;

/// The queue as a plain list that is scanned.
class ScannedList {
  public:
    std::vector<LocalJournalPtr> entries;

    template <class Matches>
    [[nodiscard]] std::vector<LocalJournalPtr> scan(Matches matches) const {
        std::vector<LocalJournalPtr> found;
        std::copy_if(entries.begin(), entries.end(), std::back_inserter(found), [&](const auto& entry) {
            return entry->LocalJournalType != kJournalCatchUp && matches(*entry);
        });
        return found;
    }
    [[nodiscard]] std::vector<LocalJournalPtr> leavers(const std::string& parent,
                                                       const std::string& name) const {
        return scan([&](const LocalJournal& entry) {
            const auto type = entry.LocalJournalType;
            const bool here =
                entry.File->ParrentId == parent && isEqualLowercase(entry.File->PublicName.view(), name);
            if (type == kJournalDelete && here) return true;
            if (type == kJournalCreate || !entry.OriginalPath) return false;
            const auto from = entry.OriginalParent ? entry.OriginalParent : entry.File->ParrentId;
            return from == parent && isEqualLowercase(lastPathComponent(entry.OriginalPath.view()), name);
        });
    }
};

TEST(JournalQueueTest, findsWhatAScanFinds) {
    const auto seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto oneOf = [&](std::vector<std::string> texts) { return texts[random() % texts.size()]; };
    const std::vector<std::string> parents = {"s", "d", "e"}, names = {"a", "A", "b", "\xC3\x89", "\xC3\xA9"};

    JournalQueue queue([](std::uint64_t) {});
    ScannedList list;
    const auto fill = [&](LocalJournal& entry) {
        constexpr std::int32_t kTypes[] = {kJournalCreate, kJournalDelete, kJournalRename, kJournalUpdate,
                                           kJournalCatchUp};
        entry.LocalJournalType = kTypes[random() % 5];
        entry.File = std::make_shared<TWVirtualFile>();
        entry.File->InternalName = oneOf({"f1", "f2", "f3", "d", "e"});
        entry.File->ShareId = oneOf({"s", "t"});
        entry.File->ParrentId = oneOf(parents);
        entry.File->PublicName = oneOf(names);
        entry.File->UploadName = "U" + std::to_string(random());
        entry.OriginalPath.reset();
        entry.OriginalParent.reset();
        if (entry.LocalJournalType == kJournalRename || random() % 4 == 0) {
            entry.OriginalPath = "/Share/" + oneOf(names);
            if (random() % 2) entry.OriginalParent = oneOf(parents);
        }
    };
    for (int step = 0; step < 3000; ++step) {
        const auto some =
            list.entries.empty()
                ? list.entries.end()
                : list.entries.begin() + static_cast<std::ptrdiff_t>(random() % list.entries.size());
        switch (random() % 5) {
            case 0:
                if (some == list.entries.end()) break;
                ASSERT_TRUE(queue.remove(**some));
                ASSERT_FALSE(queue.remove(**some));
                list.entries.erase(some);
                break;
            case 1: {
                if (some == list.entries.end()) break;
                const JournalQueue::Edit edit(queue, *some);
                fill(**some);
                break;
            }
            case 2:
                if (some == list.entries.end()) break;
                if (random() % 2) {
                    queue.moveToEnd(*some);
                    std::rotate(some, some + 1, list.entries.end());
                } else {
                    queue.remove(**some);
                    queue.putBack(*some);
                }
                break;
            default:
                list.entries.push_back(std::make_shared<LocalJournal>());
                fill(*list.entries.back());
                queue.append(list.entries.back());
        }
        if (step % 10 != 0) continue;
        ASSERT_TRUE(
            std::equal(queue.items().begin(), queue.items().end(), list.entries.begin(), list.entries.end()));
        for (const std::string id : {"f1", "f2", "d"}) {
            ASSERT_EQ(queue.ofItem(id), list.scan([&](const auto& e) { return e.File->InternalName == id; }));
            ASSERT_EQ(queue.countBelow(id),
                      list.scan([&](const auto& e) { return e.File->ParrentId == id; }).size());
        }
        for (const auto& parent : parents) {
            for (const auto& name : names) {
                LocalJournal probe;
                probe.File = std::make_shared<TWVirtualFile>();
                probe.File->ParrentId = parent;
                probe.File->PublicName = name;
                ASSERT_EQ(queue.leavers(JournalQueue::placeAfter(probe)), list.leavers(parent, name));
            }
        }
        std::size_t inShare = 0;
        bool catchUp = false;
        for (const auto& entry : list.entries) {
            const bool ofShare = entry->File->ShareId == "t";
            inShare += ofShare ? 1 : 0;
            catchUp = catchUp || (ofShare && entry->LocalJournalType == kJournalCatchUp);
            const bool owns = bringsContents(*entry);
            ASSERT_EQ(queue.withUpload(entry->File->UploadName.view()), owns ? entry : nullptr);
        }
        ASSERT_EQ(queue.ofShare("t").size(), inShare);
        ASSERT_EQ(queue.hasCatchUp("t"), catchUp);
    }
}

TEST(JournalQueueTest, aLongQueueMakesNothingSlower) {
    JournalWorld world;
    const auto lock = world.store.beginWriteStorage();
    const auto add = [&](int first, int count) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = first; i < first + count; ++i) {
            const std::string name = "f" + std::to_string(i);
            world.store.addFileMetadata(world.file(name, "s", name));
            const auto file = world.store.fileWithId(name);
            world.store.changeParentOfFile(file, "s", "r" + name);
            world.store.changeParentOfFile(file, "s", "q" + name);
            if (i % 4 == 0) world.store.removeFile(file);
        }
        return std::chrono::steady_clock::now() - start;
    };
    const auto early = add(0, 2000);
    add(2000, 20000);
    const auto late = add(22000, 2000);
    EXPECT_EQ(world.journal().journalItems().size(), 24000U);
    // A scan of the queue would take hundreds of times as long.
    EXPECT_LT(late, early * 10 + std::chrono::milliseconds(500));
    std::cout << "one change: "
              << std::chrono::duration_cast<std::chrono::microseconds>(early).count() / 2000.0
              << " us with an empty journal, "
              << std::chrono::duration_cast<std::chrono::microseconds>(late).count() / 2000.0
              << " us with 22,000 entries\n";
}

}  // namespace
}  // namespace tarnwell
