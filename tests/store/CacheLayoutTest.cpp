#include "store/CacheLayout.h"

#include <filesystem>

#include "store/ManagedShare.h"
#include "support/TemporaryFolder.h"

namespace tarnwell {
namespace {

using testing::TemporaryFolder;
namespace fs = std::filesystem;

CacheLayout layoutIn(const TemporaryFolder& folder) {
    return CacheLayout(
        {folder.path("home"), folder.path("data"), folder.path("cache"), "Tarnwell", "Old Title"});
}

TEST(NameRulesTest, decideWhichNamesTakePart) {
    for (const char* name :
         {"Icon\r", "Icon", "Icon?", ".DS_Store", "~$report.docx", "draft.tmp", "._photo.jpg"}) {
        EXPECT_TRUE(CacheLayout::isPathIgnored(std::string("/Share/") + name, false)) << name;
        EXPECT_FALSE(CacheLayout::isPathIgnored(std::string("/Share/") + name, true)) << name;
    }
    for (const char* name : {"Icon.png", "report.TMP", "my~file", "icon", "tmp"}) {
        EXPECT_FALSE(CacheLayout::isPathIgnored(std::string("/.hidden/~x/") + name, false)) << name;
    }
}

TEST(NameRulesTest, convertFullPathsOfTheMountOnly) {
    const CacheLayout layout({"/home/\xC3\x89va", "/d", "/c", "Tarnwell", ""});
    std::string relative;
    EXPECT_TRUE(layout.fullPathToRelative("/HOME/\xC3\xA9va/tarnwell/Share/X", relative));
    EXPECT_EQ(relative, "/Share/X");
    EXPECT_TRUE(layout.fullPathToRelative("/home/\xC3\x89va/Tarnwell", relative));
    EXPECT_EQ(relative, "");
    for (const char* outside : {"/home/\xC3\x89va/Tarnwell2/x", "/home/\xC3\x89va", "/tmp", ""}) {
        EXPECT_FALSE(layout.fullPathToRelative(outside, relative)) << outside;
    }
}

TEST(CacheLayoutTest, noIdLeadsOutOfItsFolder) {
    const TemporaryFolder folder;
    const auto layout = layoutIn(folder);
    std::set<std::string> paths;
    const std::string_view hostile[] = {
        "", ".", "..", "../../x", "/etc/passwd", std::string_view("a\0b", 3), "a%00b"};
    for (const auto id : hostile) {
        ManagedShare share;
        share.ShareId = id;
        const std::string path = layout.cachePathForShare(share);
        EXPECT_EQ(fs::path(path).parent_path(), layout.filesCachePath()) << path;
        EXPECT_EQ(fs::path(path).lexically_normal(), path);
        EXPECT_TRUE(paths.insert(path).second) << path;
    }
}

TEST(CacheLayoutTest, aFileInPlaceOfAFolderEndsTheProgram) {
    const TemporaryFolder folder;
    const auto layout = layoutIn(folder);
    layout.initCachePathes();
    layout.initCachePathes();
    EXPECT_EQ(fs::status(layout.filesCachePath()).permissions(), fs::perms::owner_all);
    folder.write("other/Tarnwell/Files", "");
    const CacheLayout blocked({folder.path(), folder.path("other"), folder.path(), "Tarnwell", ""});
    EXPECT_EXIT(blocked.initCachePathes(), ::testing::ExitedWithCode(100), "");
}

TEST(CacheLayoutTest, migrationReplacesWhatIsNew) {
    const TemporaryFolder folder;
    const auto layout = layoutIn(folder);
    layout.migrateMetadataIfNeeded();
    folder.write("data/Old Title/shares.db", "old");
    folder.write("data/Tarnwell/shares.db", "new");
    layout.migrateMetadataIfNeeded();
    EXPECT_EQ(folder.read("data/Tarnwell/shares.db"), "old");
    EXPECT_FALSE(folder.exists("data/Old Title"));
}

TEST(CacheLayoutTest, onlyAnUnusedOldMountPointIsRemoved) {
    const TemporaryFolder folder;
    const auto layout = layoutIn(folder);
    folder.write("home/Old Title/sub/kept.txt", "the user's");
    layout.migrateMountDirectoryIfNeeded();
    EXPECT_TRUE(folder.exists("home/Old Title/sub/kept.txt"));
    fs::remove(folder.path("home/Old Title/sub/kept.txt"));
    folder.write("home/Old Title/.DS_Store", "");
    layout.migrateMountDirectoryIfNeeded();
    EXPECT_FALSE(folder.exists("home/Old Title"));
}

}  // namespace
}  // namespace tarnwell
