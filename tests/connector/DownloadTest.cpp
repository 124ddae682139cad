#include <thread>

#include "connector/ReadFixture.h"

namespace tarnwell::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class DownloadTest : public ReadFixture {
  protected:
    bool runOne() { return world.downloads.runOneDownload(); }
};

TEST_F(DownloadTest, takesUserRequestsFirstAndInOrder) {
    onRead().reply(200, "1234567890");
    const auto automatic = world.addFile("Fa", 10);
    const auto first = world.addFile("F1", 10);
    const auto second = world.addFile("F2", 10);
    const auto upgraded = world.addFile("F3", 10);
    world.downloads.addFileDownloadTask(automatic, true);
    world.downloads.addFileDownloadTask(upgraded, true);
    world.downloads.addFileDownloadTask(first, false);
    world.clock.advance(std::chrono::seconds(1));
    world.downloads.addFileDownloadTask(second, false);
    world.clock.advance(std::chrono::seconds(1));
    world.downloads.addFileDownloadTask(upgraded, false);
    EXPECT_EQ(world.downloads.downloadQueueLen(), 4);
    while (runOne()) {
    }
    EXPECT_THAT(asked("fileName", "position"), ElementsAre("UF1+0", "UF2+0", "UF3+0", "UFa+0"));
    EXPECT_FALSE(world.downloads.hasDownloads());
}

TEST_F(DownloadTest, onlyContentsThatTheServiceHasAreQueued) {
    auto folder = world.addFile("Fdir", 10);
    folder->IsFile = false;
    auto fresh = world.addFile("Fnew", 10);
    fresh->UploadName.reset();
    world.downloads.addFileDownloadTask(folder, false);
    world.downloads.addFileDownloadTask(fresh, false);
    world.downloads.downloadFile(world.addFile("Fempty", 0));
    auto hidden = world.addFile("Fhidden", 10);
    hidden->PublicName = ".hidden";
    world.downloads.addFileDownloadTask(hidden, false);
    EXPECT_FALSE(world.downloads.isFileDownloaded(*hidden)) << "the service has it, so it can be read";
    hidden->UploadUrl.reset();
    EXPECT_TRUE(world.downloads.isFileDownloaded(*hidden)) << "it is only here";
    const auto cached = world.addFile("Fcached", 4);
    writeAt(world.cachePath(cached), "here");
    EXPECT_FALSE(world.downloads.isFileDownloaded(*cached)) << "whose bytes they are is not known";
    ASSERT_EQ(ContentVersion::clean("Uolder").set(world.cachePath(cached)), 0);
    EXPECT_FALSE(world.downloads.isFileDownloaded(*cached)) << "they are of another version";
    ASSERT_EQ(ContentVersion::clean("UFcached").set(world.cachePath(cached)), 0);
    world.downloads.downloadFile(cached);
    EXPECT_FALSE(world.downloads.hasDownloads());
}

