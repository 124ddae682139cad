// What stands on disk, and what comes back from it.

#include <filesystem>
#include <random>

#include "store/SavedWorld.h"
#include "support/LogCapture.h"
#include "util/StoredForm.h"

namespace tarnwell {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using testing::LogCapture;
using testing::SavedWorld;

void setEverything(TWVirtualFile& file) {
    file.LastUploadName = file.ArchivedFullName = file.FilehHash = file.User = "x";
    file.Tick = file.ShareTick = file.UpdateTick = file.CreateTick = 41;
    file.EndOfFile = std::int64_t{1} << 40;
    file.AllocationSize = (std::int64_t{1} << 40) + 1;
    file.CreationTime = file.LastAccessTime = dateWithTicks(635'000'000'000'010'000);
    file.LastWriteTime = kDistantPast;
    file.Attributes = 128;
    file.POSIXPermissions = 0644;
    file.DownloadDate = dateWithTicks(635'000'000'000'020'000);
    file.Local = true;
    file.Synchronize = false;
    file.LocallyUpdated = true;
}

PropertyList::Dictionary parsed(const std::string& bytes) {
    std::string error;
    const auto list = parsePropertyList(bytes, error);
    if (!list || !list->get<PropertyList::Dictionary>()) throw std::runtime_error("no dictionary: " + error);
    return *list->get<PropertyList::Dictionary>();
}

std::string serialized(const PropertyList& value, PropertyListForm form) {
    std::string error;
    return serializePropertyList(value, form, error).value();
}

TEST(PersistenceTest, aRunFindsWhatTheLastOneSaved) {
    SavedWorld world;
    auto& store = world.store;
    auto everything = SavedWorld::file("f1", "d2", "Ä report 🗎.TXT");
    setEverything(*everything);
    for (const auto& item :
         {SavedWorld::folder("d1", "s", "docs"), SavedWorld::folder("d2", "d1", "inner"), everything,
          SavedWorld::deleted(SavedWorld::file("f2", "s", "gone")), SavedWorld::file("f3", "nowhere", "lost"),
          SavedWorld::folder("a", "b", "loop a"), SavedWorld::folder("b", "a", "loop b")}) {
        store.addFileMetadata(item);
    }
    store.fileWithId("d1")->OnlyLocal = true;
    auto other = world.addShare("../o/th%er", "Other & <more>");
    other->LastApplyedJournalTick = 77;
    other->TransmitCounter = 3;
    other->ShareAcl.emplace();
    other->ShareAcl->AclToken = "t\"\\\n";
    other->Synchronize = true;
    other->LastUpdate = 1.5;
    store.addFileMetadata(SavedWorld::fileOf("../o/th%er", "f9", "../o/th%er", "x"));
    store.setGlobalLoginResponce("{\"ErrorCode\":\"U100\",\r\n\"x\":\"<&>\"}");
    world.journal.texts = {"first", "<second> ü"};
    ASSERT_TRUE(world.save());

    EXPECT_TRUE(world.has("share_%2E.%2Fo%2Fth%25er.db")) << "an id that could be a path";
    SavedWorld::Run run(world);
    EXPECT_EQ(run.store.fileCount(), store.fileCount());
    for (const auto& file : store.allFiles()) {
        const auto loaded = run.store.fileWithId(file->InternalName.view());
        ASSERT_TRUE(loaded) << file->InternalName;
        TWVirtualFile expected = *file;
        expected.OnlyLocal.reset();
        if (expected.FullPath.empty()) expected.FullPath = run.store.fuseFilePath(*loaded);
        EXPECT_TRUE(recordsEqual(expected, *loaded)) << file->InternalName;
    }
    EXPECT_EQ(run.path("f1"), "/Share/docs/inner/Ä report 🗎.TXT");
    EXPECT_EQ(run.path("f3"), "/__orphaned_files__/lost");
    EXPECT_EQ(run.path("a"), "/__orphaned_files__/loop a");
    auto expectedShare = *other;
    expectedShare.TransmitCounter = 0;
    EXPECT_TRUE(recordsEqual(expectedShare, *run.store.shareWithPath("/OTHER & <more>")));
    EXPECT_THAT(run.journal.texts, ElementsAre("first", "<second> ü"));
    EXPECT_EQ(run.store.globalLoginResponce(), "{\"ErrorCode\":\"U100\",\r\n\"x\":\"<&>\"}");

    const auto before = world.files();
    EXPECT_TRUE(run.store.persistence().save());
    EXPECT_EQ(world.changedSince(before).find("share_"), std::string::npos) << "as they were loaded";
}

TEST(PersistenceTest, aSaveWritesOnlyWhatChanged) {
    SavedWorld world;
    auto& store = world.store;
    world.addShare("t", "Other");
    const auto file = SavedWorld::file("f", "s", "a");
    store.addFileMetadata(file);
    store.addFileMetadata(SavedWorld::folder("d", "s", "d"));
    const struct {
        const char* what;
        std::function<void()> change;
        const char* written;
    } cases[] = {
        {"all the first time", [] {}, "journal.db share_s.db share_t.db shares.db"},
        {"nothing", [] {}, ""},
        {"name",
         [&] {
             file->PublicName = "z";
             store.updateFilePathes(file);
         },
         "share_s.db"},
        {"replaced record", [&] { store.addFileMetadata(SavedWorld::file("f", "s", "z", 8)); }, "share_s.db"},
        {"item of the other share", [&] { store.addFileMetadata(SavedWorld::fileOf("t", "g", "t", "g")); },
         "share_t.db"},
        {"tick of an empty page", [&] { world.merge({}, 12); }, "shares.db"},
        {"page", [&] { world.merge({SavedWorld::file("h", "s", "h")}, 13); }, "share_s.db shares.db"},
        {"login", [&] { store.setGlobalLoginResponce("{}"); }, "shares.db"},
        {"journal", [&] { world.journal.texts = {"e"}; }, "journal.db"},
        {"a file that somebody removed", [&] { fs::remove(world.layout.rootCachePath() + "/share_t.db"); },
         "share_t.db"},
        {"share gone", [&] { store.deleteShareData(store.shareWithId("t")); }, "shares.db"},
        {"share back", [&] { world.addShare("t", "Other"); }, "share_t.db shares.db"},
    };
    for (const auto& test : cases) {
        const auto before = world.files();
        test.change();
        ASSERT_TRUE(world.save()) << test.what;
        EXPECT_EQ(world.changedSince(before), test.written) << test.what;
        world.clock.advance(std::chrono::seconds(1));
    }
    store.deleteShareData(store.shareWithId("t"));
    world.save();
    EXPECT_FALSE(world.has("share_t.db")) << "what the user has no more is not kept";
    EXPECT_EQ(SavedWorld::Run(world).store.fileCount(), store.fileCount());
}

TEST(PersistenceTest, damagedShareFilesAreSetAsideAndCaughtUpAgain) {
    const auto withFiles = [&](PropertyList files) {
        PropertyList::Dictionary list;
        list.append("files", std::move(files));
        return serialized(list, PropertyListForm::kBinary);
    };
    // A share "s" of 20 records at tick 50 beside "t" of one at tick 60 is saved, changed and loaded.
    const struct {
        const char* what;
        std::function<std::string(std::string)> change;
        std::size_t atLeast;  // records of "s" that are read
        bool setAside;
    } cases[] = {
        {"half", [](std::string bytes) { return bytes.substr(0, bytes.size() / 2); }, 0, true},
        {"files are no list", [&](const std::string&) { return withFiles(5); }, 0, true},
        {"elements are no records",
         [&](const std::string&) {
             return withFiles(PropertyList::Array{5, "x"});
         },
         0, false},
        {"a count beyond the file",
         [](std::string bytes) {
             std::fill(bytes.end() - 24, bytes.end() - 16, '\x7f');
             return bytes;
         },
         0, true},
        {"one record points nowhere",
         [](std::string bytes) {
             // The offset table's entry of a value in the middle of the file.
             bytes[bytes.size() - 32 - 2 * 60] = '\x7f';
             return bytes;
         },
         19, true},
    };
    for (const auto& test : cases) {
        SavedWorld world;
        LogCapture log;
        world.share->LastApplyedJournalTick = 50;
        for (int i = 0; i < 20; ++i)
            world.store.addFileMetadata(
                SavedWorld::file("f" + std::to_string(i), "s", "n" + std::to_string(i), i));
        world.addShare("t", "Other")->LastApplyedJournalTick = 60;
        world.store.addFileMetadata(SavedWorld::fileOf("t", "g", "t", "g"));
        ASSERT_TRUE(world.save());
        world.writeFile("share_s.db", test.change(world.readFile("share_s.db")));

        SavedWorld::Run run(world);
        EXPECT_EQ(run.path("g"), "/Other/g") << test.what;
        EXPECT_EQ(run.tick("t"), 60) << test.what;
        EXPECT_EQ(run.tick("s"), test.setAside ? -1 : 50) << test.what;
        EXPECT_GE(run.store.fileCount(), test.atLeast + 1) << test.what;
        EXPECT_EQ(world.has("share_s.db.damaged-1"), test.setAside) << test.what;
        // What was read is written again, and the tick waits for the catch-up.
        ASSERT_TRUE(run.store.persistence().save()) << test.what;
        EXPECT_EQ(SavedWorld::Run(world).tick("s"), run.tick("s")) << test.what;
        EXPECT_FALSE(world.has("share_s.db.damaged-2")) << test.what;
    }
}

TEST(PersistenceTest, anyDamageCostsRecordsNeverTheProcess) {
    SavedWorld world;
    for (int i = 0; i < 50; ++i)
        world.store.addFileMetadata(SavedWorld::file(std::to_string(i), "s", std::to_string(i)));
    ASSERT_TRUE(world.save());
    const std::string good = world.readFile("share_s.db");
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int i = 0; i < 5000; ++i) {
        std::string bad = good;
        for (unsigned k = 1 + random() % 3; k > 0; --k)
            bad[random() % bad.size()] = static_cast<char>(random());
        if (random() % 8 == 0) bad.resize(random() % bad.size());
        StoredRecordCount count;
        std::uint64_t seen = 0;
        readStoredRecords<TWVirtualFile>(
            bad, "files", [&](const auto&, const auto&) { ++seen; }, count);
        ASSERT_EQ(seen, count.records);
        // A damaged count of the list may name the same objects more than once.
        ASSERT_LE(seen + count.damaged, 50U + 255U);
    }
}

TEST(PersistenceTest, aShareFileThatIsNotThereOrCannotBeReadBeginsAnew) {
    SavedWorld world;
    world.share->LastApplyedJournalTick = 50;
    world.store.addFileMetadata(SavedWorld::file("f", "s", "name"));
    ASSERT_TRUE(world.save());
    const std::string path = world.layout.rootCachePath() + "/share_s.db";
    fs::remove(path);
    {
        LogCapture log;
        EXPECT_EQ(SavedWorld::Run(world).tick("s"), -1);
        EXPECT_TRUE(log.contains("Warning! Cannot load data for share Share (s)"));
    }
    fs::create_directory(path);
    SavedWorld::Run run(world);
    EXPECT_EQ(run.tick("s"), -1);
    EXPECT_TRUE(fs::is_directory(path)) << "not damaged, so it stays until its place is needed";
    EXPECT_TRUE(run.store.persistence().save());
    EXPECT_TRUE(fs::is_regular_file(path));
    EXPECT_TRUE(world.has("share_s.db.unread-1"));
}

TEST(PersistenceTest, recordsThatCannotBeTakenCostOnlyThemselves) {
    SavedWorld world;
    LogCapture log;
    world.addShare("t", "Other");
    ASSERT_TRUE(world.save());
    PropertyList::Array files;
    const auto add = [&](TWVirtualFilePtr file) { files.emplace_back(saveToDictionary(*file)); };
    add(SavedWorld::file("f", "s", "old"));
    add(SavedWorld::file("f", "s", "new"));
    add(SavedWorld::file("", "s", "no id"));
    add(SavedWorld::file("p", "", "no parent"));
    add(SavedWorld::fileOf("t", "foreign", "t", "foreign"));
    add(SavedWorld::file("t", "s", "id of a share"));
    PropertyList::Dictionary strange;
    const auto odd = saveToDictionary(*SavedWorld::file("odd", "s", "odd"));
    for (const auto& [key, value] : odd.entries())
        strange.append(key, key == "Tick" || key == "CreationTime" ? PropertyList("text") : value);
    strange.append("Unknown", true);
    files.emplace_back(strange);
    PropertyList::Dictionary list;
    list.append("files", files);
    world.writeFile("share_s.db", serialized(list, PropertyListForm::kBinary));

    SavedWorld::Run run(world);
    EXPECT_EQ(run.store.fileCount(), 2U);
    EXPECT_EQ(run.path("f"), "/Share/new");
    EXPECT_EQ(run.path("odd"), "/Share/odd");
    EXPECT_EQ(run.store.fileWithId("f")->POSIXPermissions, 0600);
    EXPECT_EQ(log.count("Warning! Loaded file doesn't have internal name or parent id!"), 2U);
    EXPECT_FALSE(world.has("share_s.db.damaged-1"));
}

TEST(PersistenceTest, sharesThatCannotBeTakenCostOnlyThemselves) {
    SavedWorld world;
    LogCapture log;
    PropertyList::Dictionary list;
    list.append("shares",
                PropertyList::Array{"no json", 7, "{}",
                                    R"({"ShareName":"no id","Status":1,"ShareChanged":false,"Online":true,)"
                                    R"("TransmitCounter":0,"LastApplyedJournalTick":3})",
                                    R"({"ShareId":"x","ShareName":"Named","Status":1,"ShareChanged":false,)"
                                    R"("Online":true,"TransmitCounter":7,"LastApplyedJournalTick":3})"});
    list.append("globalresponce", 5);
    world.writeFile("shares.db", serialized(list, PropertyListForm::kXml));
    SavedWorld::Run run(world);
    ASSERT_EQ(run.store.shares().size(), 1U);
    EXPECT_TRUE(run.store.shareWithPath("/Named")) << "the service's name stands in for the missing one";
    EXPECT_EQ(log.count("Warning! Cannot deserialize share from metadata storage. Error "), 3U);
}

TEST(PersistenceTest, aJournalThatWasNotTakenOverIsNeverLost) {
    for (const std::string what :
         {"no shares file", "damaged shares file", "never loaded", "an entry that cannot be read"}) {
        SavedWorld world;
        world.journal.texts = {"one", "two"};
        const bool damaged = what.starts_with("an entry");
        if (damaged) world.journal.texts.emplace_back("bad");
        ASSERT_TRUE(world.save());
        const auto journal = parsed(world.readFile("journal.db"));
        if (what == "no shares file") fs::remove(world.layout.rootCachePath() + "/shares.db");
        if (what == "damaged shares file") world.writeFile("shares.db", "x");
        if (what == "never loaded") {
            testing::TextJournal empty;
            TWMetadataStorage store({world.layout, world.clock, world.background, [] { return ""; }, [] {}});
            store.persistence().setJournal(&empty);
            ASSERT_TRUE(store.persistence().save());
        } else {
            SavedWorld::Run run(world);
            EXPECT_EQ(run.journal.texts.size(), damaged ? 2U : 0U) << what;
            ASSERT_TRUE(run.store.persistence().save());
        }
        const char* kept = damaged ? "journal.db.damaged-1" : "journal.db.unread-1";
        EXPECT_EQ(parsed(world.readFile(kept)), journal) << what;
    }
}

TEST(PersistenceTest, extendedAttributesMoveOutOfTheRecord) {
    SavedWorld world;
    const auto file = SavedWorld::file("f", "s", "name");
    ASSERT_TRUE(world.save());
    auto record = saveToDictionary(*file);
    PropertyList::Dictionary attributes;
    attributes.append("user.note", "AQID");
    attributes.append("broken", "not base64!");
    attributes.append("strange", 5);
    record.append("ExtendedAttributes", attributes);
    PropertyList::Dictionary list;
    list.append("files", PropertyList::Array{record});
    world.writeFile("share_s.db", serialized(list, PropertyListForm::kBinary));

    SavedWorld::Run run(world);
    const std::string bytes = world.temporary.read("data/Tarnwell/Files/s/f.attrs");
    PropertyList::Dictionary expected;
    expected.append("user.note", PropertyList::Data{"\x01\x02\x03"});
    EXPECT_EQ(parsed(bytes), expected);
    ASSERT_TRUE(run.store.persistence().save());
    EXPECT_EQ(world.readFile("share_s.db").find("user.note"), std::string::npos);
}

TEST(PersistenceTest, theOldDatabaseIsMigratedAndGoesOnlyThen) {
    SavedWorld world;
    LogCapture log;
    ASSERT_TRUE(world.save());
    PropertyList::Dictionary old = parsed(world.readFile("shares.db"));
    old.append("journal", PropertyList::Array{"entry"});
    old.append("files", PropertyList::Array{saveToDictionary(*SavedWorld::folder("d", "s", "docs")), 7,
                                            saveToDictionary(*SavedWorld::file("f", "d", "name"))});
    world.store.persistence().clear();
    world.writeFile("metadata.plist", serialized(old, PropertyListForm::kXml));

    world.blockFile("share_s.db");
    EXPECT_EQ(SavedWorld::Run(world).path("f"), "/Share/docs/name");
    EXPECT_TRUE(world.has("metadata.plist")) << "the new files could not be written";
    world.unblockFile("share_s.db");
    for (const char* round : {"migration", "afterwards"}) {
        SavedWorld::Run run(world);
        EXPECT_EQ(run.path("f"), "/Share/docs/name") << round;
        EXPECT_THAT(run.journal.texts, ElementsAre("entry")) << round;
        EXPECT_FALSE(world.has("metadata.plist")) << round;
    }
    EXPECT_EQ(log.count("Migration succeeded."), 1U);

    world.writeFile("metadata.plist", "<plist>");
    EXPECT_EQ(SavedWorld::Run(world).path("f"), "/Share/docs/name") << "a damaged one takes nothing away";
    EXPECT_TRUE(world.has("metadata.plist.damaged-1"));
}

TEST(PersistenceTest, clearLeavesNothingOfTheUser) {
    SavedWorld world;
    world.store.addFileMetadata(SavedWorld::file("f", "s", "name"));
    world.journal.texts = {"entry"};
    world.store.setGlobalLoginResponce("{}");
    ASSERT_TRUE(world.save());
    for (const char* name : {"share_x.db.damaged-1", "journal.db.unread-2", "share_s.db.new", "stray.db",
                             "other.txt", "metadata.plist"})
        world.writeFile(name, "x");
    world.store.persistence().clear();
    EXPECT_TRUE(storeFileNames(world.layout.rootCachePath(), true).empty());
    EXPECT_TRUE(world.has("other.txt"));
    EXPECT_TRUE(world.store.storageEmpty() && world.store.shares().empty());
    EXPECT_EQ(world.store.fileCount(), 0U);
    EXPECT_TRUE(world.journal.texts.empty());

    // The same user again: nothing of before counts as saved.
    world.addShare("s", "Share");
    world.store.addFileMetadata(SavedWorld::file("f", "s", "again"));
    ASSERT_TRUE(world.save());
    fs::remove(world.layout.rootCachePath() + "/metadata.plist");
    EXPECT_EQ(SavedWorld::Run(world).path("f"), "/Share/again");
}

/// Files of each form as they were written once: every later program reads them.
TEST(PersistenceTest, readsTheFilesOfEarlierPrograms) {
    for (const char* kind : {"current", "migration"}) {
        SavedWorld world;
        for (const auto& entry : fs::directory_iterator(std::string(TARNWELL_TEST_DATA) + "/store/" + kind))
            fs::copy(entry.path(), world.layout.rootCachePath());
        SavedWorld::Run run(world);
        EXPECT_EQ(run.path("Fdocs"), "/Papers/docs") << kind;
        EXPECT_EQ(run.path("Freport"), "/Papers/docs/Übersicht.odt") << kind;
        EXPECT_EQ(run.tick("S1"), 1234) << kind;
        EXPECT_EQ(run.store.shareWithId("S1")->ShareAcl->AclToken, "token") << kind;
        EXPECT_EQ(run.store.globalLoginResponce(), "{\"ErrorCode\":\"U100\"}") << kind;
        EXPECT_EQ(run.journal.texts.size(), 1U) << kind;
        const auto report = run.store.fileWithId("Freport");
        ASSERT_TRUE(report) << kind;
        EXPECT_EQ(report->EndOfFile, 5'000'000'000) << kind;
        EXPECT_EQ(report->Tick, 1200) << kind;
        EXPECT_EQ(JSONObjectFromNSDate(report->LastWriteTime), "2015-03-02T10:11:12.000Z") << kind;
        EXPECT_EQ(report->Synchronize, true) << kind;
        EXPECT_EQ(report->POSIXPermissions, 0640) << kind;
    }
}

}  // namespace
}  // namespace tarnwell
