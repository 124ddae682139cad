#include "store/StoreWorld.h"
#include "support/LogCapture.h"

namespace tarnwell {
namespace {

using ::testing::ElementsAre;
using testing::LogCapture;
using testing::StoreWorld;
using ::testing::UnorderedElementsAre;

TEST(RemoteFilesTest, mergesByRules) {
    // One stored file and one incoming record of tick 10, named "new". The stored one is named "old" and has
    // the contents "Uf".
    const struct {
        const char* what;
        int storedTick;
        bool storedUrl, locallyUpdated;
        std::string lastUploadName, incomingUpload;
        bool downloading, synchronized;
        // What becomes of it.
        std::string name;
        bool dataKept;
        const char* downloads;
    } cases[] = {
        {"same tick", 10, true, false, "", "Unew", false, false, "old", true, ""},
        {"no contents known", 10, false, false, "", "Unew", false, false, "new", false, ""},
        {"older and no contents known", 99, false, false, "", "Uf", false, false, "new", true, ""},
        {"renamed while downloading", 9, true, false, "", "Uf", true, false, "new", true, "user Uf;"},
        {"new contents", 9, true, false, "Ux", "Unew", false, false, "new", false, ""},
        {"and downloading", 9, true, false, "", "Unew", true, false, "new", false, "cancel Uf;user Unew;"},
        {"and kept here", 9, true, false, "", "Unew", true, true, "new", false, "cancel Uf;auto Unew;"},
        {"own upload comes back", 9, true, false, "Unew", "Unew", false, false, "new", true, ""},
        {"unsent contents", 9, true, true, "", "Unew", true, false, "old", true, ""},
        {"unsent contents, renamed", 9, true, true, "", "Uf", false, false, "old", true, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const LogCapture log;
        StoreWorld world;
        const auto stored = StoreWorld::file("f", "s", "old", c.storedTick);
        if (!c.storedUrl) stored->UploadUrl.reset();
        if (c.locallyUpdated) stored->LocallyUpdated = true;
        if (!c.lastUploadName.empty()) stored->LastUploadName = c.lastUploadName;
        stored->POSIXPermissions = 0640;
        stored->DownloadDate = world.clock.now();
        stored->OnlyLocal = true;
        if (c.synchronized) stored->Synchronize = true;
        world.store.addFileMetadata(stored);
        world.listener.changes.clear();
        if (c.downloading) world.listener.running = "Uf";
        const auto cached = world.temporary.write("data/Tarnwell/Files/s/f", "bytes");
        const std::string version = c.lastUploadName.empty() ? "Uf" : c.lastUploadName;
        ASSERT_EQ(ContentVersion::clean(version).set(cached), 0);

        const auto incoming = StoreWorld::file("f", "s", "new", 10);
        incoming->UploadName = c.incomingUpload;
        world.merge({incoming}, 10);

        const auto now = world.store.fileWithId("f");
        const bool replaced = c.name == "new";
        EXPECT_EQ(now, replaced ? incoming : stored);
        EXPECT_EQ(world.at("/Share/" + c.name), "f");
        EXPECT_EQ(now->POSIXPermissions, 0640);
        EXPECT_EQ(now->DownloadDate.has_value(), c.dataKept);
        EXPECT_FALSE(stored->OnlyLocal);
        EXPECT_EQ(world.temporary.exists("data/Tarnwell/Files/s/f"), c.dataKept);
        std::string downloads;
        for (const auto& line : world.listener.downloads)
            downloads += line + ";";
        EXPECT_EQ(downloads, c.downloads);
        EXPECT_EQ(std::count(world.listener.changes.begin(), world.listener.changes.end(), "contents f"),
                  !c.dataKept);
        EXPECT_EQ(log.contains("but we also updated. Leaving our data."),
                  c.locallyUpdated && c.incomingUpload == "Unew");
    }
}

TEST(RemoteFilesTest, aPageMovesTheTickAlsoWhenEmpty) {
    const LogCapture log;
    StoreWorld world;
    world.merge({}, 44);
    EXPECT_EQ(world.share->LastApplyedJournalTick, 44);
    EXPECT_EQ(world.saves, 1);

    // The share's record was replaced by a login while the page was on its way.
    const auto renewed = std::make_shared<ManagedShare>(*world.share);
    world.store.insertShare(renewed);
    world.merge({StoreWorld::file("f", "s", "f")}, 45);
    EXPECT_EQ(renewed->LastApplyedJournalTick, 45);
    EXPECT_EQ(renewed->ModificationDate, world.clock.now());
    EXPECT_THAT(world.listener.refreshed, ElementsAre("s"));
}

TEST(RemoteFilesTest, movedFoldersAreAnnouncedAtBothPlaces) {
    StoreWorld world;
    world.merge({StoreWorld::folder("a", "s", "a"), StoreWorld::folder("b", "a", "b"),
                 StoreWorld::file("f", "b", "f"), StoreWorld::folder("x", "s", "x"),
                 StoreWorld::file("g", "s", "g")});
    world.listener.changes.clear();
    auto moved = StoreWorld::folder("b", "x", "B2");
    moved->Tick = 5;
    world.merge({moved});
    EXPECT_EQ(world.path("f"), "/Share/x/B2/f");
    EXPECT_THAT(world.listener.refreshed, UnorderedElementsAre("a", "x"));
    EXPECT_THAT(world.listener.changes, ElementsAre("entry a/b", "entry x/B2", "attributes s"));

    // A folder takes the place and name of a file, and the file another folder's.
    world.merge({StoreWorld::folder("x", "s", "G"), StoreWorld::file("g", "x", "g", 2)});
    EXPECT_EQ(world.at("/Share/g") + world.at("/Share/g/g") + world.at("/Share/g/b2/f"), "xgf");
}

TEST(RemoteFilesTest, deletedFoldersLeaveOrphansAndUnsentContents) {
    const LogCapture log;
    StoreWorld world;
    const auto unsent = StoreWorld::file("u", "s", "unsent");
    unsent->LocallyUpdated = true;
    world.merge({StoreWorld::folder("a", "s", "a"), StoreWorld::folder("b", "a", "b"),
                 StoreWorld::file("f", "b", "f"), StoreWorld::file("g", "a", "g"), unsent});
    world.temporary.write("data/Tarnwell/Files/s/g", "bytes");
    world.temporary.write("data/Tarnwell/Files/s/u", "mine");
    auto late = StoreWorld::file("late", "b", "late");
    world.merge({StoreWorld::deleted(StoreWorld::folder("a", "s", "a")),
                 StoreWorld::deleted(StoreWorld::file("g", "a", "g")), late,
                 StoreWorld::deleted(StoreWorld::file("u", "s", "unsent")),
                 StoreWorld::deleted(StoreWorld::file("unknown", "s", "?"))});
    EXPECT_EQ(world.path("a") + world.path("g"), "--");
    EXPECT_EQ(world.path("f"), "/__orphaned_files__/b/f");
    EXPECT_EQ(world.path("late"), "/__orphaned_files__/b/late");
    EXPECT_FALSE(world.temporary.exists("data/Tarnwell/Files/s/g"));
    EXPECT_THAT(world.listener.downloads, ElementsAre("cancel Ug"));
    // What the user wrote and nobody else has.
    EXPECT_EQ(world.path("u"), "/Share/unsent");
    EXPECT_EQ(world.temporary.read("data/Tarnwell/Files/s/u"), "mine");
    // The folder comes back: so does its tree.
    world.merge({StoreWorld::folder("a", "s", "again")});
    EXPECT_EQ(world.path("f"), "/Share/again/b/f");
}

TEST(RemoteFilesTest, aPageSpeaksForItsShareOnly) {
    const LogCapture log;
    StoreWorld world;
    world.addShare("t", "Other");
    auto theirs = StoreWorld::folder("theirs", "t", "theirs");
    theirs->ShareId = "t";
    world.store.addFileMetadata(theirs);

    const auto foreign = StoreWorld::fileOf("t", "1", "s", "foreign");
    auto noShare = StoreWorld::file("2", "s", "no share id");
    noShare->ShareId.reset();
    auto noId = StoreWorld::file("3", "s", "no id");
    noId->InternalName.reset();
    auto noParent = StoreWorld::file("4", "", "no parent");
    world.merge({foreign, noShare, noId, noParent, nullptr, StoreWorld::folder("theirs", "s", "taken"),
                 StoreWorld::deleted(StoreWorld::folder("theirs", "t", "theirs")),
                 StoreWorld::file("5", "theirs", "in"), StoreWorld::file("6", "t", "in root"),
                 StoreWorld::folder("t", "s", "like a share")});
    EXPECT_EQ(world.store.fileCount(), 2U);
    EXPECT_EQ(world.path("2"), "/Share/no share id");
    EXPECT_EQ(world.path("theirs"), "/Other/theirs");
    EXPECT_EQ(log.count("it does not belong to share s."), 6U);

    world.store.deleteShareData(world.share);
    world.merge({StoreWorld::file("7", "s", "late")}, 99);
    EXPECT_EQ(world.path("7"), "-");
}

TEST(RemoteFilesTest, deepChainsAndLongLoopsTakeTimeOfTheirSize) {
    const LogCapture log;
    StoreWorld world;
    constexpr int kLength = 10'000;
    std::vector<TWVirtualFilePtr> down, gone, loop;
    for (int i = 0; i < kLength; ++i) {
        const std::string id = std::to_string(i);
        down.push_back(StoreWorld::folder(id, i ? std::to_string(i - 1) : "s", i < 1000 ? "d" : ".."));
        gone.push_back(StoreWorld::deleted(std::make_shared<TWVirtualFile>(*down.back())));
        loop.push_back(StoreWorld::folder("l" + id, "l" + std::to_string((i + 1) % kLength), "l"));
    }
    std::reverse(down.begin(), down.end());
    world.merge(down);
    EXPECT_EQ(world.path("999").size(), 6U + 1000 * 2);
    EXPECT_EQ(world.path("9999"), "");
    EXPECT_EQ(world.store.allShareSiblings(*world.share, true).size(), static_cast<std::size_t>(kLength));
    world.merge(gone);
    world.merge(loop);
    EXPECT_EQ(world.path("l7"), "/__orphaned_files__/l");
    EXPECT_EQ(world.store.fileCount(), static_cast<std::size_t>(kLength));
    EXPECT_LT(log.count("circular reference"), 10U);
}

}  // namespace
}  // namespace tarnwell
