// What the user changed is there after the process ended, whenever that was.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "store/FileSizeLimit.h"
#include "store/JournalWorld.h"
#include "store/StorePersistence.h"
#include "support/LogCapture.h"
#include "support/Seed.h"

extern bool withoutAttributes;  ///< CacheRecoveryTest.cpp

namespace {
/// Calls that reach the disk until the process ends; 0: it goes on.
int callsLeft = 0;
void mayEnd() {
    if (callsLeft > 0 && --callsLeft == 0) _exit(77);
}
/// While above 0, what is written to the disk fails so; half of it is written before that.
int writeError = 0;
bool writesHalf = false;
/// While set, nothing can be reserved.
bool isFull = false;
}  // namespace

// The linker leads the calls of the program under test here. A process that ends loses nothing that is not on
// the disk, so nothing waits for the disk.
extern "C" {
int __wrap_fsync(int) {
    return 0;
}
int __wrap_fdatasync(int) {
    return 0;
}
ssize_t __real_write(int, const void*, size_t);
ssize_t __wrap_write(int file, const void* bytes, size_t size) {
    if (file > 2) mayEnd();
    return __real_write(file, bytes, size);
}
ssize_t __real_pwrite64(int, const void*, size_t, off64_t);
ssize_t __wrap_pwrite64(int file, const void* bytes, size_t size, off64_t at) {
    mayEnd();
    if (writeError != 0) {
        if (writesHalf && size > 1)
            return __real_pwrite64(file, bytes, std::exchange(writesHalf, false) ? size / 2 : 0, at);
        errno = writeError;
        return -1;
    }
    return __real_pwrite64(file, bytes, size, at);
}
int __real_fallocate64(int, int, off64_t, off64_t);
int __wrap_fallocate64(int file, int mode, off64_t from, off64_t size) {
    if (!isFull) return __real_fallocate64(file, mode, from, size);
    errno = ENOSPC;
    return -1;
}
int __real_rename(const char*, const char*);
int __wrap_rename(const char* from, const char* to) {
    mayEnd();
    return __real_rename(from, to);
}
int __real_renameat2(int, const char*, int, const char*, unsigned);
int __wrap_renameat2(int a, const char* from, int b, const char* to, unsigned flags) {
    mayEnd();
    return __real_renameat2(a, from, b, to, flags);
}
int __real_fsetxattr(int, const char*, const void*, size_t, int);
int __wrap_fsetxattr(int file, const char* name, const void* value, size_t size, int flags) {
    mayEnd();
    if (withoutAttributes) return errno = ENOTSUP, -1;
    return __real_fsetxattr(file, name, value, size, flags);
}
int __real_lsetxattr(const char*, const char*, const void*, size_t, int);
int __wrap_lsetxattr(const char* path, const char* name, const void* value, size_t size, int flags) {
    mayEnd();
    if (withoutAttributes) return errno = ENOTSUP, -1;
    return __real_lsetxattr(path, name, value, size, flags);
}
ssize_t __real_fgetxattr(int, const char*, void*, size_t);
ssize_t __wrap_fgetxattr(int file, const char* name, void* value, size_t size) {
    if (withoutAttributes) return errno = ENOTSUP, -1;
    return __real_fgetxattr(file, name, value, size);
}
ssize_t __real_lgetxattr(const char*, const char*, void*, size_t);
ssize_t __wrap_lgetxattr(const char* path, const char* name, void* value, size_t size) {
    if (withoutAttributes) return errno = ENOTSUP, -1;
    return __real_lgetxattr(path, name, value, size);
}
int __real_unlink(const char*);
int __wrap_unlink(const char* path) {
    mayEnd();
    return __real_unlink(path);
}
}

