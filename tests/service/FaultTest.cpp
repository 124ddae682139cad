#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "service/ChangeWorld.h"
#include "service/Commands.h"
#include "service/Database.h"
#include "service/Secrets.h"
#include "service/ServiceError.h"
#include "service/TestDisk.h"
#include "service/UploadSpace.h"
#include "store/Enums.h"

namespace tarnwell::service::testing {
namespace {

namespace fs = std::filesystem;

/// Disks that fail, are full, or lost something; databases that are damaged or older than what was answered.
class FaultTest : public ChangeWorld {
  protected:
    int run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"tarnwell-service", "--data", folder_.path("data")});
        std::vector<const char*> argv;
        for (const auto& argument : arguments)
            argv.push_back(argument.c_str());
        std::istringstream in;
        out_.str("");
        return runCommand(static_cast<int>(argv.size()), argv.data(), in, out_, out_);
    }
    std::string blob(const TWVirtualFile& item) {
        const auto name = item.UploadName.str();
        return folder_.path("data/contents/blobs/" + digestOf(name).substr(0, 2) + "/" + name);
    }
    void reopen() {
        stop();
        data_.reset();
        data_ = std::make_unique<ServiceData>(folder_.path("data"));
        serve();
    }
    std::ostringstream out_;
};

TEST_F(FaultTest, whatTheDiskDidNotTakeIsNotTrustedAtTheSecondTry) {
    const auto file = one_.file("file", "precious");
    const auto token = *event(one_, kJournalCreate, file).TransmitToken;
    {
        const TestDisk broken(TestDisk::Sync::fail);
        EXPECT_EQ(chunk(token, 0, "precious"), 1);
    }
    EXPECT_EQ(chunk(token, 0, "precious"), 1) << "begins again";
    for (const auto& left : fs::recursive_directory_iterator(folder_.path("data/contents")))
        EXPECT_TRUE(left.is_directory() || left.path().filename() == "holds") << left.path();
    EXPECT_EQ(tree(), "");
    EXPECT_EQ(send(one_, kJournalCreate, file, "precious"), "1:2");

    const tarnwell::testing::TemporaryFolder source;
    source.write("imported", "x");
    {
        const TestDisk broken(TestDisk::Sync::fail);
        EXPECT_EQ(run({"share", "import", "Docs", source.path()}), 1);
    }
    EXPECT_EQ(tree(), "file=precious");
}

TEST_F(FaultTest, lostContentsAreSentAgainAndExportsSayWhatIsMissing) {
    const auto file = one_.file("file", "precious");
    ASSERT_EQ(send(one_, kJournalCreate, file, "precious"), "1:2");
    ASSERT_EQ(send(one_, kJournalCreate, one_.file("other", "other"), "other"), "1:2");
    fs::remove(blob(*known(file.InternalName.view())));
    const tarnwell::testing::TemporaryFolder target;
    EXPECT_EQ(run({"share", "export", "Docs", target.path()}), 1);
    EXPECT_NE(out_.str().find("file: its contents are missing"), std::string::npos) << out_.str();
    EXPECT_EQ(target.read("other"), "other");
    EXPECT_EQ(send(one_, kJournalCreate, file, "precious"), "1:2");
    EXPECT_EQ(tree(), "file=precious\nother=other");
}

TEST_F(FaultTest, anImportHoldsTheStoreAgainstTheSweep) {
    auto hold = data_->contents().hold();
    data_->contents().create("Unew")->commit(ContentWriter::Durability::deferred);
    const auto slice = static_cast<unsigned>(std::stoul(digestOf("Unew").substr(0, 2), nullptr, 16));
    const auto nobody = [](std::vector<std::string> names) { return names; };
    EXPECT_EQ(data_->contents().sweep(std::chrono::seconds(0), slice, nobody), 0);
    hold.reset();
    EXPECT_EQ(data_->contents().sweep(std::chrono::seconds(0), slice, nobody), 1);
}

