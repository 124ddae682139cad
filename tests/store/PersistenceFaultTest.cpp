// Saves that meet a full disk, a crash, or a store that goes on changing.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <random>
#include <thread>

#include "store/FileSizeLimit.h"
#include "store/SavedWorld.h"
#include "support/LogCapture.h"

namespace tarnwell {
namespace {

using testing::FileSizeLimit;
using testing::LogCapture;
using testing::SavedWorld;

TEST(PersistenceFaultTest, aFullDiskLeavesTheFormerFilesWhole) {
    SavedWorld world;
    LogCapture log;
    world.share->LastApplyedJournalTick = 1;
    world.addShare("t", "Other")->LastApplyedJournalTick = 1;
    world.store.addFileMetadata(SavedWorld::file("first", "s", "first"));
    ASSERT_TRUE(world.save());
    const std::string former = world.readFile("share_s.db");

    for (int i = 0; i < 2000; ++i)
        world.store.addFileMetadata(SavedWorld::file(std::to_string(i), "s", std::to_string(i)));
    world.share->LastApplyedJournalTick = 2;
    world.store.addFileMetadata(SavedWorld::fileOf("t", "g", "t", "g"));
    world.store.shareWithId("t")->LastApplyedJournalTick = 2;
    {
        const FileSizeLimit full(64 * 1024);
        EXPECT_FALSE(world.save());
    }
    EXPECT_TRUE(log.contains("share_s.db : error File too large. The former file is kept.")) << log.text();
    EXPECT_EQ(world.readFile("share_s.db"), former);
    EXPECT_FALSE(world.has("share_s.db.new"));
    {
        // The other share is saved. The records that are missing are missing for the tick, too.
        SavedWorld::Run run(world);
        EXPECT_EQ(run.store.fileCount(), 2U);
        EXPECT_EQ(run.tick("s"), 1);
        EXPECT_EQ(run.tick("t"), 2);
    }
    EXPECT_TRUE(world.save());
    SavedWorld::Run run(world);
    EXPECT_EQ(run.store.fileCount(), 2002U);
    EXPECT_EQ(run.tick("s"), 2);
}

TEST(PersistenceFaultTest, recordsAreNotReplacedWithoutTheirJournal) {
    SavedWorld world;
    world.store.addFileMetadata(SavedWorld::file("f", "s", "old name"));
    ASSERT_TRUE(world.save());
    const auto file = world.store.fileWithId("f");
    file->PublicName = "new name";
    world.store.updateFilePathes(file);
    world.journal.texts = {"renamed"};
    world.blockFile("journal.db");
    EXPECT_FALSE(world.save());
    EXPECT_EQ(SavedWorld::Run(world).path("f"), "/Share/old name");
    world.unblockFile("journal.db");
    EXPECT_TRUE(world.save());
    EXPECT_EQ(SavedWorld::Run(world).path("f"), "/Share/new name");
}

/// A store that changes all the time, so that every file of a save can be told from that of another.
/// Change number n: a catch-up page brings the record of tick n to one of two shares, an older record goes
/// and comes back, and the user renames "/Share/mine m" to the next number, which is the journal entry.
class Changes {
  public:
    /// Goes on from what the store and its journal have: a catch-up from the older tick, renames after the
    /// last.
    Changes(TWMetadataStorage& store, testing::TextJournal& journal)
        : store_(store),
          journal_(journal),
          number_(std::min(store.shareWithId("s")->LastApplyedJournalTick,
                           store.shareWithId("t")->LastApplyedJournalTick)),
          renames_(journal.texts.empty() ? 0 : std::stoi(journal.texts[0])) {}

    static void begin(SavedWorld& world) {
        world.addShare("t", "Other");
        world.store.addFileMetadata(SavedWorld::file("mine", "s", "mine 0"));
        Changes changes(world.store, world.journal);
        for (int i = 0; i < 300; ++i)
            changes.make();
    }