namespace tarnwell {
namespace {

namespace fs = std::filesystem;
using testing::bytesOf;
using testing::JournalWorld;
using testing::LogCapture;
using testing::ManualExecutor;
using testing::RemoteTree;

/// Drive path to contents; folders have "/" for contents.
using Tree = std::map<std::string, std::string>;

Tree treeOf(const TWMetadataStorage& store) {
    Tree tree;
    for (const auto& file : store.allFiles()) {
        tree[file->FullPath.str().substr(7)] =
            file->IsFile ? bytesOf(store.layout().cachePathForFile(*file)) : "/";
    }
    return tree;
}

/// With what the files say of themselves.
void copyFolder(const std::string& from, const std::string& to) {
    fs::copy(from, to, fs::copy_options::recursive);
    for (const auto& entry : fs::recursive_directory_iterator(from)) {
        const auto version = ContentVersion::of(entry.path().string());
        ASSERT_EQ(version ? version->set(to + entry.path().string().substr(from.size())) : 0, 0);
    }
}

void addKnown(JournalWorld& world) {
    world.known("fa", "a", "AAAA");
    world.known("fb", "b", "BB");
    world.known("d", "d", nullptr);
    world.known("fc", "d/c", "CCC");
}

/// A world that is saved, and what its folders hold then.
class KilledWorld : public JournalWorld {
  public:
    KilledWorld() {
        store.persistence().load();
        store.insertShare(share);
        addKnown(*this);
        for (const auto& file : store.allFiles())
            remote.items[file->InternalName.str()] = {
                file->ParrentId.str(), file->PublicName.str(),
                file->IsFile ? bytesOf(layout.cachePathForFile(*file)) : "", file->IsFile};
        background.runAll();
        EXPECT_TRUE(store.persistence().save());
        copyFolder(data(), pristine());
    }
    [[nodiscard]] std::string data() const { return temporary.path("data"); }
    [[nodiscard]] std::string pristine() const { return temporary.path("pristine"); }
    void restore() const {
        fs::remove_all(data());
        copyFolder(pristine(), data());
    }
    RemoteTree remote;
};

/// The next run of the program.
struct NextRun {
    explicit NextRun(KilledWorld& world)
        : store({world.layout, world.clock, background, [] { return std::string("someone"); }, [] {}}) {
        store.persistence().load();
        background.runAll();
    }
    /// Empty when every change can be sent and the service has the same tree then.
    std::string send(RemoteTree remote) {
        const auto lock = store.beginWriteJournal();
        for (const auto& entry : store.journal().journalItems()) {
            const auto& file = *entry->File;
            const std::string contents =
                file.UploadName.empty() ? "" : bytesOf(store.layout().cachePathForUpload(file));
            const auto problem = remote.perform(
                *entry, contents, [&](const std::string& id) { return store.fileWithId(id) != nullptr; });
            if (!problem.empty()) return problem;
        }
        Tree tree;
        for (const auto& [id, item] : remote.items)
            tree[remote.path(id)] = item.isFile ? item.contents : "/";
        Tree here = treeOf(store);
        std::erase_if(here, [](const auto& item) { return CacheLayout::isPathIgnored(item.first, false); });
        return tree == here ? "" : "the service has another tree";
    }
    /// Names of files whose record does not fit their bytes.
    std::string lies() {
        std::string text;
        for (const auto& file : store.allFiles()) {
            const bool unsettled = file->LocallyUpdated.value_or(false) &&
                                   !CacheLayout::isPathIgnored(file->FullPath.view(), false);
            if (file->IsFile && (!store.hasWholeContents(*file) || unsettled))
                text += file->FullPath.str() + " ";
        }
        return text;
    }
    ManualExecutor background;
    TWMetadataStorage store;
};

std::vector<std::string> stepsOf(const std::string& text) {
    std::vector<std::string> steps;
    std::stringstream all(text);
    for (std::string step; std::getline(all, step, ';');)
        steps.push_back(step);
    return steps;
}

/// What the tree may be while `step` is done: a file that is being written holds some of its bytes.
std::vector<Tree> during(const std::string& step, const Tree& before, const Tree& after) {
    std::vector<Tree> trees{before, after};
    std::stringstream words(step);
    std::string what, path, contents;
    words >> what >> path >> contents;
    if (what == "write") {
        trees.push_back(before);
        trees.back()[path] = "";
        trees.push_back(before);
        trees.back()[path] = contents.substr(0, contents.size() / 2);
    }
    return trees;
}

std::string shown(const Tree& tree) {
    std::string text;
    for (const auto& [path, contents] : tree)
        text += path + "=" + contents + "; ";
    return text;
}

class KilledTest : public ::testing::TestWithParam<const char*> {};

/// The process ends before its first call that reaches the disk, before its second, and so on.
TEST_P(KilledTest, leavesEachFileOldOrNewAndSendsWhatWasClosed) {
    const auto steps = stepsOf(GetParam());
    LogCapture log;
    KilledWorld world;
    std::vector<Tree> trees;
    {
        JournalWorld reference;
        addKnown(reference);
        trees.push_back(treeOf(reference.store));
        for (const auto& step : steps) {
            reference.run(step);
            trees.push_back(treeOf(reference.store));
        }
    }
    for (int calls = 1;; ++calls) {
        world.restore();
        int done[2];
        ASSERT_EQ(pipe(done), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            callsLeft = calls;
            try {
                for (const auto& step : steps) {
                    world.run(step);
                    if (__real_write(done[1], "x", 1) != 1) _exit(1);
                }
            } catch (const std::exception& error) {
                std::fprintf(stderr, "%s\n", error.what());
                _exit(1);
            }
            _exit(0);
        }
        close(done[1]);
        std::size_t finished = 0;
        for (char x = 0; read(done[0], &x, 1) == 1;)
            ++finished;
        close(done[0]);
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 1);

        const std::string where = "before call " + std::to_string(calls) + ", after step " +
                                  std::to_string(finished) + " of " + GetParam();
        for (int start = 1; start <= 2; ++start) {
            // The second start is that of a run that ended before it saved anything.
            NextRun run(world);
            const Tree tree = treeOf(run.store);
            const auto allowed = finished < steps.size()
                                     ? during(steps[finished], trees[finished], trees[finished + 1])
                                     : std::vector{trees.back()};
            ASSERT_NE(std::find(allowed.begin(), allowed.end(), tree), allowed.end())
                << where << ", start " << start << "\nis:     " << shown(tree)
                << "\nbefore: " << shown(allowed.front()) << "\n"
                << log.text();
            ASSERT_EQ(run.lies(), "") << where << ", start " << start;
            ASSERT_EQ(run.send(world.remote), "") << where << ", start " << start << "\n" << log.text();
        }
        if (WEXITSTATUS(status) == 0) break;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Steps, KilledTest,
    ::testing::Values("create n;write n NNNNNN;write a XXXXXXXX;rm b;mkdir e;create e/f;write e/f FF",
                      // How editors save: by a new file in the old one's place, with and without a backup.
                      "create t;write t TTTTTT;rm a;mv t a;write a UUUU",
                      "mv a a~;create a;write a NNNNNN;rm a~",
                      // A name that takes no part, and back.
                      "mv a ~$a;mv ~$a a2;rm a2",
                      "mv d e;create e/n;write e/n NN;rm e/c;sync;mv e/n n;rm e;create n2",
                      "write a XXXXXX;sync;write a YY;sync;mv a d/a;sync;rm b;mv d/a b;sync",
                      "create n;write n NNNN;sync;rm n;create n;sync;write n MMMM;write b LL"));

/// The one segment that there is.
std::string logOf(const KilledWorld& world) {
    std::string found;
    for (const auto& entry : fs::directory_iterator(world.layout.rootCachePath())) {
        if (entry.path().filename().string().starts_with("changes-")) found = entry.path().string();
    }
    return found;
}

/// The log of a session, and what a run finds that has only the first bytes of it.
class CutLogTest : public ::testing::Test {
  protected:
    CutLogTest() {
        world_.run("create n;write n NNNN;mv b b2;rm a;mkdir e;mv n e/n");
        path_ = logOf(world_);
        bytes_ = bytesOf(path_);
        world_.restore();
    }
    /// The names of the tree and the journal.
    std::string loaded(const std::string& log) {
        world_.restore();
        std::ofstream(path_, std::ios::binary) << log;
        const NextRun run(world_);
        std::string text;
        for (const auto& [path, contents] : treeOf(run.store))
            text += path + " ";
        for (const auto& entry : run.store.journal().journalItems())
            text += std::to_string(entry->LocalJournalType) + entry->CurrentPath.str() + " ";
        return text;
    }
    /// Where each piece ends.
    [[nodiscard]] std::vector<std::size_t> ends() const {
        std::vector<std::size_t> ends{8};
        while (ends.back() < bytes_.size()) {
            std::size_t length = 0;
            for (int i = 3; i >= 0; --i)
                length = length << 8U | static_cast<unsigned char>(bytes_[ends.back() + i]);
            ends.push_back(ends.back() + 8 + length);
        }
        return ends;
    }
    LogCapture log_;
    KilledWorld world_;
    std::string path_, bytes_;
};

TEST_F(CutLogTest, wholePiecesCountAndOthersDoNot) {
    const auto all = ends();
    ASSERT_GT(all.size(), 8U);
    std::set<std::string> states;
    for (std::size_t i = 1; i + 1 < all.size(); ++i) {
        const std::string state = loaded(bytes_.substr(0, all[i]));
        states.insert(state);
        const std::size_t next = all[i + 1];
        for (const std::size_t cut : {all[i] + 1, all[i] + 7, all[i] + 8, (all[i] + next) / 2, next - 1}) {
            EXPECT_EQ(loaded(bytes_.substr(0, cut)), state) << cut;
        }
        std::string damaged = bytes_;
        damaged[(all[i] + next) / 2] ^= 0x40;
        EXPECT_EQ(loaded(damaged), state) << "damaged after " << all[i];
    }
    EXPECT_GE(states.size(), 5U) << "each step shows";
    EXPECT_TRUE(log_.contains(".log is cut off: a checksum is wrong."));
}

TEST_F(CutLogTest, aForeignJournalIsNotDoubled) {
    // The journal's file has an entry that the log knows as well, and is not the one that the log begins
    // with.
    world_.restore();
    world_.run("sync");
    std::ofstream(path_, std::ios::binary) << bytes_;
    NextRun run(world_);
    const auto count = run.store.journal().journalItems().size();
    EXPECT_GT(count, 0U);
    ASSERT_TRUE(run.store.persistence().save());
    std::ofstream(path_, std::ios::binary) << bytes_;
    EXPECT_EQ(NextRun(world_).store.journal().journalItems().size(), count);
}

TEST(ChangeLogTest, isNeededOnlyUntilASaveAndGoneAfterAClear) {
    KilledWorld world;
    const auto logs = [&] { return logOf(world); };
    EXPECT_EQ(logs(), "");
    world.merge({JournalWorld::file("new", "s", "remote")});
    EXPECT_EQ(logs(), "") << "the service says it again";
    world.run("write a X");
    EXPECT_NE(logs(), "");
    EXPECT_TRUE(world.store.persistence().syncChanges());
    world.run("sync");
    EXPECT_EQ(logs(), "");
    world.run("write a Y");
    world.store.persistence().clear();
    EXPECT_EQ(logs(), "");
    EXPECT_EQ(NextRun(world).store.fileCount(), 0U);
}

/// What stands in the log is not left behind by what happens to it later, whoever does it.
TEST(ChangeLogTest, laterChangesOfWhatIsLoggedAreLogged) {
    const std::vector<std::pair<const char*, std::function<void(KilledWorld&)>>> cases{
        {"a page", [](auto& world) { world.merge({JournalWorld::file("fa", "d", "remote", 9)}); }},
        {"a remote deletion",
         [](auto& world) { world.merge({JournalWorld::deleted(JournalWorld::file("fa", "d", "x", 9))}); }},
        {"the share goes", [](auto& world) { world.store.deleteShareData(world.share); }},
        {"a save that fails",
         [](auto& world) {
             world.temporary.write("data/Tarnwell/share_s.db.new/block", "");
             EXPECT_FALSE(world.store.persistence().save());
             world.merge({JournalWorld::file("fa", "s", "after", 9)});
         }},
        {"a new share before any save of it",
         [](auto& world) {
             const auto other = world.addShare("t", "Other");
             world.store.createFolderForShare(*other);
             const auto change = world.store.beginLocalChange();
             const auto made = world.store.createFile("mine", other, nullptr, false);
             auto& journal = world.store.journal();
             journal.addChangeToJournal(journal.createJournalForFile(made, kJournalCreate));
         }},
    };
    for (const auto& [what, later] : cases) {
        LogCapture log;
        KilledWorld world;
        {
            const auto change = world.store.beginLocalChange();
            const auto file = world.store.fileWithId("fa");
            file->POSIXPermissions = 0640;
            world.store.noteAttributesChanged(*file);
            ASSERT_TRUE(world.store.renameShare(world.share, "Mine"));
        }
        later(world);
        NextRun run(world);
        const auto shape = [](const TWMetadataStorage& store) {
            std::set<std::string> lines;
            for (const auto& file : store.allFiles())
                lines.insert(file->FullPath.str() + " " + std::to_string(*file->POSIXPermissions));
            return lines;
        };
        EXPECT_EQ(shape(run.store), shape(world.store)) << what;
        EXPECT_EQ(run.store.journal().journalItems().size(), world.journal().journalItems().size()) << what;
    }
}

TEST(ChangeLogTest, anEntryThatWasBeingSentIsKnownAsSuch) {
    KilledWorld world;
    world.run("create n;write n NN");
    const auto entry = *world.journal().journalItems().begin();
    world.journal().setTransmitting(entry, true);
    entry->TransmitToken = "token";
    entry->UploadedSize = 1;
    world.journal().entryChanged(entry);
    const NextRun run(world);
    const auto loaded = *run.store.journal().journalItems().begin();
    EXPECT_TRUE(loaded->queue.attempted);
    EXPECT_FALSE(loaded->Transmitting);
    EXPECT_EQ(loaded->UploadedSize, 1);
}

TEST(ChangeLogTest, aFullDiskIsMadeUpForByTheNextTryOrSave) {
    LogCapture log;
    KilledWorld world;
    world.run("write a X");
    const int requested = world.saves;
    {
        const testing::FileSizeLimit full(static_cast<rlim_t>(fs::file_size(logOf(world))));
        world.run("mv b lost");
        EXPECT_EQ(treeOf(world.store).count("lost"), 1U) << "the change stays";
        EXPECT_FALSE(world.store.persistence().syncChanges());
        EXPECT_GT(world.saves, requested);
        EXPECT_TRUE(world.store.persistence().takeHaste());
    }
    EXPECT_TRUE(log.contains("Error! Cannot append to the change log : error File too large"));
    EXPECT_EQ(treeOf(NextRun(world).store).count("b"), 1U);
    EXPECT_TRUE(world.store.persistence().save());
    EXPECT_TRUE(world.store.persistence().syncChanges());
    EXPECT_EQ(treeOf(NextRun(world).store).count("lost"), 1U);
}

/// Random changes, failures, saves and kills. What a commit acknowledged is there after the kill, what
/// admitChange() refused has left no trace, and of what failed in between there is all or nothing.
TEST(ChangeLogModelTest, aKillLosesNothingThatWasAcknowledged) {
    LogCapture log;
    const unsigned seed = testing::seed();
    SCOPED_TRACE(testing::replayWith(seed));
    std::mt19937 random(seed);
    const auto chance = [&](unsigned percent) { return random() % 100 < percent; };
    int refused = 0, failed = 0, acknowledged = 0;
    for (int round = 0; round < 15; ++round) {
        KilledWorld world;
        // By id: numbers that the record may have; the last is the newest.
        std::map<std::string, std::vector<std::int64_t>> model;
        std::int64_t number = 0;
        for (int step = 0; step < 60; ++step) {
            if (chance(20)) {
                const int errors[] = {0, 0, ENOSPC, EIO};
                writeError = errors[random() % 4];
                writesHalf = chance(50);
                isFull = chance(30);
            }
            if (chance(8)) {
                if (world.store.persistence().save()) {
                    for (auto& [id, numbers] : model)
                        numbers = {numbers.back()};
                }
            } else if (world.store.admitChange() != 0) {
                ++refused;
            } else {
                auto change = world.store.beginLocalChange();
                for (int i = 0; i < (chance(20) ? 2 : 1); ++i) {
                    TWVirtualFilePtr file;
                    if (chance(30)) {
                        const std::string name = "n" + std::to_string(++number);
                        file = JournalWorld::file(name, "s", name);
                        world.store.addFileMetadata(file);
                    } else {
                        const char* const known[] = {"fa", "fb", "fc", "d"};
                        file = world.store.fileWithId(known[random() % 4]);
                    }
                    file->CreationTime = Date{std::chrono::seconds(++number)};
                    world.store.markChanged(*file);
                    auto& numbers = model[file->InternalName.str()];
                    if (numbers.empty()) numbers.push_back(-1);  // as it was, or not there
                    numbers.push_back(number);
                }
                if (change.commit() == 0) {
                    // What failed before it is in the log by now as well.
                    for (auto& [id, numbers] : model)
                        numbers = {numbers.back()};
                    ++acknowledged;
                } else {
                    ++failed;
                }
            }
            if (!chance(10)) continue;
            const int error = std::exchange(writeError, 0);
            const bool full = std::exchange(isFull, false);
            const testing::TemporaryFolder copy;
            fs::copy(world.data(), copy.path("data"), fs::copy_options::recursive);
            const CacheLayout layout{
                {copy.path("home"), copy.path("data"), copy.path("cache"), "Tarnwell", ""}};
            ManualExecutor background;
            TWMetadataStorage next({layout, world.clock, background, [] { return std::string(); }, [] {}});
            next.persistence().load();
            for (const auto& [id, numbers] : model) {
                const auto file = next.fileWithId(id);
                const std::int64_t found =
                    file ? file->CreationTime.time_since_epoch() / std::chrono::seconds(1) : -1;
                const bool isKnown = id == "fa" || id == "fb" || id == "fc" || id == "d";
                const bool untouched = numbers.front() == -1 && isKnown && file;
                EXPECT_TRUE(untouched || std::find(numbers.begin(), numbers.end(), found) != numbers.end())
                    << id << " has " << found << ", last written " << numbers.back() << "\n"
                    << log.text();
            }
            for (const auto& file : next.allFiles()) {
                const auto id = file->InternalName.str();
                EXPECT_TRUE(id.front() != 'n' || model.contains(id)) << "a trace of what was refused";
            }
            writeError = error;
            isFull = full;
        }
        writeError = 0;
        isFull = writesHalf = false;
    }
    EXPECT_GT(acknowledged, 50);
    EXPECT_GT(failed, 5);
    EXPECT_GT(refused, 5);
}

}  // namespace
}  // namespace tarnwell
