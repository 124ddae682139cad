// Open files while their contents are replaced, dropped or taken away behind them.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>

#include <map>
#include <random>
#include <set>

#include "drive/MountedDrive.h"
#include "store/ContentVersion.h"
#include "store/FileSizeLimit.h"
#include "store/LocalChangeJournal.h"

namespace tarnwell::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class VersionMountTest : public MountedDrive {
  protected:
    int open(const std::string& name, int flags) {
        const int descriptor = ::open(path(name).c_str(), flags);
        EXPECT_GE(descriptor, 0) << name << ": " << std::strerror(errno);
        opens_.push_back(descriptor);
        return descriptor;
    }
    void closeAll() {
        for (const int descriptor : std::exchange(opens_, {}))
            ::close(descriptor);
        for (int i = 0; i < 500 && !TWFuseFileData::openedFiles().empty(); ++i)
            ::usleep(10'000);
    }
    void TearDown() override {
        closeAll();
        MountedDrive::TearDown();
    }
    /// What a read gives: bytes, or the error's name.
    static std::string read(int descriptor, std::size_t size, off_t offset) {
        std::string bytes(size, '\0');
        const auto count = ::pread(descriptor, bytes.data(), size, offset);
        return count < 0 ? std::strerror(errno) : bytes.substr(0, static_cast<std::size_t>(count));
    }
    static int write(int descriptor, const std::string& bytes, off_t offset) {
        const auto count = ::pwrite(descriptor, bytes.data(), bytes.size(), offset);
        return count < 0 ? errno : count == static_cast<ssize_t>(bytes.size()) ? 0 : -1;
    }
    bool isMarked(const std::string& name) const {
        return world.at("/" + name)->LocallyUpdated.value_or(false);
    }

  private:
    std::vector<int> opens_;
};

TEST_F(VersionMountTest, readersKeepTheVersionThatTheyHaveBegunWith) {
    world.addCached("S", "cached", "one one one");
    const auto remote = world.addRemote("S", "remote", "");
    const auto id = remote->InternalName.str();
    remote->AllocationSize = remote->EndOfFile = 11;
    world.mediator.setRemote(id + "/version 1", "ONE ONE ONE");
    const int cached = open("Share/cached", O_RDONLY), fetched = open("Share/remote", O_RDONLY);
    const int untouched = open("Share/cached", O_RDONLY);
    void* mapped = ::mmap(nullptr, 11, PROT_READ, MAP_PRIVATE, open("Share/cached", O_RDONLY), 0);
    ASSERT_NE(mapped, MAP_FAILED);
    EXPECT_EQ(std::string(static_cast<const char*>(mapped), 3), "one");
    EXPECT_EQ(read(cached, 3, 0), "one");
    EXPECT_EQ(read(fetched, 3, 0), "ONE");
    world.changeRemotely("/Share/cached", "version 2", "second two");
    world.changeRemotely("/Share/remote", "version 2", "SECOND TWO");
    EXPECT_EQ(read(cached, 20, 4), "one one") << "to its end, which is not that of the new version";
    EXPECT_EQ(std::string(static_cast<const char*>(mapped), 11), "one one one");
    EXPECT_EQ(read(fetched, 20, 4), "ONE ONE") << "the service keeps superseded versions for a while";
    EXPECT_EQ(read(untouched, 20, 0), "second two");
    EXPECT_EQ(contentsOf(path("Share/remote")), "SECOND TWO");
    world.mediator.setRemote(id + "/version 1", "");
    world.mediator.setRemote(id, "");
    EXPECT_EQ(read(fetched, 3, 0), std::strerror(ESTALE)) << "never a mixture";
    ::munmap(mapped, 11);
    EXPECT_EQ(read(cached, 3, 8), "one") << "nobody's writes reach it";
}

TEST_F(VersionMountTest, localEditsAreSeenByOpensOfTheSameVersion) {
    const auto file = world.addRemote("S", "f", "0123456789");
    const int reader = open("Share/f", O_RDONLY), held = open("Share/f", O_RDONLY);
    EXPECT_EQ(read(reader, 2, 0), "01");
    for (int round = 0; round < 3; ++round) {
        const auto text = "edit " + std::to_string(round);
        const int writer = open("Share/f", O_RDWR);
        EXPECT_EQ(write(writer, text, 1), 0);
        EXPECT_EQ(read(reader, 6, 1), text);
        EXPECT_EQ(read(held, 6, 1), text);
        ::close(writer);
        for (int i = 0; i < 500 && isMarked("Share/f"); ++i)
            ::usleep(10'000);
        EXPECT_EQ(read(reader, 6, 1), text) << "journalled under another name";
    }
}

TEST_F(VersionMountTest, aWriteToASupersededVersionBringsItBack) {
    const auto file = world.addCached("S", "f", "one one one");
    file->Tick = file->UpdateTick = 0;
    const int writer = open("Share/f", O_RDWR), reader = open("Share/f", O_RDONLY);
    EXPECT_EQ(read(writer, 3, 0), "one");
    world.changeRemotely("/Share/f", "version 2", "second two");
    EXPECT_EQ(read(reader, 20, 0), "second two");
    EXPECT_EQ(write(writer, "EDIT", 4), 0);
    EXPECT_EQ(::fsync(writer), 0);
    EXPECT_EQ(read(writer, 20, 0), "one EDITone");
    EXPECT_EQ(world.cached("/Share/f"), "one EDITone");
    EXPECT_EQ(world.at("/Share/f")->UpdateTick, 0) << "the service hears on what the edit is based";
    EXPECT_EQ(read(reader, 20, 0), "second two");
    EXPECT_EQ(contentsOf(path("Share/f")), "one EDITone");

    // A second one that is based on the version in between: only one of them can be the item's.
    const int late = open("Share/f", O_RDWR);
    (void)late;
    EXPECT_EQ(write(open("Share/f", O_WRONLY), "X", 0), 0);
    closeAll();
    EXPECT_THAT(world.journal(), ElementsAre("[Update] /Share/f 11"));
    EXPECT_EQ(world.cached("/Share/f"), "Xne EDITone");
}

TEST_F(VersionMountTest, ofTwoVersionsThatAreWrittenToOneIsRefused) {
    world.addCached("S", "f", "one one one");
    const int first = open("Share/f", O_RDWR);
    EXPECT_EQ(read(first, 3, 0), "one");
    world.changeRemotely("/Share/f", "version 2", "second two");
    const int second = open("Share/f", O_RDWR);
    EXPECT_EQ(write(second, "S", 0), 0);
    EXPECT_EQ(write(first, "O", 0), ESTALE);
    EXPECT_EQ(::ftruncate(first, 0), -1);
    EXPECT_EQ(world.cached("/Share/f"), "Second two");
    EXPECT_EQ(read(first, 20, 0), "one one one");
}

TEST_F(VersionMountTest, whatIsDroppedFromTheCacheIsWrittenToAllTheSame) {
    const auto file = world.addCached("S", "f", "one one one");
    world.mediator.setRemote(file->InternalName.str(), "");
    const auto cachePath = world.layout.cachePathForFile(*file);
    const int writer = open("Share/f", O_RDWR), whole = open("Share/f", O_RDWR);
    EXPECT_EQ(read(writer, 3, 0), "one");
    EXPECT_EQ(read(whole, 3, 0), "one");
    EXPECT_TRUE(world.openFiles.isOpen(file->InternalName.view()));
    ::unlink(cachePath.c_str());
    EXPECT_EQ(read(writer, 20, 4), "one one");
    EXPECT_EQ(write(writer, "EDIT", 4), 0);
    EXPECT_EQ(world.cached("/Share/f"), "one EDITone");
    EXPECT_EQ(read(whole, 20, 0), "one EDITone");
    EXPECT_EQ(::ftruncate(whole, 0), 0);
    EXPECT_EQ(write(whole, "new", 0), 0);
    EXPECT_EQ(world.cached("/Share/f"), "new");
    const auto version = ContentVersion::of(cachePath);
    EXPECT_TRUE(version && version->isEdited()) << "half of it never passes for a version of the service";
    closeAll();
    EXPECT_THAT(world.journal(), ElementsAre("[Update] /Share/f 3"));
}

TEST_F(VersionMountTest, handlesOfAShareThatIsGoneSaySo) {
    world.addShare("T", "Taken");
    world.addCached("T", "f", "text");
    const int used = open("Taken/f", O_RDWR), unused = open("Taken/f", O_RDWR);
    EXPECT_EQ(read(used, 4, 0), "text");
    {
        const auto lock = world.store.beginWriteStorage();
        world.store.deleteShareData(world.store.shareWithId("T"));
    }
    EXPECT_EQ(read(used, 4, 0), "text") << "what it holds";
    for (const int descriptor : {used, unused}) {
        EXPECT_EQ(write(descriptor, "lost", 0), EIO);
        EXPECT_EQ(::fsync(descriptor), -1);
        EXPECT_EQ(errno, EIO);
        const int copy = ::dup(descriptor);
        EXPECT_EQ(::close(copy), -1);
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(::open(path("Taken/f").c_str(), O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

/// Versions of the service are one letter each, edits are digits. No open sees two letters at once, and what
/// was acknowledged is there until it is sent.
TEST_F(VersionMountTest, opensOfManyVersionsNeverMixThemNorLoseAnEdit) {
    const auto seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::minstd_rand random(seed);
    const auto choose = [&](std::size_t bound) { return random() % bound; };
    const auto lettersOf = [](const std::string& bytes) {
        std::set<char> letters;
        for (const char c : bytes)
            if (c >= 'a') letters.insert(c);
        return letters;
    };
    world.addCached("S", "f", std::string(400, 'a'));
    const auto id = world.at("/Share/f")->InternalName.str();
    world.mediator.setRemote(id + "/version 1", std::string(400, 'a'));
    const auto cachePath = world.layout.cachePathForFile(*world.at("/Share/f"));
    struct Open {
        int descriptor;
        std::set<char> seen;
    };
    std::vector<Open> opens;
    std::map<off_t, char> acknowledged;  // and not sent
    int version = 1;
    for (int step = 0; step < 600; ++step) {
        const auto kind = choose(12);
        if (kind == 0 && opens.size() < 8) {
            opens.push_back({::open(path("Share/f").c_str(), choose(3) ? O_RDWR : O_RDONLY), {}});
            ASSERT_GE(opens.back().descriptor, 0) << std::strerror(errno);
        } else if (kind == 1) {
            const auto letter = static_cast<char>('a' + ++version % 26);
            world.changeRemotely("/Share/f", "version " + std::to_string(version),
                                 std::string(100 + choose(500), letter));
        } else if (kind == 2) {
            const auto lock = world.store.beginWriteStorage();
            const auto file = world.at("/Share/f");
            if (acknowledged.empty() && !world.store.hasUnsentContents(*file)) ::unlink(cachePath.c_str());
        } else if (kind == 3) {
            world.clock.advance(std::chrono::seconds(5));
            world.drive->checkOpenedFiles();
            world.background.runAll();
            const auto lock = world.store.beginWriteStorage();
            const auto file = world.at("/Share/f");
            if (file->LocallyUpdated.value_or(false)) continue;
            // Sent: the service has it by the name that the record has.
            const auto contents = world.cached("/Share/f");
            if (contents != "(none)") world.mediator.setRemote(id + "/" + file->UploadName.str(), contents);
            for (const auto& entry : world.store.journal().journalEntriesForShare("S"))
                world.store.journal().deleteJournalEntry(entry);
            acknowledged.clear();
        } else if (!opens.empty()) {
            auto& open = opens[choose(opens.size())];
            const auto offset = static_cast<off_t>(choose(100));
            if (kind < 6) {
                const char digit = static_cast<char>('0' + choose(10));
                const int error = write(open.descriptor, std::string(1, digit), offset);
                if (error == 0) acknowledged[offset] = digit;
                ASSERT_TRUE(error == 0 || error == EBADF || error == ESTALE) << std::strerror(error);
            } else if (kind < 11) {
                const auto bytes = read(open.descriptor, 1 + choose(300), offset);
                if (bytes == std::strerror(ESTALE)) continue;
                ASSERT_LE(lettersOf(bytes).size(), 1u) << bytes;
                open.seen.merge(lettersOf(bytes));
                ASSERT_LE(open.seen.size(), 1u) << "step " << step;
            } else {
                ::close(open.descriptor);
                std::swap(open, opens.back());
                opens.pop_back();
            }
        }
        if (acknowledged.empty()) continue;
        const auto now = world.cached("/Share/f");
        ASSERT_LE(lettersOf(now).size(), 1u) << "step " << step;
        for (const auto& [offset, digit] : acknowledged)
            ASSERT_EQ(now.at(static_cast<std::size_t>(offset)), digit) << "step " << step;
    }
    for (const auto& open : opens)
        ::close(open.descriptor);
}

/// The change log is full, the disk is not: an edit in place needs no room of its own.
TEST_F(VersionMountTest, changesThatCannotBeLoggedAreRefused) {
    world.addCached("S", "f", "text");
    world.addFolder("S", "folder");
    const auto made = [&] { return errno != 0 ? errno : EINVAL; };
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(::mkdir(path("Share/d" + std::to_string(i)).c_str(), 0700), 0);
    closeAll();
    const auto before = world.journal();
    const int writer = open("Share/f", O_RDWR);
    {
        const FileSizeLimit full(1024);
        EXPECT_NE(write(writer, "EDIT", 0), 0);
        EXPECT_FALSE(isMarked("Share/f"));
        EXPECT_EQ(::mkdir(path("Share/new").c_str(), 0700), -1) << made();
        EXPECT_EQ(::open(path("Share/made").c_str(), O_CREAT | O_WRONLY, 0600), -1);
        EXPECT_EQ(::fsync(writer), -1);
    }
    EXPECT_EQ(world.cached("/Share/f"), "text");
    EXPECT_FALSE(world.at("/Share/new") || world.at("/Share/made"));
    EXPECT_EQ(world.journal(), before);
    ::usleep(1'100'000);  // the log is tried again once a second
    EXPECT_EQ(write(writer, "EDIT", 0), 0);
    EXPECT_EQ(::fsync(writer), 0);
}

/// Programs compare the names of a listing with those that they gave.
TEST_F(VersionMountTest, namesAreListedAsTheyAreSpelledAndFoundInEverySpelling) {
    const std::string composed = "Gr\u00fc\u00dfe.txt", decomposed = "Gru\u0308\u00dfe.txt";
    const std::string hangul = "\ud55c\uae00", jamo = "\u1112\u1161\u11ab\u1100\u1173\u11af";
    const std::pair<std::string, std::string> names[] = {
        {composed, decomposed}, {decomposed, composed}, {hangul, jamo}};
    for (const auto& [given, other] : names) {
        ASSERT_EQ(::mkdir(path("Share/d").c_str(), 0700), 0);
        std::ofstream(path("Share/d/" + given)) << "text";
        const auto listed = std::filesystem::directory_iterator(path("Share/d"))->path().filename();
        EXPECT_EQ(listed.native(), given);
        EXPECT_EQ(contentsOf(path("Share/d/" + other)), "text");
        std::ofstream(path("Share/d/" + other)) << "more";
        EXPECT_EQ(entriesOf(path("Share/d").c_str()), 1u) << "one item";
        EXPECT_EQ(contentsOf(path("Share/d/" + given)), "more");
        EXPECT_EQ(::unlink(path("Share/d/" + other).c_str()), 0);
        EXPECT_EQ(::rmdir(path("Share/d").c_str()), 0);
    }
}

}  // namespace
}  // namespace tarnwell::testing