    void make() {
        const int n = ++number_;
        const auto lock = store_.beginWriteStorage();
        add(n);
        if (n > 10) {
            const int older = 2 + n % 7;
            store_.deleteFileMetadata(store_.fileWithId(id(older)));
            add(older);
        }
        store_.shareWithId(shareOf(n))->LastApplyedJournalTick = n;
        const auto mine = store_.fileWithId("mine");
        mine->PublicName = "mine " + std::to_string(++renames_);
        store_.updateFilePathes(mine);
        journal_.texts = {std::to_string(renames_)};
    }

    /// Whether what was saved holds together.
    static void expectWhole(SavedWorld& world) {
        SavedWorld::Run run(world);
        for (const int start : {1, 2}) {
            const int tick = run.tick(start == 1 ? "s" : "t");
            for (int n = start; n <= tick; n += 2)
                ASSERT_TRUE(run.store.fileWithId(id(n))) << n << " is lost for a catch-up from " << tick;
        }
        const std::string path = run.path("mine");
        ASSERT_TRUE(path.starts_with("/Share/mine ")) << path;
        ASSERT_EQ(run.journal.texts.size(), 1U);
        ASSERT_LE(std::stoi(path.substr(12)), std::stoi(run.journal.texts[0]))
            << "a change that is never sent";
        ASSERT_TRUE(storeFileNames(world.layout.rootCachePath(), true).size() == 4U)
            << "nothing damaged, nothing left over";
    }

  private:
    static std::string id(int n) { return "f" + std::to_string(n); }
    static std::string shareOf(int n) { return n % 2 ? "s" : "t"; }
    void add(int n) { store_.addFileMetadata(SavedWorld::fileOf(shareOf(n), id(n), shareOf(n), id(n), n)); }

    TWMetadataStorage& store_;
    testing::TextJournal& journal_;
    int number_;
    int renames_;
};

TEST(PersistenceFaultTest, aSaveBesideChangesHoldsTogether) {
    SavedWorld world;
    LogCapture log;
    Changes::begin(world);
    Changes changes(world.store, world.journal);
    for (int round = 0; round < 10 && !::testing::Test::HasFatalFailure(); ++round) {
        std::thread changing([&] {
            for (int i = 0; i < 200; ++i)
                changes.make();
        });
        EXPECT_TRUE(world.save());
        changing.join();
        Changes::expectWhole(world);
    }
    EXPECT_TRUE(world.save());
    EXPECT_EQ(SavedWorld::Run(world).store.fileCount(), world.store.fileCount());
}

TEST(PersistenceFaultTest, saveAndClearFromManyThreads) {
    SavedWorld world;
    LogCapture log;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < 30; ++i) {
                const auto name = std::to_string(thread) + "." + std::to_string(i);
                world.store.addFileMetadata(SavedWorld::file(name, "s", name));
                if (thread == 0 && i % 7 == 3) world.store.persistence().clear();
                if (thread == 1) world.save();
                if (thread == 2) {
                    const auto lock = world.store.beginWriteStorage();
                    world.store.persistence().saveOrJoin();
                }
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    world.addShare("s", "Share");
    ASSERT_TRUE(world.save());
    EXPECT_EQ(SavedWorld::Run(world).store.fileCount(), world.store.fileCount());
}

TEST(PersistenceFaultTest, aKilledSaveLeavesAStoreThatLoads) {
    std::random_device seed;
    std::mt19937 random(seed());
    SavedWorld world;
    LogCapture log;
    Changes::begin(world);
    ASSERT_TRUE(world.save());
    for (int round = 0; round < 15 && !::testing::Test::HasFatalFailure(); ++round) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            // The next run: one thread changes the store, the other saves it, until the end.
            SavedWorld::Run run(world);
            std::thread([&] {
                Changes changes(run.store, run.journal);
                for (int i = 0; i < 1000; ++i)
                    changes.make();
            }).detach();
            for (;;)
                run.store.persistence().save();
        }
        usleep(static_cast<useconds_t>(20'000 + random() % 60'000));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        Changes::expectWhole(world);
    }
}

}  // namespace
}  // namespace tarnwell
