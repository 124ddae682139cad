// What cache files say of themselves, and what a start makes of it.

#include "store/CacheRecovery.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/LocalSocket.h"
#include "store/KeptFiles.h"
#include "store/SavedWorld.h"
#include "support/LogCapture.h"

/// The file system keeps no extended attributes. Asked by the calls that ChangeLogTest.cpp leads there.
bool withoutAttributes = false;

namespace tarnwell {
namespace {

namespace fs = std::filesystem;
using testing::LogCapture;
using testing::SavedWorld;
using testing::StoreWorld;
using testing::TemporaryFolder;

struct WithoutAttributes {
    WithoutAttributes() { withoutAttributes = true; }
    ~WithoutAttributes() { withoutAttributes = false; }
};

TEST(ContentVersionTest, followsTheFileAlsoWithoutAttributes) {
    for (const bool attributes : {true, false}) {
        SCOPED_TRACE(attributes);
        const StoreWorld world;
        std::optional<WithoutAttributes> without;
        if (!attributes) without.emplace();
        const auto a = world.temporary.write("a", "one");
        const auto b = world.temporary.write("b", "two");
        EXPECT_FALSE(ContentVersion::of(a));
        ASSERT_EQ(ContentVersion::clean("U1").set(a), 0);
        ASSERT_EQ(ContentVersion::edited("U2").set(b), 0);
        ASSERT_EQ(::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE), 0);
        EXPECT_EQ(ContentVersion::of(b), ContentVersion::clean("U1"));
        EXPECT_EQ(ContentVersion::of(a), ContentVersion::edited("U2"));
        EXPECT_FALSE(ContentVersion::of(a)->isOf("U1"));
        const OwnedDescriptor open(::open(b.c_str(), O_RDWR | O_CLOEXEC));
        ::unlink(b.c_str());
        ASSERT_EQ(ContentVersion::unsynced("U1").set(open.get()), 0);
        EXPECT_TRUE(ContentVersion::of(open.get())->isOf("U1"));
        ASSERT_NE(ContentVersion::clean("U1").set(b), 0) << "there is no such file";
    }
    // Bytes that changed since are not what was stamped, where that can be told.
    const StoreWorld world;
    const WithoutAttributes without;
    const auto path = world.temporary.write("c", "one");
    ASSERT_EQ(ContentVersion::clean("U1").set(path), 0);
    world.temporary.write("c", "three");
    EXPECT_FALSE(ContentVersion::of(path));
}

TEST(CacheRecoveryTest, bytesCountForWhatTheySayTheyAre) {
    using Action = CacheRecovery::Action;
    using Case = CacheRecovery::Case;
    const auto clean = ContentVersion::clean("U"), other = ContentVersion::clean("V");
    const auto edited = ContentVersion::edited("U"), editedOther = ContentVersion::edited("V");
    const auto unsent = ContentVersion::unsent("U"), unsentOther = ContentVersion::unsent("V");
    const struct {
        const char* what;
        Case file;
        Action action;
    } cases[] = {
        {"the record's", {.version = clean}, Action::kLeave},
        {"cut off", {.version = clean, .size = 3}, Action::kDrop},
        {"another version", {.version = other}, Action::kDrop},
        {"of nobody", {}, Action::kDrop},
        {"of an older client", {.migrating = true}, Action::kStampClean},
        {"of an older client, cut off", {.size = 3, .migrating = true}, Action::kDrop},
        {"of an older client, unsent", {.pending = true, .migrating = true}, Action::kStampUnsent},
        {"being edited", {.version = edited, .marked = true}, Action::kLeave},
        {"marked only", {.version = clean, .marked = true}, Action::kLeave},
        {"a replacement that never began", {.size = 0, .marked = true}, Action::kUnmark},
        {"edited, the mark is lost", {.version = edited}, Action::kJournal},
        {"journalled, the stamp is lost", {.version = editedOther, .pending = true}, Action::kStampUnsent},
        {"edited since it was journalled",
         {.version = edited, .pending = true, .pendingOther = true},
         Action::kJournal},
        {"edited, of another version", {.version = editedOther}, Action::kKeep},
        {"waits to be sent", {.version = unsent, .pending = true}, Action::kLeave},
        {"was sent", {.version = unsent}, Action::kStampClean},
        {"was sent or its entry is lost", {.version = unsent, .damaged = true}, Action::kJournal},
        {"unsent, the record is lost", {.version = unsentOther}, Action::kKeep},
        {"a name that takes no part", {.version = editedOther, .takesNoPart = true}, Action::kLeave},
        {"only here", {.takesNoPart = true, .onServer = false}, Action::kLeave},
    };
    for (auto [what, file, action] : cases) {
        file.uploadName = "U";
        file.recordSize = 5;
        if (file.size == 0 && action != Action::kUnmark) file.size = 5;
        EXPECT_EQ(CacheRecovery::decide(file), action) << what;
    }
}

TEST(CacheRecoveryTest, aStartSettlesTheCache) {
    const LogCapture log;
    SavedWorld world;
    world.share->LastApplyedJournalTick = 7;
    const auto add = [&](const char* id, const std::optional<ContentVersion>& version) {
        world.store.addFileMetadata(StoreWorld::file(id, "s", id));
        const auto path = world.temporary.write("data/Tarnwell/Files/s/" + std::string(id), "x");
        EXPECT_EQ(version ? version->set(path) : 0, 0);
    };
    add("mine", ContentVersion::clean("Umine"));
    add("old", std::nullopt);
    add("stale", ContentVersion::clean("Uolder"));
    add("lost", ContentVersion::unsent("Ulost"));
    world.store.deleteFileMetadata(world.store.fileWithId("lost"));
    ASSERT_TRUE(world.save());
    const auto cached = [&](const char* id) {
        return world.temporary.exists("data/Tarnwell/Files/s/" + std::string(id));
    };
    {
        // A cache of an older client: what fits is taken for what it was.
        const SavedWorld::Run run(world);
        EXPECT_TRUE(run.store.hasWholeContents(*run.store.fileWithId("mine")));
        EXPECT_TRUE(run.store.hasWholeContents(*run.store.fileWithId("old")));
        EXPECT_FALSE(cached("stale") || cached("lost"));
        EXPECT_EQ(KeptFiles::count(world.layout), 1U);
    }
    // Once; and after a clean end the cache is not walked.
    ASSERT_EQ(::removexattr((world.layout.filesCachePath() + "/s/old").c_str(), ContentVersion::kAttribute),
              0);
    {
        const SavedWorld::Run run(world);
        EXPECT_FALSE(run.store.holdsContents(*run.store.fileWithId("old")));
        EXPECT_TRUE(cached("old"));
    }
    // Lost records: unsent bytes wait for them.
    add("lost", ContentVersion::unsent("Ulost"));
    fs::remove(world.temporary.path(world.inTemporary("share_s.db")));
    for (int start = 0; start < 2; ++start) {
        SavedWorld::Run run(world);
        EXPECT_TRUE(cached("lost") && cached("mine"));
    }
    SavedWorld::Run run(world);
    auto page = {StoreWorld::file("mine", "s", "mine"), StoreWorld::file("old", "s", "old"),
                 StoreWorld::file("lost", "s", "lost")};
    (*(page.end() - 1))->UploadName = "Uforeign";
    run.store.remoteChanges().updateFiles(page, 8, run.store.shareWithId("s"));
    EXPECT_TRUE(run.store.holdsContents(*run.store.fileWithId("mine")));
    EXPECT_FALSE(run.store.holdsContents(*run.store.fileWithId("old")));
    EXPECT_FALSE(run.store.holdsContents(*run.store.fileWithId("lost")));
    EXPECT_EQ(KeptFiles::count(world.layout), 2U);
}

}  // namespace
}  // namespace tarnwell