TEST_F(FaultTest, roomIsPromisedOnceAndFormerContentsGoOnRequest) {
    std::int64_t room = 100;
    UploadSpace space([&room] { return room; });
    EXPECT_TRUE(space.promise("a", 60));
    EXPECT_FALSE(space.promise("b", 60));
    room = 50;  // half of a's bytes are here
    space.left("a", 10);
    EXPECT_TRUE(space.promise("b", 40));
    EXPECT_TRUE(space.promise("a", 10));
    space.end("a");
    EXPECT_TRUE(space.promise("c", 10));
    EXPECT_FALSE(space.promise("d", 1));

    auto huge = one_.file("huge", "x");
    huge.AllocationSize = huge.EndOfFile = std::int64_t{1} << 50;
    EXPECT_EQ(eventReply(one_, kJournalCreate, huge).status, 507);
    auto file = one_.file("file", "former");
    ASSERT_EQ(send(one_, kJournalCreate, file, "former"), "1:2");
    const auto former = blob(*known(file.InternalName.view()));
    ASSERT_EQ(send(one_, kJournalUpdate, Device::edited(file, "newer"), "newer"), "1:2");
    EXPECT_EQ(run({"contents", "drop", "--older-than", "1"}), 0);
    EXPECT_TRUE(fs::exists(former));
    EXPECT_EQ(run({"contents", "drop"}), 0);
    EXPECT_FALSE(fs::exists(former));
    EXPECT_EQ(tree(), "file=newer");
}

TEST_F(FaultTest, aDamagedDatabaseStoresNothingMore) {
    for (int i = 0; i < 200; ++i)
        addFile(docs_, std::to_string(i) + std::string(200, 'x'), "");
    stop();
    data_.reset();
    {
        // A page in the middle of the items.
        std::fstream file(folder_.path("data/service.db"), std::ios::in | std::ios::out | std::ios::binary);
        const auto size = static_cast<std::streamoff>(fs::file_size(folder_.path("data/service.db")));
        file.seekp(size / 2 / 4096 * 4096);
        file << std::string(4096, '\x5A');
    }
    data_ = std::make_unique<ServiceData>(folder_.path("data"));
    serve();
    EXPECT_EQ(eventReply(one_, kJournalCreate, one_.folder("folder")).status, 503);
    EXPECT_EQ(eventReply(one_, kJournalCreate, one_.file("file", "x")).status, 503);
    EXPECT_NE(catchUpReply("alpha.localhost", docs_.id, one_.token, "-1", "5").status, 503);
}

TEST_F(FaultTest, aRestoredBackupIsNewToEveryDevice) {
    const auto kept = one_.file("kept", "kept");
    ASSERT_EQ(send(one_, kJournalCreate, kept, "kept"), "1:2");
    Database(folder_.path("data/service.db")).execute(("VACUUM INTO '" + folder_.path("copy") + "'").c_str());
    ASSERT_EQ(send(one_, kJournalUpdate, Device::edited(kept, "later"), "later"), "1:2");
    ASSERT_EQ(send(one_, kJournalCreate, one_.file("lost", "lost"), "lost"), "1:2");
    const auto before = metadata().shareWithId(docs_.id)->tick;
    const auto later = known(kept.InternalName.view())->UploadName.str();
    EXPECT_EQ(run({"restore", folder_.path("copy")}), 1) << "a server is running";
    stop();
    EXPECT_EQ(run({"restore", folder_.path("none")}), 1);
    EXPECT_EQ(run({"restore", folder_.path("copy")}), 0) << out_.str();
    reopen();
    EXPECT_GT(metadata().shareWithId(docs_.id)->tick, before);
    EXPECT_GT(known(kept.InternalName.view())->Tick, before) << "a device that knows more hears of it";
    EXPECT_EQ(tree(), "kept=kept");
    EXPECT_EQ(folder_.read("data/contents/unclaimed/" + later), "later");
}

}  // namespace
}  // namespace tarnwell::service::testing
