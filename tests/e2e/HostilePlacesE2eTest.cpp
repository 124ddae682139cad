// Names that move while programs work by path and by descriptor: each call meets the item that was meant, and
// a name that always exists is always found, in whatever spelling it was given.

#include <dirent.h>

#include <array>
#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "e2e/Hostile.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;

struct HostilePlacesE2eTest : HostileTest {
    static constexpr auto kLong = 4s;

    /// Runs all of them again and again, a thread each, until the time is over.
    static void atOnce(const std::vector<std::function<void()>>& programs) {
        const auto end = SteadyClock::now() + kLong;
        std::vector<std::thread> threads;
        for (const auto& program : programs) {
            threads.emplace_back([&program, end] {
                while (SteadyClock::now() < end)
                    program();
            });
        }
        for (auto& thread : threads)
            thread.join();
    }
    /// Names in the folder as they are listed, without "." and "..".
    static std::set<std::string> listed(const std::string& folder) {
        std::set<std::string> names;
        DIR* stream = opendir(folder.c_str());
        if (!stream) return {"errno " + std::to_string(errno)};
        while (const auto* entry = readdir(stream))
            names.insert(entry->d_name);
        closedir(stream);
        names.erase(".");
        names.erase("..");
        return names;
    }
};

/// Counts calls and remembers the first few answers that may not be.
class Answers {
  public:
    /// The kernel looks a name up again once when the item was replaced meanwhile. Programs that replace it
    /// without a pause are now and then ahead of that as well: a few in ten thousand calls.
    void allowStale() { staleAllowed_ = true; }
    void expect(const char* call, int error, std::initializer_list<int> allowed = {0}) {
        ++calls_;
        if (std::find(allowed.begin(), allowed.end(), error) != allowed.end()) return;
        if (error == ESTALE) ++stale_;
        if (error == ESTALE && staleAllowed_) return;
        if (++wrong_ > 5) return;
        const std::lock_guard lock(mutex_);
        text_ += std::string(call) + ": " + strerror(error) + "; ";
    }
    ~Answers() {
        EXPECT_EQ(wrong_, 0) << "of " << calls_ << " calls: " << text_;
        EXPECT_LE(stale_, calls_ / 1000) << "stale of " << calls_;
    }

  private:
    std::atomic<int> calls_{0}, wrong_{0}, stale_{0};
    bool staleAllowed_ = false;
    std::mutex mutex_;
    std::string text_;
};

