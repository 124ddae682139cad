#include "store/KeptFiles.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "store/StoreWorld.h"
#include "support/LogCapture.h"

namespace tarnwell {
namespace {

namespace fs = std::filesystem;
using testing::LogCapture;
using testing::StoreWorld;

class KeptFilesTest : public ::testing::Test {
  protected:
    /// Keeps a file of that drive path with these contents; returns where, below "Kept/<share>/<date>".
    std::string keep(const std::string& drivePath, const std::string& bytes, bool moved = true) {
        auto file = StoreWorld::file("f", "s", fs::path(drivePath).filename().native());
        file->FullPath = drivePath;
        world_.temporary.write("bytes", bytes);
        notices_.clear();
        const auto from = world_.temporary.path("bytes");
        error_ = moved ? kept().keep(*file, from, "of a test")
                       : kept().keepBeforeRemoval(*file, from, "of a test");
        if (notices_.empty()) return "-";
        const auto& path = notices_.back().path;
        EXPECT_EQ(world_.temporary.read(fs::relative(path, world_.temporary.path("")).native()), bytes);
        auto below = fs::relative(path, KeptFiles::folderIn(world_.layout)).relative_path();
        std::string shown = below.begin()->native();
        for (auto part = std::next(below.begin(), 2); part != below.end(); ++part)
            shown += "/" + part->native();
        return shown;
    }
    KeptFiles& kept() { return world_.store.keptFiles(); }

    LogCapture log_;
    StoreWorld world_;
    int error_ = 0;
    std::vector<KeptFiles::Notice> notices_;

    void SetUp() override {
        kept().setObserver([this](const KeptFiles::Notice& notice) { notices_.push_back(notice); });
    }
};

TEST_F(KeptFilesTest, givesEachFileANameOfItsOwn) {
    EXPECT_EQ(keep("/Share/d/a.txt", "1"), "Share/d/a.txt");
    EXPECT_EQ(keep("/Share/d/a.txt", "2"), "Share/d/a (2).txt");
    EXPECT_EQ(keep("/Share/d/a.txt", "3"), "Share/d/a (3).txt");
    EXPECT_EQ(keep("/Share/.hidden", "h"), "Share/.hidden");
    EXPECT_EQ(keep("/Share/.hidden", "h"), "Share/.hidden (2)");
    // Where a folder would have to be stands a file.
    EXPECT_EQ(keep("/Share/d/a.txt/below", "4"), "Share/below");
    EXPECT_EQ(keep("/Share/../../../out", "5"), "Share/.._/.._/.._/out");
    const std::string longName(252, 'n');
    EXPECT_EQ(keep("/Share/" + longName + ".b", "6"), "Share/" + longName + ".b");
    EXPECT_EQ(keep("/Share/" + longName + ".b", "7"), "Share/" + longName.substr(0, 249) + " (2).b");
    std::string deep = "/Share";
    for (int i = 0; i < 40; ++i)
        deep += "/" + longName;
    EXPECT_EQ(keep(deep, "8"), "Share/" + longName);
    EXPECT_EQ(KeptFiles::count(world_.layout), 10U);
    EXPECT_EQ(kept().pathsOfShare("s").size(), 10U);
    EXPECT_EQ(kept().pathsOfShare("other").size(), 0U);
    EXPECT_FALSE(world_.temporary.exists("bytes")) << "moved";
    EXPECT_TRUE(log_.contains("Warning! Unsent contents of /Share/d/a.txt were put aside"));
}

TEST_F(KeptFilesTest, keepsBytesOnceThatAreAboutToBeRemoved) {
    EXPECT_EQ(keep("/Share/a", "1", false), "Share/a");
    EXPECT_TRUE(world_.temporary.exists("bytes"));
    auto file = StoreWorld::file("f", "s", "a");
    file->FullPath = "/Share/a";
    EXPECT_EQ(kept().keepBeforeRemoval(*file, world_.temporary.path("bytes"), "of a test"), 0);
    EXPECT_EQ(KeptFiles::count(world_.layout), 1U);
}

TEST_F(KeptFilesTest, leavesTheBytesWhereItCannotKeepThem) {
    world_.temporary.write("data/Tarnwell/Kept", "a file");
    EXPECT_EQ(keep("/Share/a", "1"), "-");
    EXPECT_NE(error_, 0);
    EXPECT_TRUE(world_.temporary.exists("bytes"));
    EXPECT_TRUE(log_.contains("Error! Cannot keep the unsent contents of /Share/a"));
}

}  // namespace
}  // namespace tarnwell
