// What stands on disk, and what comes back from it.

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>

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
    file.LastUploadName = "Uold";
    file.ArchivedFullName = "archived";
    file.FilehHash = "D4-1D";
    file.User = "ann@example.org";
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
    other->ShareAcl = ShareACL{
        .ShareId = {}, .AclType = 0, .ShareShareRights = {}, .FileShareRights = {}, .AclToken = "t\"\\\n"};
    other->Synchronize = true;
    other->LastUpdate = 1.5;
    store.addFileMetadata(SavedWorld::fileOf("../o/th%er", "f9", "../o/th%er", "x"));
    store.setGlobalLoginResponce("{\"ErrorCode\":\"U100\",\r\n\"x\":\"<&>\"}");
    world.journal.texts = {"first", "<second> ü"};
    ASSERT_TRUE(world.save());

    EXPECT_THAT(storeFileNames(world.layout.rootCachePath(), true),
                ::testing::UnorderedElementsAre("shares.db", "journal.db", "share_s.db",
                                                "share_%2E.%2Fo%2Fth%25er.db"));
    SavedWorld::Run run(world);
    EXPECT_FALSE(run.store.storageEmpty());
    EXPECT_EQ(run.store.fileCount(), store.fileCount());
    for (const auto& file : store.allFiles()) {
        const auto loaded = run.store.fileWithId(file->InternalName.view());
        ASSERT_TRUE(loaded) << file->InternalName;
        TWVirtualFile expected = *file;
        expected.OnlyLocal.reset();
        if (expected.FullPath.empty()) expected.FullPath = run.store.fuseFilePath(*loaded);
        EXPECT_TRUE(recordsEqual(expected, *loaded)) << file->InternalName;
        EXPECT_EQ(run.store.fileWithPath(loaded->FullPath.view()), loaded) << loaded->FullPath;
    }
    EXPECT_EQ(run.path("f1"), "/Share/docs/inner/Ä report 🗎.TXT");
    EXPECT_EQ(run.path("f3"), "/__orphaned_files__/lost");
    EXPECT_EQ(run.path("a"), "/__orphaned_files__/loop a");
    auto expectedShare = *other;
    expectedShare.TransmitCounter = 0;
    EXPECT_TRUE(recordsEqual(expectedShare, *run.store.shareWithPath("/OTHER & <more>")));
    EXPECT_THAT(run.journal.texts, ElementsAre("first", "<second> ü"));
    EXPECT_EQ(run.store.globalLoginResponce(), "{\"ErrorCode\":\"U100\",\r\n\"x\":\"<&>\"}");
    EXPECT_TRUE(fs::is_directory(run.store.layout().cachePathForShare(*other)));

    const auto before = world.files();
    EXPECT_TRUE(run.store.persistence().save());
    EXPECT_EQ(world.changedSince(before).find("share_"), std::string::npos) << "as they were loaded";
}

TEST(PersistenceTest, anEmptyFolderIsAnEmptyStore) {
    SavedWorld world;
    SavedWorld::Run run(world);
    EXPECT_TRUE(run.store.storageEmpty());
    run.store.setGlobalLoginResponce("{}");
    EXPECT_FALSE(run.store.storageEmpty()) << "a login is worth keeping";
    EXPECT_TRUE(run.store.persistence().save());
    SavedWorld::Run next(world);
    EXPECT_FALSE(next.store.storageEmpty());
    EXPECT_EQ(next.store.globalLoginResponce(), "{}");
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
        {"size",
         [&] {
             file->EndOfFile = 9;
             store.noteAttributesChanged(*file);
         },
         "share_s.db"},
        {"contents",
         [&] {
             file->UploadName = "U9";
             store.noteContentsChanged(*file);
         },
         "share_s.db"},
        {"download date",
         [&] {
             file->DownloadDate = world.clock.now();
             store.markChanged(*file);
         },
         "share_s.db"},
        {"name",
         [&] {
             file->PublicName = "z";
             store.updateFilePathes(file);
         },
         "share_s.db"},
        {"new item", [&] { store.createFile("n", world.share, nullptr, false); }, "share_s.db"},
        {"replaced record", [&] { store.addFileMetadata(SavedWorld::file("f", "s", "z", 8)); }, "share_s.db"},
        {"item of the other share", [&] { store.addFileMetadata(SavedWorld::fileOf("t", "g", "t", "g")); },
         "share_t.db"},
        {"removed item", [&] { store.deleteFileMetadata(store.fileWithId("g")); }, "share_t.db"},
        {"tick of an empty page", [&] { world.merge({}, 12); }, "shares.db"},
        {"page", [&] { world.merge({SavedWorld::file("h", "s", "h")}, 13); }, "share_s.db shares.db"},
        {"page of what is known", [&] { world.merge({SavedWorld::file("h", "s", "h")}, 13); }, "shares.db"},
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
    EXPECT_TRUE(world.has("share_t.db"));
    store.deleteShareData(store.shareWithId("t"));
    world.save();
    EXPECT_FALSE(world.has("share_t.db")) << "what the user has no more is not kept";
    SavedWorld::Run run(world);
    EXPECT_EQ(run.store.fileCount(), store.fileCount());
    EXPECT_EQ(run.tick("s"), 13);
}