TEST_F(DownloadTest, chunksOnTheirWayTogetherAreKeptInOrder) {
    const auto contents = pattern(1'000'000);
    const auto file = world.addFile("F1", 1'000'000);
    world.downloads.downloadFile(file);
    auto held = onRead().answer(serving(contents)).hold();
    std::thread worker([&] { EXPECT_TRUE(runOne()); });
    EXPECT_TRUE(held.waitForHeld(1));
    EXPECT_TRUE(held.releaseOne());
    EXPECT_TRUE(held.waitForHeld(2)) << "the link is not idle between two chunks";
    held.release();
    worker.join();
    EXPECT_EQ(contentsOf(world.cachePath(file)), contents);

    // One that is shorter than asked: what was asked for behind it leaves no gap.
    const auto other = world.addFile("F2", 1'000'000);
    onRead().answer([&](const UrlRequest& request) {
        auto reply = serving(contents)(request);
        if (header(request, "position") == "131072") reply.body.resize(100'000);
        return reply;
    });
    world.downloads.downloadFile(other);
    EXPECT_TRUE(runOne());
    EXPECT_EQ(contentsOf(world.cachePath(other)), contents);
    EXPECT_THAT(asked("fileName", "position"), ::testing::Contains("UF2+231072"));
}

TEST_F(DownloadTest, partialDataThatCannotBeTheFilesIsNotBuiltOn) {
    const auto contents = pattern(1000);
    const auto file = world.addFile("F1", 1000);
    writeAt(world.partialPath(file), std::string(2000, 'x'));
    onRead().answer(serving(contents));
    world.downloads.downloadFile(file);
    EXPECT_TRUE(runOne());
    EXPECT_EQ(contentsOf(world.cachePath(file)), contents);
}

TEST_F(DownloadTest, badRepliesEndADownload) {
    for (const UrlReply& reply : {UrlReply{.status = 200, .error = {}, .body = {}},
                                  UrlReply{.status = 403, .error = {}, .body = "no"},
                                  UrlReply{.status = 200, .error = "cut", .body = "123"}}) {
        const auto file = world.addFile("F1", 10);
        onRead().answer([reply](const auto&) { return reply; });
        world.downloads.downloadFile(file);
        EXPECT_TRUE(runOne());
        EXPECT_FALSE(world.downloads.hasDownloads());
        EXPECT_FALSE(contentsOf(world.cachePath(file)));
        EXPECT_EQ(contentsOf(world.partialPath(file)), "");
    }
}

TEST_F(DownloadTest, cancelAndDeleteReachTheRunningDownload) {
    struct {
        bool remove;
        std::optional<std::size_t> partialSize;
    } cases[] = {{false, 131072}, {true, std::nullopt}};
    for (const auto& [remove, partialSize] : cases) {
        const auto file = world.addFile(remove ? "F1" : "F2", 300'000);
        onRead().answer([&, remove = remove](const UrlRequest& request) {
            EXPECT_TRUE(world.downloads.isFileDownloading(*file, true));
            if (remove)
                world.downloads.deleteFileDownload(file);
            else
                world.downloads.cancelFileDownload(file);
            return serving(pattern(300'000))(request);
        });
        world.downloads.downloadFile(file);
        EXPECT_TRUE(runOne());
        EXPECT_FALSE(world.downloads.hasDownloads());
        const auto partial = contentsOf(world.partialPath(file));
        EXPECT_EQ(partial ? std::optional(partial->size()) : std::nullopt, partialSize);
    }

    // Asked for again before the worker noticed: the wish counts.
    const auto file = world.addFile("F3", 300'000);
    onRead().times(1).answer([&](const UrlRequest& request) {
        world.downloads.cancelFileDownload(file);
        world.downloads.addFileDownloadTask(file, false);
        return serving(pattern(300'000))(request);
    });
    world.downloads.downloadFile(file);
    EXPECT_TRUE(runOne());
    EXPECT_TRUE(world.downloads.isFileInDownloadQueue(*file));
}

TEST_F(DownloadTest, aNewVersionOfTheRecordWins) {
    const auto file = world.addFile("F1", 10);
    world.downloads.downloadFile(file);
    onRead().answer([&](const UrlRequest&) {
        const auto lock = world.store.beginWriteStorage();
        file->UploadName = "Unewer";
        return UrlReply{.status = 200, .error = {}, .body = "old bytes."};
    });
    EXPECT_TRUE(runOne());
    EXPECT_FALSE(contentsOf(world.cachePath(file)));
    EXPECT_FALSE(world.downloads.hasDownloads());

    // The record goes away while its download fails: what had come is not kept.
    const auto gone = world.addFile("F2", 10);
    world.downloads.downloadFile(gone);
    onRead().answer([&](const UrlRequest&) {
        const auto lock = world.store.beginWriteStorage();
        world.store.deleteFileMetadata(gone);
        return UrlReply{.status = 403, .error = {}, .body = {}};
    });
    EXPECT_TRUE(runOne());
    EXPECT_FALSE(contentsOf(world.partialPath(gone)));
    EXPECT_FALSE(world.downloads.hasDownloads());
}

TEST_F(DownloadTest, stopEndsADownloadInItsMiddle) {
    auto held = onRead().hold();
    world.connector.startup();
    world.downloads.downloadFile(world.addFile("F1", 500'000));
    EXPECT_TRUE(held.waitForHeld(1));
    EXPECT_TRUE(world.connector.stop(std::chrono::seconds(5)));
}

TEST_F(DownloadTest, oldContentsExpireUnlessTheyAreNeeded) {
    struct {
        const char* setting;
        int ageHours;
        bool stays;
    } cases[] = {{"", 1439, true},    {"", 1441, false}, {"0", 3, true},          {"0", 5, false},
                 {"-1", 99999, true}, {"2", 49, false},  {"nonsense", 1439, true}};
    for (const auto& [setting, ageHours, stays] : cases) {
        if (*setting) world.defaults.set("Tarnwell.storeFiles", setting);
        const auto add = [&, age = ageHours](const char* id) {
            const auto file = world.addFile(id, 4);
            writeAt(world.cachePath(file), "data");
            EXPECT_EQ(ContentVersion::clean("U" + std::string(id)).set(world.cachePath(file)), 0);
            file->DownloadDate = world.clock.now() - std::chrono::hours(age);
            return file;
        };
        const auto plain = add("Fplain");
        const auto synchronized = add("Fsync");
        synchronized->Synchronize = true;
        const auto unsent = add("Funsent");
        unsent->LocallyUpdated = true;
        const auto own = add("Fown");
        EXPECT_EQ(ContentVersion::unsent("UFown").set(world.cachePath(own)), 0);
        const auto undated = add("Fundated");
        undated->DownloadDate.reset();
        world.downloads.performCheckDownloadsToDelete();
        world.settle();
        EXPECT_EQ(contentsOf(world.cachePath(plain)).has_value(), stays) << setting << " " << ageHours;
        EXPECT_EQ(plain->DownloadDate.has_value(), stays);
        for (const auto& file : {synchronized, unsent, own, undated}) {
            EXPECT_TRUE(contentsOf(world.cachePath(file))) << file->PublicName;
        }
    }
    EXPECT_THAT(world.takeEvents(), IsEmpty());
}

}  // namespace
}  // namespace tarnwell::testing
