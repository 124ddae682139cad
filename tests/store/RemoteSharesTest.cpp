#include <filesystem>
#include <map>

#include "store/ContentVersion.h"
#include "store/JournalWorld.h"
#include "store/StorePersistence.h"
#include "store/StoreWorld.h"
#include "support/LogCapture.h"

namespace tarnwell {
namespace {

using testing::LogCapture;
using testing::StoreWorld;

struct SharesWorld : StoreWorld {
    void login(const std::vector<ManagedSharePtr>& listed, const std::string& domainId = "dom") {
        UserDomain domain;
        domain.Domain.emplace();
        domain.Domain->DomainId = domainId;
        domain.Domain->Url = domainId + ".example";
        store.remoteChanges().updateShares(listed, domain);
    }
    [[nodiscard]] std::string name(std::string_view shareId) const {
        const auto found = store.shareWithId(shareId);
        return found ? found->DisplayName.value_or("?") : "-";
    }
};

TEST(RemoteSharesTest, newSharesGetNamesOfTheirOwn) {
    const LogCapture log;
    SharesWorld world;
    auto nameless = StoreWorld::makeShare("6", "");
    nameless->ShareName.reset();
    const auto docs = StoreWorld::makeShare("1", "Docs");
    docs->ShareAcl.emplace();
    docs->ShareAcl->AclToken = "a%2Fb%3d%zz";
    const auto second = StoreWorld::makeShare("2", "docs");
    second->ShareAcl.emplace();
    second->ShareAcl->AclToken = "a%2Fb%3D+";
    second->TransmitCounter = 9;
    world.login({docs, second, StoreWorld::makeShare("3", "DOCS (2)"), StoreWorld::makeShare("4", "../up"),
                 StoreWorld::makeShare("5", ".."), nameless, StoreWorld::makeShare("", "no id"), nullptr,
                 StoreWorld::makeShare("8", "share")});
    const struct {
        const char *id, *name;
    } cases[] = {{"1", "Docs"}, {"2", "docs (2)"}, {"3", "DOCS (2) (2)"}, {"4", ".._up"},
                 {"5", ".._"},  {"6", "_"},        {"8", "share (2)"}};
    for (const auto& [id, name] : cases) {
        EXPECT_EQ(world.name(id), name);
        EXPECT_EQ(world.store.shareWithPath(std::string("/") + name), world.store.shareWithId(id));
    }
    EXPECT_EQ(world.store.shares().size(), std::size(cases) + 1);
    EXPECT_EQ(docs->ShareAcl->AclToken, "a%2Fb%3d%zz");  // not an escaped text: kept
    EXPECT_EQ(second->ShareAcl->AclToken, "a/b=+");
    EXPECT_EQ(second->LastApplyedJournalTick, -1);
    EXPECT_EQ(second->TransmitCounter, 0);
    EXPECT_EQ(second->GateWayUrl, "dom.example");
    EXPECT_TRUE(world.temporary.exists("data/Tarnwell/Files/2"));
    EXPECT_EQ(log.count("b="), 0U) << "tokens are not logged";
}

TEST(RemoteSharesTest, remoteNamesAreFollowedUnlessTheUserHasOne) {
    // Local name before, service's name before and after, another share's name; local name after.
    const struct {
        const char *local, *before, *after, *taken, *expected;
    } cases[] = {
        {"A", "A", "B", "", "B"},
        {"A", "A", "B", "b", "B (2)"},
        {"A (2)", "A", "B", "", "A (2) (B)"},
        {"A (2)", "A", "B", "a (2) (b)", "A (2) (B) (2)"},
        {"Mine", "A", "A", "", "Mine"},
        {"A", "A", "a", "", "a"},
    };
    for (const auto& [local, before, after, taken, expected] : cases) {
        const LogCapture log;
        SharesWorld world;
        const auto old = StoreWorld::makeShare("1", before);
        world.login({old, StoreWorld::makeShare("2", *taken ? taken : "zzz")});
        ASSERT_TRUE(world.store.renameShare(old, local));
        old->LastApplyedJournalTick = 5;
        old->TransmitCounter = 1;
        old->Synchronize = true;
        world.store.addFileMetadata(StoreWorld::fileOf("1", "f", "1", "f"));

        const auto listed = StoreWorld::makeShare("1", after);
        world.login({listed, StoreWorld::makeShare("2", *taken ? taken : "zzz")});
        EXPECT_EQ(world.store.shareWithId("1"), listed);
        EXPECT_EQ(world.name("1"), expected);
        EXPECT_EQ(world.path("f"), std::string("/") + expected + "/f");
        EXPECT_EQ(listed->LastApplyedJournalTick, 5);
        EXPECT_EQ(listed->TransmitCounter, 1);
        EXPECT_EQ(listed->Synchronize, true);
        EXPECT_EQ(log.count("renamed remotely - renaming to " + std::string(expected) + "."),
                  std::string(before) == after ? 0U : 1U);
    }
}

TEST(RemoteSharesTest, whatIsNoLongerListedGoesWithItsData) {
    SharesWorld world;
    world.login({StoreWorld::makeShare("1", "One")});
    world.login({StoreWorld::makeShare("2", "Two")}, "other");
    for (const char* id : {"1", "2", "s"}) {
        auto folder = StoreWorld::folder(std::string("d") + id, id, "d");
        auto file = StoreWorld::file(std::string("f") + id, std::string("d") + id, "f");
        auto orphan = StoreWorld::file(std::string("o") + id, "gone", "orphan");
        for (const auto& item : {folder, file, orphan}) {
            item->ShareId = id;
            world.store.addFileMetadata(item);
            world.store.updateFilePathes(item);
        }
    }
    const std::string cache = "data/Tarnwell/Files/1/f1";
    world.temporary.write(cache, "bytes");
    world.login({});
    EXPECT_EQ(world.name("1"), "-");
    EXPECT_EQ(world.path("d1") + world.path("f1") + world.path("o1"), "---");
    EXPECT_EQ(world.path("f2"), "/Two/d/f");
    EXPECT_EQ(world.path("o2"), "/__orphaned_files__/orphan");
    EXPECT_FALSE(world.temporary.exists(cache));

    // The same share again before the background came to the old one's folder.
    world.login({StoreWorld::makeShare("1", "One")});
    world.temporary.write(cache, "new bytes");
    world.background.runAll();
    EXPECT_EQ(world.temporary.read(cache), "new bytes");

    world.store.remoteChanges().deleteDomainShares({"dom"});
    EXPECT_EQ(world.name("2") + world.name("s"), "--");
    EXPECT_EQ(world.name("1"), "One");
    EXPECT_EQ(world.store.fileCount(), 0U);
}

/// Contents of the kept files, by path below "Kept/<share>/<date>".
std::map<std::string, std::string> keptIn(const CacheLayout& layout) {
    namespace fs = std::filesystem;
    std::map<std::string, std::string> kept;
    if (!fs::exists(KeptFiles::folderIn(layout))) return kept;
    for (const auto& entry : fs::recursive_directory_iterator(KeptFiles::folderIn(layout))) {
        if (!entry.is_regular_file() || entry.path().filename() == "Kept.txt") continue;
        fs::path shown;
        const auto below = fs::relative(entry.path(), KeptFiles::folderIn(layout));
        for (auto part = std::next(below.begin(), 2); part != below.end(); ++part)
            shown /= *part;
        kept[shown.native()] = testing::bytesOf(entry.path().native());
    }
    return kept;
}

/// Whether the share goes while the client runs or while it was stopped, and whichever of the bytes are in
/// the cache or in an upload copy.
TEST(RemoteSharesTest, unsentContentsOfAShareThatGoesAreKept) {
    for (const std::string way : {"not listed", "not listed after a restart", "domain gone", "no room"}) {
        const LogCapture log;
        testing::JournalWorld world;
        world.store.persistence().load();
        world.share->DomainId = "dom";
        world.store.insertShare(world.share);
        world.known("fa", "a", "AAAA");
        world.known("fb", "b", "BB");
        world.known("d", "d", nullptr);
        ASSERT_TRUE(world.store.persistence().save());
        world.run("write a XXXX");
        world.background.runAll();
        world.run("create n;write n NN;create d/m;write d/m MMM;create ~local");
        {
            // Being written.
            const auto change = world.store.beginLocalChange();
            const auto file = world.item("b");
            file->LocallyUpdated = true;
            world.store.noteContentsChanged(*file);
        }
        // The copy alone has the contents of "a".
        std::filesystem::remove(world.layout.cachePathForFile(*world.item("a")));
        UserDomain domain;
        domain.Domain.emplace();
        domain.Domain->DomainId = "dom";
        const auto goes = [&](TWMetadataStorage& store) {
            if (way == "domain gone") {
                store.remoteChanges().deleteDomainShares({"other"});
            } else {
                store.remoteChanges().updateShares({}, domain);
            }
        };
        const std::map<std::string, std::string> unsent{
            {"a", "XXXX"}, {"b", "BB"}, {"n", "NN"}, {"d/m", "MMM"}, {"~local", ""}};
        if (way == "no room") {
            world.temporary.write("data/Tarnwell/Kept", "in the way");
            goes(world.store);
            EXPECT_NE(world.store.shareWithId("s"), nullptr) << "tried again when it is not listed again";
            EXPECT_EQ(testing::bytesOf(world.layout.cachePathForFile(*world.item("n"))), "NN");
            std::filesystem::remove(world.temporary.path("data/Tarnwell/Kept"));
        }
        if (way == "not listed after a restart") {
            testing::ManualExecutor background;
            TWMetadataStorage next(
                {world.layout, world.clock, background, [] { return std::string(); }, [] {}});
            next.persistence().load();
            goes(next);
            background.runAll();
            EXPECT_TRUE(next.shares().empty());
        } else {
            goes(world.store);
            world.background.runAll();
            EXPECT_TRUE(world.store.shares().empty()) << way;
            EXPECT_TRUE(world.journal().journalItems().empty()) << way;
        }
        EXPECT_EQ(keptIn(world.layout), unsent) << way << log.text();
        if (way != "not listed") continue;

        std::vector<KeptFiles::Notice> notices;
        world.store.keptFiles().setObserver([&](const KeptFiles::Notice& each) { notices.push_back(each); });
        world.store.remoteChanges().updateShares({StoreWorld::makeShare("s", "Back")}, domain);
        ASSERT_EQ(notices.size(), 1U);
        EXPECT_EQ(notices[0].offered, unsent.size());
        EXPECT_EQ(notices[0].drivePath, "/Back");
        EXPECT_EQ(keptIn(world.layout), unsent) << "offered, not taken";
    }
}

}  // namespace
}  // namespace tarnwell