/// Saves a share "s" of 20 records at tick 50 beside "t" of one at tick 60, changes the file, loads.
struct DamageCase {
    const char* what;
    std::function<std::string(std::string)> change;
    std::size_t atLeast;  // records of "s" that are read
    bool setAside;
};

TEST(PersistenceTest, damagedShareFilesAreSetAsideAndCaughtUpAgain) {
    PropertyList nested{PropertyList::Array{}};
    for (int depth = 0; depth < 60; ++depth)
        nested = PropertyList(PropertyList::Array{nested});
    const auto binary = [](const PropertyList& value) {
        return serialized(value, PropertyListForm::kBinary);
    };
    const auto withFiles = [&](PropertyList files) {
        PropertyList::Dictionary list;
        list.append("files", std::move(files));
        return binary(list);
    };
    const DamageCase cases[] = {
        {"half", [](std::string bytes) { return bytes.substr(0, bytes.size() / 2); }, 0, true},
        {"empty", [](const std::string&) { return ""; }, 0, true},
        {"text", [](const std::string&) { return "hello"; }, 0, true},
        {"no dictionary", [&](const std::string&) { return binary("text"); }, 0, true},
        {"no records", [&](const std::string&) { return binary(PropertyList::Dictionary()); }, 0, true},
        {"files are no list", [&](const std::string&) { return withFiles(5); }, 0, true},
        {"elements are no records",
         [&](const std::string&) {
             return withFiles(PropertyList::Array{5, "x", nested});
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
        EXPECT_EQ(log.contains("Warning! Cannot load data for share Share (s)"), test.setAside) << test.what;
        // What was read is written again, and the tick waits for the catch-up.
        ASSERT_TRUE(run.store.persistence().save()) << test.what;
        SavedWorld::Run next(world);
        EXPECT_EQ(next.tick("s"), run.tick("s")) << test.what;
        EXPECT_EQ(next.store.fileCount(), run.store.fileCount()) << test.what;
        EXPECT_FALSE(world.has("share_s.db.damaged-2")) << test.what;
    }
}

TEST(PersistenceTest, noFileCutShortStopsTheLoad) {
    SavedWorld world;
    world.store.addFileMetadata(SavedWorld::file("f", "s", "name"));
    world.journal.texts = {"entry"};
    ASSERT_TRUE(world.save());
    for (const char* name : {"share_s.db", "shares.db", "journal.db"}) {
        const std::string whole = world.readFile(name);
        // What closes the XML after the last value is not missed.
        const std::size_t end = std::min(whole.size(), whole.find("</dict>"));
        for (std::size_t size = 0; size < end; size += 1 + whole.size() / 80) {
            world.writeFile(name, whole.substr(0, size));
            SavedWorld::Run run(world);
            ASSERT_TRUE(world.has(std::string(name) + ".damaged-1")) << name << " " << size;
            EXPECT_EQ(run.store.storageEmpty(), std::string(name) == "shares.db");
            fs::remove(world.layout.rootCachePath() + "/" + name + ".damaged-1");
        }
        world.writeFile(name, whole);
    }
    EXPECT_EQ(SavedWorld::Run(world).path("f"), "/Share/name");
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
        SavedWorld::Run run(world);
        EXPECT_EQ(run.tick("s"), -1);
        EXPECT_EQ(run.store.fileCount(), 0U);
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
    add(SavedWorld::file("slash", "s", "a/b"));
    auto unnamed = SavedWorld::folder("d", "s", "no share");
    unnamed->ShareId.reset();
    add(unnamed);
    PropertyList::Dictionary strange;
    const auto odd = saveToDictionary(*SavedWorld::file("odd", "d", "odd"));
    for (const auto& [key, value] : odd.entries())
        strange.append(key, key == "Tick" || key == "CreationTime" ? PropertyList("text") : value);
    strange.append("Unknown", true);
    files.emplace_back(strange);
    PropertyList::Dictionary list;
    list.append("files", files);
    world.writeFile("share_s.db", serialized(list, PropertyListForm::kBinary));

    SavedWorld::Run run(world);
    EXPECT_EQ(run.store.fileCount(), 4U);
    EXPECT_EQ(run.path("f"), "/Share/new");
    EXPECT_EQ(run.path("odd"), "/Share/no share/odd");
    EXPECT_EQ(run.store.fileWithId("d")->POSIXPermissions, 0700);
    EXPECT_EQ(run.store.fileWithId("f")->POSIXPermissions, 0600);
    EXPECT_EQ(run.path("slash"), "") << "such a name is no place on the drive";
    EXPECT_EQ(log.count("Warning! Loaded file doesn't have internal name or parent id!"), 2U);
    EXPECT_FALSE(world.has("share_s.db.damaged-1"));
}

TEST(PersistenceTest, sharesThatCannotBeTakenCostOnlyThemselves) {
    SavedWorld world;
    LogCapture log;
    PropertyList::Dictionary list;
    list.append("shares", PropertyList::Array{
                              "no json", 7, "{}",
                              "{\"ShareName\":\"no "
                              "id\",\"Status\":1,\"ShareChanged\":false,\"Online\":true,\"TransmitCounter\":"
                              "0,\"LastApplyedJournalTick\":3}",
                              "{\"ShareId\":\"x\",\"ShareName\":\"Named\",\"Status\":1,\"ShareChanged\":"
                              "false,\"Online\":true,\"TransmitCounter\":7,\"LastApplyedJournalTick\":3}"});
    list.append("globalresponce", 5);
    world.writeFile("shares.db", serialized(list, PropertyListForm::kXml));
    SavedWorld::Run run(world);
    ASSERT_EQ(run.store.shares().size(), 1U);
    ASSERT_TRUE(run.store.shareWithPath("/Named")) << "the service's name stands in for the missing one";
    EXPECT_EQ(run.store.shareWithPath("/Named")->TransmitCounter, 0);
    EXPECT_EQ(run.store.globalLoginResponce(), "");
    EXPECT_EQ(log.count("Warning! Cannot deserialize share from metadata storage. Error "), 3U);
    EXPECT_EQ(log.count("Warning! Deserialized share doesn't have share id!"), 1U);
}

TEST(PersistenceTest, aJournalThatWasNotTakenOverIsNeverLost) {
    const auto journalOf = [](const SavedWorld& world, const std::string& name) {
        return serialized(parsed(world.readFile(name)), PropertyListForm::kXml);
    };
    for (const char* what :
         {"no shares file", "damaged shares file", "never loaded", "an entry that cannot be read"}) {
        SavedWorld world;
        const std::string which = what;
        world.journal.texts = {"one", "two"};
        if (which.starts_with("an entry")) world.journal.texts.emplace_back("bad");
        ASSERT_TRUE(world.save());
        const std::string journal = journalOf(world, "journal.db");
        if (which == "no shares file") fs::remove(world.layout.rootCachePath() + "/shares.db");
        if (which == "damaged shares file") world.writeFile("shares.db", "x");
        std::string kept = "journal.db.unread-1";
        if (which == "never loaded") {
            testing::TextJournal empty;
            TWMetadataStorage store({world.layout, world.clock, world.background, [] { return ""; }, [] {}});
            store.persistence().setJournal(&empty);
            ASSERT_TRUE(store.persistence().save());
        } else {
            SavedWorld::Run run(world);
            if (which.starts_with("an entry")) {
                kept = "journal.db.damaged-1";
                EXPECT_THAT(run.journal.texts, ElementsAre("one", "two"));
            } else {
                EXPECT_TRUE(run.journal.texts.empty()) << what;
            }
            ASSERT_TRUE(run.store.persistence().save());
        }
        EXPECT_EQ(journalOf(world, kept), journal) << what;
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
    list.append("files", PropertyList::Array{
                             record, saveToDictionary(*SavedWorld::file("g", "s", "ExtendedAttributes"))});
    world.writeFile("share_s.db", serialized(list, PropertyListForm::kBinary));

    SavedWorld::Run run(world);
    const std::string bytes = world.temporary.read("data/Tarnwell/Files/s/f.attrs");
    PropertyList::Dictionary expected;
    expected.append("user.note", PropertyList::Data{"\x01\x02\x03"});
    EXPECT_EQ(parsed(bytes), expected);
    EXPECT_FALSE(world.temporary.exists("data/Tarnwell/Files/s/g.attrs"));
    ASSERT_TRUE(run.store.persistence().save());
    EXPECT_EQ(parsed(world.readFile("share_s.db")).find("files")->get<PropertyList::Array>()->size(), 2U);
    const std::string saved = world.readFile("share_s.db");
    EXPECT_EQ(saved.find("user.note"), std::string::npos);
    EXPECT_EQ(SavedWorld::Run(world).path("g"), "/Share/ExtendedAttributes");
}

TEST(PersistenceTest, theOldDatabaseIsMigratedAndGoesOnlyThen) {
    for (const auto form : {PropertyListForm::kXml, PropertyListForm::kBinary}) {
        SavedWorld world;
        LogCapture log;
        world.store.addFileMetadata(SavedWorld::folder("d", "s", "docs"));
        ASSERT_TRUE(world.save());
        PropertyList::Dictionary old = parsed(world.readFile("shares.db"));
        old.append("journal", PropertyList::Array{"entry"});
        auto file = saveToDictionary(*SavedWorld::file("f", "d", "name"));
        PropertyList::Dictionary attributes;
        attributes.append("user.note", "AQID");
        file.append("ExtendedAttributes", attributes);
        old.append("files",
                   PropertyList::Array{saveToDictionary(*SavedWorld::folder("d", "s", "docs")), 7, file});
        old.set("globalresponce", "{}");
        world.store.persistence().clear();
        world.writeFile("metadata.plist", serialized(old, form));

        world.blockFile("share_s.db");
        {
            SavedWorld::Run run(world);
            EXPECT_EQ(run.path("f"), "/Share/docs/name");
            EXPECT_TRUE(world.has("metadata.plist")) << "the new files could not be written";
            EXPECT_FALSE(log.contains("Migration succeeded."));
        }
        world.unblockFile("share_s.db");
        for (const char* round : {"migration", "afterwards"}) {
            SavedWorld::Run run(world);
            EXPECT_EQ(run.path("f"), "/Share/docs/name") << round;
            EXPECT_THAT(run.journal.texts, ElementsAre("entry")) << round;
            EXPECT_EQ(run.store.globalLoginResponce(), "{}") << round;
            EXPECT_FALSE(run.store.storageEmpty()) << round;
            EXPECT_FALSE(world.has("metadata.plist")) << round;
        }
        EXPECT_TRUE(world.temporary.exists("data/Tarnwell/Files/s/f.attrs"));
        EXPECT_TRUE(log.contains("Old database detected, migrating to the new database format..."));
        EXPECT_EQ(log.count("Migration succeeded."), 1U);

        world.writeFile("metadata.plist", "<plist>");
        EXPECT_EQ(SavedWorld::Run(world).path("f"), "/Share/docs/name") << "a damaged one takes nothing away";
        EXPECT_TRUE(world.has("metadata.plist.damaged-1"));
    }
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
    EXPECT_TRUE(world.has("metadata.plist"));
    EXPECT_TRUE(world.store.storageEmpty());
    EXPECT_TRUE(world.store.shares().empty());
    EXPECT_EQ(world.store.fileCount(), 0U);
    EXPECT_EQ(world.path("f"), "-");
    EXPECT_TRUE(world.journal.texts.empty());
    EXPECT_EQ(world.store.globalLoginResponce(), "");

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
        EXPECT_FALSE(report->DownloadDate) << kind;
        EXPECT_TRUE(report->IsFile) << kind;
    }
}

TEST(PersistenceTest, pythonReadsTheFiles) {
    SavedWorld world;
    world.store.addFileMetadata(SavedWorld::file("f", "s", "Ü 🗎"));
    world.journal.texts = {"entry <&>"};
    world.store.setGlobalLoginResponce("{}");
    ASSERT_TRUE(world.save());
    const std::string script = world.temporary.write("read.py", R"py(
import json, plistlib, sys
def load(name): return plistlib.load(open(sys.argv[1] + '/' + name, 'rb'))
shares = load('shares.db')
assert set(shares) == {'shares', 'globalresponce'} and shares['globalresponce'] == '{}'
assert [json.loads(text)['ShareId'] for text in shares['shares']] == ['s']
assert load('journal.db') == {'journal': ['entry <&>']}
files = load('share_s.db')
assert list(files) == ['files'] and len(files['files']) == 1
record = files['files'][0]
assert record['PublicName'] == '\u00dc \U0001f5ce' and record['ParrentId'] == 's' and record['IsFile'] is True
assert 'FullPath' not in record and 'DownloadDate' not in record
assert open(sys.argv[1] + '/shares.db', 'rb').read().startswith(b'<?xml')
assert open(sys.argv[1] + '/share_s.db', 'rb').read().startswith(b'bplist00')
)py");
    const int status = std::system(("python3 " + script + " " + world.layout.rootCachePath()).c_str());
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) GTEST_SKIP() << "no python3";
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace tarnwell
