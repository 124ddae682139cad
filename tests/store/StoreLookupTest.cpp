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
    const struct {
        const char *path, *id;
    } cases[] = {
        {"/Share/Docs/Report.TXT", "r"},
        {"/SHARE/docs/report.txt", "r"},
        {"/Share/docs/report.tx", "-"},
        {"/Share/docs/report.txt/", "-"},
        {"/Share/docs/R\xC3\xA9SUM\xC3\x89", "e"},
        {"/Share/docs/resume", "-"},
        {"/share/DOCS", "d"},
        {"/", "-"},
        {"", "-"},
    };
    for (const auto& [path, id] : cases) {
        EXPECT_EQ(world.at(path), id) << path;
    }
    EXPECT_EQ(world.store.shareWithFilePath("/share/x/y"), world.share);
    for (const char* path : {"/Share", "/", "", "/Other/x"}) {
        EXPECT_EQ(world.store.shareWithFilePath(path), nullptr) << path;
    }
    EXPECT_EQ(world.store.pathForItemWithId("r"), "/Share/docs/report.txt");
    EXPECT_EQ(world.store.pathForItemWithId("s"), "/Share");
    EXPECT_EQ(world.store.pathForItemWithId("?"), "");
    EXPECT_EQ(world.store.directoryItemsWithParent(""), nullptr);
}

TEST(StoreLookupTest, recordsOfOnePathKeyStepForwardWhenTheShownOneGoes) {
    StoreWorld world;
    for (const char* id : {"1", "2", "3"}) {
        world.store.addFileMetadata(StoreWorld::file(id, "s", *id == '2' ? "NAME" : "name"));
    }
    EXPECT_EQ(world.at("/Share/Name"), "3");
    world.store.deleteFileMetadata(world.store.fileWithId("1"));
    EXPECT_EQ(world.at("/Share/Name"), "3");
    world.store.deleteFileMetadata(world.store.fileWithId("3"));
    EXPECT_EQ(world.at("/Share/Name"), "2");
    world.store.deleteFileMetadata(world.store.fileWithId("2"));
    EXPECT_EQ(world.at("/Share/Name"), "-");
    EXPECT_EQ(world.store.fileCount(), 0U);
}

TEST(StoreLookupTest, keepLocalIsInheritedOverAHundredLevels) {
    // Where true stands, how many levels below the share's root the file lies, whether the file itself says
    // false.
    const struct {
        const char* on;
        int levels;
        bool fileSaysNo;
        bool expected;
    } cases[] = {
        {"file", 0, false, true},    {"share", 0, true, true},    {"f0", 2, true, true},
        {"none", 5, false, false},   {"share", 100, false, true}, {"share", 101, false, false},
        {"share", 150, true, false}, {"f0", 100, false, true},    {"f0", 101, false, false},
        {"f1", 101, false, true},
    };
    for (const auto& [on, levels, fileSaysNo, expected] : cases) {
        StoreWorld world;
        world.share->Synchronize = on == std::string("share");
        std::string parent = "s";
        for (int level = 0; level < levels; ++level) {
            const std::string id = "f" + std::to_string(level);
            const auto folder = StoreWorld::folder(id, parent, "d");
            folder->Synchronize = id == on;
            world.store.addFileMetadata(folder);
            parent = id;
        }
        const auto file = StoreWorld::file("file", parent, "x");
        if (on == std::string("file")) file->Synchronize = true;
        if (fileSaysNo) file->Synchronize = false;
        world.store.addFileMetadata(file);
        EXPECT_EQ(world.store.isFileSynchronized(file), expected) << on << " " << levels;
    }
    EXPECT_FALSE(StoreWorld().store.isFileSynchronized(nullptr));
}