TEST_F(HostilePlacesE2eTest, workInAFolderStaysInItWhileFoldersTradeNames) {
    begin();
    fs::create_directory(papers("mine"));
    fs::create_directory(papers("other"));
    ASSERT_EQ(writeFile(papers("other/file"), "precious"), 0);
    const int mine = open(papers("mine").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int other = open(papers("other").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_TRUE(mine >= 0 && other >= 0);
    Answers answers;
    int round = 0;
    atOnce({[&] {
                answers.expect("rename", errorOf(rename(papers("mine").c_str(), papers("third").c_str())));
                answers.expect("rename", errorOf(rename(papers("other").c_str(), papers("mine").c_str())));
                answers.expect("rename", errorOf(rename(papers("third").c_str(), papers("other").c_str())));
            },
            [&] {
                const std::string bytes = "mine " + std::to_string(++round);
                const int file = openat(mine, "file", O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
                answers.expect("create", errorOf(file));
                if (file >= 0) {
                    answers.expect("write", errorOf(pwrite(file, bytes.data(), bytes.size(), 0)));
                    answers.expect("close", errorOf(close(file)));
                }
                answers.expect("mkdirat", errorOf(mkdirat(mine, "sub", 0755)));
                answers.expect("renameat", errorOf(renameat(mine, "sub", mine, "sub 2")));
                answers.expect("rmdir", errorOf(unlinkat(mine, "sub 2", AT_REMOVEDIR)));
                struct stat status {};
                answers.expect("fstatat", errorOf(fstatat(mine, "file", &status, 0)));
                if (status.st_size != static_cast<off_t>(bytes.size())) answers.expect("size", EINVAL);
                answers.expect("fchmodat", errorOf(fchmodat(mine, "file", 0600, 0)));
                answers.expect("unlink", errorOf(unlinkat(mine, "file", 0)));
                answers.expect("the other folder's file", errorOf(faccessat(other, "file", R_OK, 0)));
            }});
    close(mine);
    close(other);
    const std::string folder = fs::exists(papers("other/file")) ? "other" : "mine";
    EXPECT_EQ(readFile(papers(folder + "/file")), "precious");
    expectDriveIsService();
    // Nothing that failed, or was only passed through, keeps remote versions away.
    changeElsewhere(folder + "/file", "from elsewhere");
    EXPECT_TRUE(eventually([&] { return readFile(papers(folder + "/file")) == "from elsewhere"; }));
}

TEST_F(HostilePlacesE2eTest, aNameThatIsReplacedByRenameIsAlwaysFound) {
    begin();
    const std::string name = papers("settings");
    ASSERT_EQ(writeFile(name, "version"), 0);
    Answers answers;
    answers.allowStale();
    atOnce({[&] {
                answers.expect("write", writeFile(name + ".new", "version"));
                answers.expect("rename", errorOf(rename((name + ".new").c_str(), name.c_str())));
            },
            [&] {
                struct stat status {};
                answers.expect("stat", errorOf(stat(name.c_str(), &status)));
                answers.expect("access", errorOf(access(name.c_str(), R_OK)));
            },
            [&] {
                const int file = open(name.c_str(), O_RDONLY | O_CLOEXEC);
                answers.expect("open", errorOf(file));
                std::array<char, 16> bytes{};
                const ssize_t count = file < 0 ? 0 : pread(file, bytes.data(), bytes.size(), 0);
                if (file >= 0) answers.expect("read", count == 7 ? 0 : count < 0 ? errno : ENODATA);
                if (file >= 0) close(file);
            },
            [&] {
                answers.expect("chmod", errorOf(chmod(name.c_str(), 0644)));
                answers.expect("utimes", errorOf(utimensat(AT_FDCWD, name.c_str(), nullptr, 0)));
            }});
    EXPECT_EQ(readFile(name), "version");
    expectDriveIsService();
}

TEST_F(HostilePlacesE2eTest, listingsSpellNamesAsTheyWereGivenAndBothSpellingsAreFound) {
    const std::array<std::pair<std::string, std::string>, 3> spellings{
        {{"Gr\u00fcsse.txt", "Gru\u0308sse.txt"},
         {"caf\u00e9", "cafe\u0301"},
         {"\u00c5ngstr\u00f6m", "A\u030angstro\u0308m"}}};
    for (const bool composed : {true, false}) {
        SCOPED_TRACE(composed ? "composed" : "decomposed");
        const auto given = [&](const auto& pair) { return composed ? pair.first : pair.second; };
        world.emplace();
        // One of them from the service, the others from here; the folder once more inside itself.
        world->source(given(spellings[0]), "imported");
        world->import();
        start(client());
        ASSERT_TRUE(client().waitForPath("/Papers/" + given(spellings[0])));
        ASSERT_EQ(writeFile(papers(given(spellings[1])), "written"), 0);
        ASSERT_EQ(errorOf(mkdir(papers(given(spellings[2])).c_str(), 0755)), 0);
        ASSERT_EQ(writeFile(papers(given(spellings[2]) + "/" + given(spellings[0])), "inside"), 0);
        const std::set<std::string> expected{given(spellings[0]), given(spellings[1]), given(spellings[2])};
        EXPECT_EQ(listed(papers()), expected);
        EXPECT_EQ(listed(papers(given(spellings[2]))), std::set<std::string>{given(spellings[0])});
        for (const auto& [one, two] : spellings) {
            EXPECT_EQ(access(papers(one).c_str(), F_OK), 0) << one;
            EXPECT_EQ(access(papers(two).c_str(), F_OK), 0) << two;
        }
        expectDriveIsService();
        auto& other = world->otherClient();
        start(other);
        ASSERT_TRUE(other.waitForPath("/Papers/" + given(spellings[2]) + "/" + given(spellings[0])));
        EXPECT_EQ(listed(other.path("/Papers")), expected) << "on another machine";
        if (std::system("command -v rsync >/dev/null") == 0) {
            // Programs compare lists with what they hold: nothing is deleted because it is spelled otherwise.
            const std::string copy = world->folder().path("copy");
            const auto sync = [&](const std::string& from, const std::string& to) {
                return runProgram({"/usr/bin/rsync", "-a", "--no-owner", "--no-group", "--delete-after",
                                   "--itemize-changes", "--omit-dir-times", from + "/", to + "/"},
                                  world->folder().path("rsync.out"));
            };
            EXPECT_EQ(sync(papers(), copy).status, 0);
            const auto again = sync(copy, papers());
            EXPECT_EQ(again.status, 0);
            EXPECT_EQ(again.output.find("deleting"), std::string::npos) << again.output;
            EXPECT_EQ(listed(papers()), expected);
        }
        world.reset();
    }
}

}  // namespace
}  // namespace tarnwell::testing
