#include "store/StoreWorld.h"
#include "support/LogCapture.h"

namespace tarnwell {
namespace {

using testing::LogCapture;
using testing::StoreWorld;

TEST(StoreLookupTest, pathsMeetWithoutRegardToCaseAndUnicodeForm) {
    StoreWorld world;
    world.store.addFileMetadata(StoreWorld::folder("d", "s", "docs"));
    world.store.addFileMetadata(StoreWorld::file("r", "d", "report.txt"));
    world.store.addFileMetadata(StoreWorld::file("e", "d", "re\xCC\x81sume\xCC\x81"));
    const std::pair<const char*, const char*> cases[] = {
        {"/Share/Docs/Report.TXT", "r"},
        {"/Share/docs/report.txt/", "-"},
        {"/Share/docs/R\xC3\xA9SUM\xC3\x89", "e"},
        {"/Share/docs/resume", "-"},
        {"/", "-"},
        {"", "-"},
    };
    for (const auto& [path, id] : cases) {
        EXPECT_EQ(world.at(path), id) << path;
    }
    EXPECT_EQ(world.store.shareWithFilePath("/share/x/y"), world.share);
    EXPECT_EQ(world.store.shareWithFilePath("/Share"), nullptr);
}

TEST(StoreLookupTest, keepLocalIsInheritedOverAHundredLevels) {
    // Where true stands, how many levels below the share's root the file lies, whether the file itself says
    // false.
    const struct {
        std::string on;
        int levels;
        bool fileSaysNo, expected;
    } cases[] = {{"share", 0, true, true},    {"f0", 2, true, true},        {"none", 5, false, false},
                 {"share", 100, false, true}, {"share", 101, false, false}, {"share", 150, true, false},
                 {"f0", 101, false, false}};
    for (const auto& [on, levels, fileSaysNo, expected] : cases) {
        StoreWorld world;
        world.share->Synchronize = on == "share";
        std::string parent = "s";
        for (int level = 0; level < levels; ++level) {
            const std::string id = "f" + std::to_string(level);
            const auto folder = StoreWorld::folder(id, parent, "d");
            folder->Synchronize = id == on;
            world.store.addFileMetadata(folder);
            parent = id;
        }
        const auto file = StoreWorld::file("file", parent, "x");
        if (fileSaysNo) file->Synchronize = false;
        world.store.addFileMetadata(file);
        EXPECT_EQ(world.store.isFileSynchronized(file), expected) << on << " " << levels;
    }
}

TEST(StoreLookupTest, namesThatAreNoNamesGetNoPlace) {
    StoreWorld world;
    world.store.addFileMetadata(StoreWorld::folder("d", "s", "d"));
    world.store.addFileMetadata(StoreWorld::file("real", "d", "b"));
    int number = 0;
    const std::string_view names[] = {"", ".", "..", "d/b", std::string_view("d\0b", 3)};
    for (const auto name : names) {
        const std::string id = "bad" + std::to_string(number++);
        world.store.addFileMetadata(StoreWorld::folder(id, "s", name));
        world.store.addFileMetadata(StoreWorld::file(id + "below", id, "x"));
        EXPECT_EQ(world.path(id), "") << name;
        EXPECT_EQ(world.path(id + "below"), "") << name;
    }
    EXPECT_EQ(world.at("/Share/d"), "d");
    EXPECT_EQ(world.at("/Share/d/b"), "real");
    // Too long for any program, and found all the same; too long for memory, and not.
    world.store.addFileMetadata(StoreWorld::folder("long", "s", std::string(10'000, 'x')));
    world.store.addFileMetadata(StoreWorld::folder("longer", "long", std::string(10'000, 'y')));
    EXPECT_EQ(world.at("/Share/" + std::string(10'000, 'X')), "long");
    EXPECT_EQ(world.path("longer"), "");
    // A name again: what was below comes along.
    world.store.addFileMetadata(StoreWorld::folder("bad1", "s", "good"));
    EXPECT_EQ(world.at("/Share/good/x"), "bad1below");
}

TEST(StoreItemsTest, createsAnItemOrReturnsWhatStandsThere) {
    StoreWorld world;
    world.share->LastApplyedJournalTick = 7;
    const auto folder = world.store.createFile("New", world.share, nullptr, true);
    const auto file = world.store.createFile("a/b", world.share, folder, false);
    EXPECT_EQ(file->FullPath, "/Share/New/a_b");
    EXPECT_EQ(world.listener.changes.back(), "entry " + folder->InternalName.str() + "/a_b");
    EXPECT_EQ(file->CreateTick, 7);
    EXPECT_EQ(file->CreationTime, world.clock.now());

    const std::string cache = "data/Tarnwell/Files/s/" + file->InternalName.str();
    EXPECT_EQ(world.temporary.read(cache), "");
    world.temporary.write(cache, "old bytes");
    EXPECT_EQ(world.store.createFile("A/B", world.share, folder, false), file);
    EXPECT_FALSE(world.temporary.exists(cache));
    EXPECT_EQ(world.store.createFile("new", world.share, nullptr, true), folder);
    EXPECT_EQ(world.store.fileCount(), 2U);
}

TEST(StoreItemsTest, renamingAShareMovesItsTree) {
    StoreWorld world;
    world.addShare("t", "Other");
    world.store.addFileMetadata(StoreWorld::folder("d", "s", "d"));
    world.store.addFileMetadata(StoreWorld::file("f", "d", "f"));
    for (const std::string_view name :
         {std::string_view("other"), std::string_view(""), std::string_view(".."), std::string_view("a/b"),
          std::string_view("a\0b", 3)}) {
        EXPECT_FALSE(world.store.renameShare(world.share, name)) << name;
    }
    EXPECT_TRUE(world.store.renameShare(world.share, "SHARE"));
    EXPECT_EQ(world.path("f"), "/SHARE/d/f");
    EXPECT_TRUE(world.store.renameShare(world.share, "Fresh"));
    EXPECT_EQ(world.at("/Fresh/d/f"), "f");
    EXPECT_EQ(world.at("/Share/d/f"), "-");
}

}  // namespace
}  // namespace tarnwell