TEST(StoreLookupTest, parentsThatLoopEndUnderTheOrphanFolder) {
    for (const int length : {1, 2, 3, 7}) {
        const LogCapture log;
        StoreWorld world;
        for (int i = 0; i < length; ++i) {
            world.store.addFileMetadata(StoreWorld::folder(
                std::to_string(i), std::to_string((i + 1) % length), "n" + std::to_string(i)));
        }
        world.store.addFileMetadata(StoreWorld::file("leaf", "0", "leaf"));
        world.store.updateFilePathes(world.store.fileWithId("0"));
        for (int i = 0; i < length; ++i) {
            const std::string id = std::to_string(i);
            EXPECT_EQ(world.path(id), "/__orphaned_files__/n" + id);
            EXPECT_EQ(world.store.fuseFilePath(*world.store.fileWithId(id)), world.path(id));
        }
        EXPECT_EQ(world.path("leaf"), "/__orphaned_files__/n0/leaf");
        EXPECT_EQ(world.at("/__orphaned_files__/n0/leaf"), "leaf");
        EXPECT_TRUE(world.store.isFileOrphaned(*world.store.fileWithId("leaf")));
        EXPECT_FALSE(world.store.isFileSynchronized(world.store.fileWithId("leaf")));
        EXPECT_EQ(world.store.allSiblings(*world.store.fileWithId("0"), true).size(),
                  static_cast<size_t>(length));
        const auto& next = world.store.fileWithId("0")->ParrentId.str();
        EXPECT_TRUE(
            log.contains("ERROR! Got circular reference for the file n0 (Iname 0, Pname " + next + ")"));

        // The loop opens: everything finds its place.
        world.store.addFileMetadata(StoreWorld::folder("0", "s", "n0"));
        EXPECT_EQ(world.path("leaf"), "/Share/n0/leaf");
        EXPECT_EQ(world.store.allShareSiblings(*world.share, true).size(), static_cast<size_t>(length) + 1);
    }
}

TEST(StoreLookupTest, namesThatAreNoNamesGetNoPlace) {
    StoreWorld world;
    world.store.addFileMetadata(StoreWorld::folder("d", "s", "d"));
    world.store.addFileMetadata(StoreWorld::file("real", "d", "b"));
    const std::string_view names[] = {
        "", ".", "..", "d/b", "/", std::string_view("d\0b", 3), std::string_view("\0", 1)};
    int number = 0;
    for (const auto name : names) {
        const std::string id = "bad" + std::to_string(number++);
        world.store.addFileMetadata(StoreWorld::folder(id, "s", name));
        world.store.addFileMetadata(StoreWorld::file(id + "below", id, "x"));
        EXPECT_EQ(world.path(id), "") << name;
        EXPECT_EQ(world.path(id + "below"), "") << name;
    }
    auto nameless = StoreWorld::file("nameless", "d", "");
    nameless->PublicName.reset();
    world.store.addFileMetadata(nameless);
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
    EXPECT_EQ(file->Tick, -1);
    EXPECT_EQ(file->CreateTick, 7);
    EXPECT_EQ(file->User, "someone");
    EXPECT_EQ(file->Attributes, 128);
    EXPECT_EQ(folder->Attributes, 16);
    EXPECT_EQ(file->POSIXPermissions, 0600);
    EXPECT_EQ(folder->POSIXPermissions, 0700);
    EXPECT_EQ(file->CreationTime, world.clock.now());
    EXPECT_FALSE(world.store.storageEmpty());
    EXPECT_EQ(world.saves, 2);

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
    world.store.insertShare([] {
        auto other = StoreWorld::makeShare("t", "Other");
        other->DisplayName = "Other";
        return other;
    }());
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
    EXPECT_EQ(world.store.shareWithPath("/Share"), nullptr);
}

TEST(StoreItemsTest, cacheFilesOfWrongKindAreReported) {
    const LogCapture log;
    StoreWorld world;
    const auto file = StoreWorld::file("f", "s", "name");
    world.store.addFileMetadata(file);
    world.temporary.write("data/Tarnwell/Files/s/f/inner", "");
    world.store.createNewFileForFile(*file);
    EXPECT_TRUE(log.contains(
        "Warning! Cannot create cache file for file /Share/name : file with the same name already "
        "exists there."));
    world.store.deleteFileData(*file);
    EXPECT_TRUE(log.contains("Warning! Cannot delete file data for file /Share/name. Error "));
    world.temporary.write("data/Tarnwell/Files/t", "");
    auto share = StoreWorld::makeShare("t", "T");
    share->DisplayName = "T";
    world.store.createFolderForShare(*share);
    EXPECT_TRUE(log.contains(
        "Warning! Cannot create cache folder for share T : file with the same name already exists "
        "there."));
}

}  // namespace
}  // namespace tarnwell
