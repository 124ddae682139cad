#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/BackgroundQueue.h"
#include "platform/LocalSocket.h"
#include "store/FileCopy.h"
#include "store/FileSizeLimit.h"
#include "store/JournalWorld.h"
#include "support/LogCapture.h"
#include "util/RecordMapping.h"

namespace tarnwell {
namespace {

using testing::bytesOf;
using testing::FileSizeLimit;
using testing::JournalWorld;
using testing::LogCapture;
using testing::TemporaryFolder;

FileCopyResult copyOf(
    const std::string& source, const std::string& target,
    const std::function<bool()>& cancelled = [] { return false; }) {
    const OwnedDescriptor in(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    return copyFileContents(in.get(), target, cancelled);
}

TEST(FileCopyTest, copiesAreEqualAndAsSparse) {
    TemporaryFolder folder;
    std::string mixed(5'000'000, '\0');
    for (std::size_t i = 0; i < mixed.size(); i += 7)
        mixed[i] = static_cast<char>(i);
    for (const auto& bytes : {std::string(), std::string("x"), mixed}) {
        const auto source = folder.write("source", bytes);
        const auto target = folder.path("target");
        const auto result = copyOf(source, target);
        EXPECT_FALSE(result.error) << result.error.message();
        EXPECT_EQ(result.size, static_cast<std::int64_t>(bytes.size()));
        EXPECT_TRUE(bytesOf(target) == bytes);
        EXPECT_TRUE(copyOf(source, target).error) << "what stands there is never replaced";
        ::unlink(target.c_str());
    }

    const auto source = folder.write("sparse", "head");
    ASSERT_EQ(::truncate(source.c_str(), off_t{1} << 30U), 0);
    const OwnedDescriptor out(::open(source.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(::pwrite(out.get(), "middle", 6, off_t{1} << 29U), 6);
    const auto target = folder.path("copy of sparse");
    EXPECT_EQ(copyOf(source, target).size, std::int64_t{1} << 30U);
    struct stat status {};
    ASSERT_EQ(::stat(target.c_str(), &status), 0);
    EXPECT_LT(status.st_blocks, 1000) << "holes stay holes";
    std::ifstream in(target);
    std::string text(6, ' ');
    in.seekg(off_t{1} << 29U).read(text.data(), 6);
    EXPECT_EQ(text, "middle");
}

TEST(FileCopyTest, failuresLeaveNothing) {
    TemporaryFolder folder;
    const auto source = folder.write("source", std::string(3'000'000, 'x'));
    const auto target = folder.path("target");
    {
        const FileSizeLimit disk(1'000'000);
        EXPECT_TRUE(copyOf(source, target).error);
    }
    EXPECT_FALSE(folder.exists("target"));
    EXPECT_TRUE(copyOf(folder.path(), target).error);
    EXPECT_FALSE(folder.exists("target"));
    const auto cancelled = copyOf(source, target, [] { return true; });
    EXPECT_TRUE(!cancelled.error || cancelled.error == std::errc::operation_canceled);

    int questions = 0;
    const auto changed = copyOf(source, folder.path("second"), [&] {
        if (questions++ == 0) std::ofstream(source, std::ios::app) << "more";
        return false;
    });
    EXPECT_TRUE(changed.sourceChanged || questions == 0) << "a disk that shares blocks asks nothing";
}

/// A file "a" of the service, and its entry.
class UploadCopiesTest : public ::testing::Test {
  protected:
    UploadCopiesTest() { world.known("fa", "a", "A"); }

    [[nodiscard]] LocalJournalPtr first() { return *world.journal().journalItems().begin(); }
    [[nodiscard]] std::string copyPath(const LocalJournalPtr& entry) {
        return world.layout.cachePathForUpload(*entry->File);
    }
    [[nodiscard]] std::ptrdiff_t filesInUploads() {
        const std::filesystem::directory_iterator uploads(world.layout.uploadsCachePath());
        return std::distance(begin(uploads), end(uploads));
    }

    LogCapture log;
    JournalWorld world;
};

TEST_F(UploadCopiesTest, aCopyAppearsWholeWithItsSideFile) {
    world.background.runAll();
    world.write("a", "X");
    const auto entry = first();
    EXPECT_TRUE(*entry->CopyingFile);
    EXPECT_TRUE(world.store.shutdownBlocked());
    EXPECT_EQ(filesInUploads(), 0);
    world.background.runAll();
    EXPECT_FALSE(world.store.shutdownBlocked());
    EXPECT_EQ(bytesOf(copyPath(entry)), "X");
    std::string error;
    const auto side = parseRecord<LocalJournal>(bytesOf(copyPath(entry) + ".inf"), error);
    ASSERT_TRUE(side) << error;
    EXPECT_EQ(side->File->InternalName, "fa");
    EXPECT_EQ(filesInUploads(), 2);
    world.journal().removeUploadFileData(*entry->File);
    EXPECT_EQ(filesInUploads(), 0);
}

TEST_F(UploadCopiesTest, aNewerChangeEndsTheCopy) {
    world.write("a", "X");
    world.write("a", "Y");
    world.background.runAll();
    EXPECT_EQ(bytesOf(copyPath(first())), "Y");
    EXPECT_EQ(filesInUploads(), 2);
    EXPECT_TRUE(log.contains("File fa was changed during copying"));

    world.write("a", "Z");
    world.remove("a");
    world.background.runAll();
    EXPECT_EQ(filesInUploads(), 0);
    EXPECT_FALSE(world.store.shutdownBlocked());
}

TEST_F(UploadCopiesTest, failuresLeaveTheEntryWithoutACopy) {
    world.write("a", std::string(100'000, 'X'));
    {
        const FileSizeLimit disk(50'000);
        world.background.runAll();
    }
    EXPECT_EQ(filesInUploads(), 0);
    EXPECT_FALSE(first()->CopyingFile);
    EXPECT_EQ(log.count("Warning! Cannot copy file fa to upload path "), 1U) << log.text();

    world.write("a", "Y");
    ::unlink(world.layout.cachePathForFile(*world.item("a")).c_str());
    world.background.runAll();
    EXPECT_EQ(filesInUploads(), 0);
    EXPECT_FALSE(first()->CopyingFile);
    EXPECT_FALSE(world.store.shutdownBlocked());
}

TEST_F(UploadCopiesTest, theSizeThatIsSentIsThatOfTheCopy) {
    world.write("a", "X");
    std::ofstream(world.layout.cachePathForFile(*world.item("a")), std::ios::app) << "YZ";
    world.background.runAll();
    EXPECT_EQ(bytesOf(copyPath(first())), "XYZ");
    EXPECT_EQ(first()->File->EndOfFile, 3);
}

TEST_F(UploadCopiesTest, leftoversOfACrashGoAndTheStoreMayGoFirst) {
    world.background.runAll();
    const std::string uploads = world.layout.uploadsCachePath();
    std::ofstream(uploads + "/.copying-otherrun-U1") << "part";
    std::ofstream(uploads + "/U2") << "whole";
    testing::ManualExecutor executor;
    {
        TWMetadataStorage store(
            {world.layout, world.clock, executor, [] { return std::string("someone"); }, [] {}});
        store.insertShare(world.share);
        const auto file = world.file("f", "s", "f");
        store.addFileMetadata(file);
        (void)store.journal().addChangeToJournal(store.journal().createJournalForFile(file, kJournalUpdate));
    }
    executor.runAll();
    EXPECT_EQ(filesInUploads(), 1);
    EXPECT_EQ(bytesOf(uploads + "/U2"), "whole");
}

/// A loss of power leaves small copies with the right size and no bytes, or with neither.
TEST_F(UploadCopiesTest, aStartMakesSmallCopiesAgainAndTrustsSyncedOnes) {
    const std::string small = "XYZ", large(kSyncedCopy, 'X');
    const struct {
        std::string contents, left;
        bool isCached;
        std::string expected;
    } cases[] = {{small, std::string(3, '\0'), true, small},
                 {small, "", true, small},
                 {small, "ABC", false, "ABC"},
                 {small, "", false, "(none)"},
                 {large, std::string(kSyncedCopy, 'Y'), true, std::string(kSyncedCopy, 'Y')}};
    for (const auto& c : cases) {
        world.write("a", c.contents);
        world.background.runAll();
        const auto copy = copyPath(first());
        std::ofstream(copy) << c.left;
        if (!c.isCached) ::unlink(world.layout.cachePathForFile(*world.item("a")).c_str());
        world.journal().recover({});
        world.background.runAll();
        EXPECT_TRUE(bytesOf(copy) == c.expected) << c.contents.size() << " " << c.left.size();
        EXPECT_FALSE(first()->CopyingFile);
        EXPECT_EQ(std::filesystem::exists(copy), c.expected != "(none)");
        EXPECT_FALSE(world.store.shutdownBlocked());
    }
}

TEST_F(UploadCopiesTest, copiesRunWhileTheDriveGoesOn) {
    BackgroundQueue queue(3);
    {
        TWMetadataStorage store(
            {world.layout, world.clock, queue, [] { return std::string("someone"); }, [] {}});
        store.insertShare(world.share);
        for (int i = 0; i < 4; ++i) {
            const auto file = world.file("f" + std::to_string(i), "s", "f" + std::to_string(i));
            std::ofstream(world.layout.cachePathForFile(*file)) << std::string(300'000, 'x');
            file->AllocationSize = file->EndOfFile = 300'000;
            store.addFileMetadata(file);
        }
        for (int i = 0; i < 200; ++i) {
            const auto lock = store.beginWriteStorage();
            const auto file = store.fileWithId("f" + std::to_string(i % 4));
            (void)store.journal().addChangeToJournal(
                store.journal().createJournalForFile(file, kJournalUpdate));
        }
        // Ends with copies under way.
    }
    EXPECT_TRUE(queue.stop(std::chrono::seconds(10)));
}

}  // namespace
}  // namespace tarnwell
