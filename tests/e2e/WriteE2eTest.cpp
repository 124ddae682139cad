// What the user changes on the drive reaches the service and his other machine, whole, in whatever way
// programs write, and whatever is killed or cut off in between.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "e2e/World.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

/// As programs do that care: the bytes are there when it returns, or it says so.
bool writeFile(const std::string& path, const std::string& bytes) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0) return false;
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = write(file, bytes.data() + done, bytes.size() - done);
        if (count <= 0) break;
        done += static_cast<std::size_t>(count);
    }
    return close(file) == 0 && done == bytes.size();
}

/// What of `seen` is not as expected, a line each; empty when nothing is.
std::string differences(const Tree& expected, const Tree& seen) {
    std::string lines;
    for (const auto& [path, entry] : expected) {
        const auto found = seen.find(path);
        if (found == seen.end()) {
            lines += path + " is missing\n";
        } else if (found->second != entry) {
            lines += path + " has other contents, " + std::to_string(found->second.contents.size()) +
                     " bytes instead of " + std::to_string(entry.contents.size()) + "\n";
        }
    }
    for (const auto& [path, entry] : seen) {
        if (!expected.contains(path)) lines += path + " should not be there\n";
    }
    return lines;
}

struct WriteE2eTest : ::testing::Test {
    void SetUp() override {
        if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE on this machine";
    }
    void begin(bool relayed = false) {
        world.emplace(World::Options{.relayed = relayed});
        start(world->client());
    }
    void start(Client& client) {
        client.start();
        ASSERT_TRUE(client.waitForState("online"));
        ASSERT_TRUE(client.waitForPath("/Papers"));
    }
    Client& client() { return world->client(); }
    std::string papers(const std::string& name = "") { return client().path("/Papers" + name); }
    Tree local() { return synchronised(readTree(papers())); }

    /// Runs a script in the share's folder, and in a plain folder that shows what ought to come of it.
    void script(const std::string& text) {
        const std::string plain = world->folder().path("plain");
        fs::create_directories(plain);
        const std::string file = world->folder().write("script", "set -e\n" + text + "\n");
        for (const auto& folder : {papers(), plain}) {
            const ProgramResult result =
                runProgram({"/bin/sh", "-c", "cd '" + folder + "' && sh '" + file + "'"},
                           world->folder().path("script.out"));
            ASSERT_EQ(result.status, 0) << folder << ": " << text << "\n" << result.output;
        }
        EXPECT_EQ(differences(synchronised(readTree(plain)), local()), "") << text;
    }
    static bool has(const std::string& program) {
        return std::system(("command -v " + program + " >/dev/null").c_str()) == 0;
    }
    /// The second machine shows what the first one does, and both the same as the service.
    void expectEverywhere() {
        ASSERT_TRUE(client().waitForUploads());
        auto& other = world->otherClient();
        if (!other.isMounted()) start(other);
        other.refresh();
        const Tree expected = local();
        Tree seen;
        const bool same = eventually([&] {
            try {
                seen = synchronised(readTree(other.path("/Papers")));
            } catch (const std::exception&) {
            }
            return seen == expected;
        });
        EXPECT_TRUE(same) << differences(expected, seen);
    }

    std::optional<World> world;
};

TEST_F(WriteE2eTest, everyKindOfChangeArrives) {
    begin();
    world->source("there/already", "as it was");
    world->source("there/to be deleted", "gone soon");
    world->source("there/tree/deep/file", "goes with its folder");
    world->source("there/uncached", randomBytes(300'000));
    world->import();
    client().refresh();
    ASSERT_TRUE(client().waitForPath("/Papers/there/uncached"));

    // Around the size of a chunk, and a name in two Unicode forms.
    const std::size_t chunk = 1 << 20;
    for (const std::size_t size : {std::size_t{1}, chunk, chunk + 1, 3 * chunk + 17})
        ASSERT_TRUE(writeFile(papers("/" + std::to_string(size)), randomBytes(size)));
    fs::create_directories(papers("/new/one/two"));
    ASSERT_TRUE(writeFile(papers("/new/one/two/caf\u00e9"), "composed"));
    fs::rename(papers("/there/already"), papers("/new/moved here"));
    fs::remove(papers("/there/to be deleted"));
    fs::remove_all(papers("/there/tree"));
    // Into the middle of what only the service has.
    std::string bytes = randomBytes(300'000);
    {
        const int file = open(papers("/there/uncached").c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_GE(file, 0);
        EXPECT_EQ(pwrite(file, "middle", 6, 150'000), 6);
        EXPECT_EQ(close(file), 0);
        bytes.replace(150'000, 6, "middle");
    }
    EXPECT_TRUE(readRange(papers("/there/uncached"), 0, 400'000) == bytes);
    ASSERT_TRUE(writeFile(papers("/.hidden"), "stays here"));
    // As unpackers do: the time after the bytes.
    const timespec times[] = {{1'500'000'000, 0}, {1'400'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, papers("/1").c_str(), times, 0), 0);
    expectEverywhere();
    EXPECT_EQ(fs::last_write_time(papers("/1")), fs::last_write_time(world->otherClient().path("/Papers/1")));
    EXPECT_FALSE(fs::exists(world->otherClient().path("/Papers/.hidden")));

    // And once more, on what the service knows by now, in the other direction as well.
    fs::rename(papers("/new"), papers("/renamed"));
    ASSERT_TRUE(writeFile(papers("/1"), "longer than before"));
    fs::remove(papers("/" + std::to_string(chunk)));
    expectEverywhere();
    ASSERT_TRUE(writeFile(world->otherClient().path("/Papers/renamed/answer"), "from the other machine"));
    ASSERT_TRUE(world->otherClient().waitForUploads());
    client().refresh();
    ASSERT_TRUE(client().waitForPath("/Papers/renamed/answer"));
    EXPECT_EQ(readRange(papers("/renamed/answer"), 0, 100), "from the other machine");
    // What was written here is here, and is not fetched again.
    EXPECT_EQ(readRange(papers("/1"), 0, 100), "longer than before");
}

TEST_F(WriteE2eTest, programsSaveTheirWay) {
    begin();
    script("for i in 1 2 3 4; do echo first version of $i > doc$i.txt; done; mkdir dir; echo x > dir/x");
    ASSERT_TRUE(client().waitForUploads());
    const int before = world->requests("clientfileapi.ashx");
    // Write a new file and rename it over; keep a backup and write anew; swap through a third; in place.
    script("echo new one > doc1.txt.new; mv doc1.txt.new doc1.txt");
    script("mv doc2.txt doc2.txt~; echo new two > doc2.txt; rm doc2.txt~");
    script(
        "echo three > .doc3.swp; mv doc3.txt doc3.bak; echo new three > doc3.txt; rm -f doc3.bak .doc3.swp");
    script("sed -i s/first/second/ doc4.txt");
    script("mv dir/x dir/y; mv dir/y moved; mv moved dir/x");
    ASSERT_TRUE(client().waitForUploads());
    EXPECT_LE(world->requests("clientfileapi.ashx") - before, 16) << "a save is few operations on the wire";
    script(
        "mkdir src; for i in $(seq 20); do echo $i > src/f$i; done; tar cf all.tar src; mkdir out; "
        "tar xf all.tar -C out; rm all.tar; cp -a out/src copy; mv copy out/; rm -r src");
    if (has("git")) {
        script(
            "git init -q repo; cd repo; git config user.email a@b; git config user.name n; echo 1 > a; "
            "git add a; git commit -qm one; echo 2 >> a; git commit -qam two; git checkout -q HEAD~1 -- a; "
            "git gc -q; git fsck; cd ..; rm -rf repo/.git/logs repo/.git/objects repo/.git/index; rm -rf "
            "repo");
    }
    if (has("sqlite3")) {
        script(
            "sqlite3 db 'create table t(a); insert into t values(1);'; sqlite3 db 'insert into t "
            "values(2);'");
    }
    // Editors as they are, with their swap files, backups and renames.
    if (has("vim")) {
        script(
            "vim -es -u NONE -c 'set backup writebackup' -c '%s/new/vim/' -c wq doc1.txt; rm -f doc1.txt~");
    }
    if (has("emacs")) {
        // Without the rule that there are no backups below /tmp.
        script(
            "emacs --batch -Q --eval '(setq backup-enable-predicate (lambda (name) t))' doc2.txt "
            "--eval '(progn (insert \"emacs \") (save-buffer))'; test -e doc2.txt~; rm doc2.txt~");
    }
    if (has("rsync"))
        script("rsync -a --no-owner --no-group dir/ synced/; echo more >> dir/x; rsync -a dir/ synced/");
    expectEverywhere();
}

TEST_F(WriteE2eTest, aLongSessionWithoutAnyNetworkArrivesAfterwards) {
    begin(true);
    world->source("report", "version 0");
    world->source("old/a", "a");
    world->source("old/b", "b");
    world->import();
    client().refresh();
    ASSERT_TRUE(client().waitForPath("/Papers/old/b"));
    ASSERT_EQ(readRange(papers("/report"), 0, 100), "version 0");
    // What came from the service is kept by a save; what the user does is kept at once.
    ASSERT_TRUE(eventually([&] { return client().log().find("Saved file metadata") != std::string::npos; }));
    world->relay().setRefusing(true);
    world->relay().cut();

    for (int i = 1; i <= 5; ++i) {
        ASSERT_TRUE(writeFile(papers("/report.new"), "version " + std::to_string(i)));
        fs::rename(papers("/report.new"), papers("/report"));
        fs::create_directories(papers("/work/" + std::to_string(i)));
        ASSERT_TRUE(writeFile(papers("/work/" + std::to_string(i) + "/notes"), randomBytes(10'000)));
    }
    fs::rename(papers("/work/3"), papers("/work/three"));
    fs::rename(papers("/old"), papers("/work/old"));
    fs::remove(papers("/work/old/a"));
    fs::remove_all(papers("/work/5"));
    // And a crash and a start in the middle of it.
    client().kill();
    client().start();
    ASSERT_TRUE(client().waitForPath("/Papers/work/old/b"));
    EXPECT_EQ(readRange(papers("/report"), 0, 100), "version 5");
    ASSERT_TRUE(writeFile(papers("/after"), "the crash"));
    const Tree before = local();
    world->relay().heal();
    client().refresh();
    ASSERT_TRUE(client().waitForState("online"));
    expectEverywhere();
    Tree after = local();
    EXPECT_EQ(before.size(), after.size());
    EXPECT_EQ(after["/report"].contents, "version 5");
}

TEST_F(WriteE2eTest, whatWasClosedSurvivesKillsOfBothSides) {
    begin();
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pause = [&](int most) {
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % static_cast<unsigned>(most)));
    };
    Tree promised;  // what was closed before the client was killed
    fs::create_directories(papers("/full"));
    promised["/full"].isFolder = true;
    std::string folder = "/full";
    int number = 0;
    for (int round = 0; round < 6; ++round) {
        for (int i = 0; i < 12; ++i) {
            const std::string name = folder + "/" + std::to_string(number++ % 30);
            const auto bytes = randomBytes(1 + random() % 400'000);
            ASSERT_TRUE(writeFile(papers(name), bytes));
            promised[name] = {.contents = bytes};
        }
        const std::string big = folder + "/big";
        const auto bytes = randomBytes(3'000'000 + random() % 3'000'000);
        ASSERT_TRUE(writeFile(papers(big), bytes));
        promised[big] = {.contents = bytes};
        // A full folder gets another name, while what is in it is being sent.
        const std::string renamed = "/full " + std::to_string(round);
        fs::rename(papers(folder), papers(renamed));
        Tree moved;
        for (auto& [path, entry] : promised)
            moved[renamed + path.substr(folder.size())] = std::move(entry);
        promised = std::move(moved);
        folder = renamed;

        pause(round % 2 == 0 ? 300 : 7000);
        if (round % 3 == 1) {
            world->stopService();
            pause(500);
            world->startService();
        } else {
            client().kill();
            client().start();
            ASSERT_TRUE(client().waitForPath("/Papers" + folder));
        }
        EXPECT_EQ(differences(promised, local()), "") << "round " << round;
    }
    ASSERT_TRUE(client().waitForState("online"));
    expectEverywhere();
    EXPECT_EQ(differences(promised, local()), "");
}

TEST_F(WriteE2eTest, twoMachinesAtOnceLoseNothing) {
    begin();
    auto& other = world->otherClient();
    start(other);
    ASSERT_TRUE(writeFile(papers("/shared"), "base"));
    expectEverywhere();
    // Both change the same file and make one of the same name, before either hears of the other.
    ASSERT_TRUE(writeFile(papers("/shared"), "by the first"));
    ASSERT_TRUE(writeFile(other.path("/Papers/shared"), "by the second"));
    ASSERT_TRUE(writeFile(papers("/both"), "one's"));
    ASSERT_TRUE(writeFile(other.path("/Papers/both"), "two's"));
    ASSERT_TRUE(eventually([&] { return client().waitForUploads() && other.waitForUploads(); }));
    // Contents, by whatever name: nobody's bytes are lost, and both see the same.
    const auto contents = [](Client& machine) {
        std::multiset<std::string> found;
        for (const auto& [path, entry] : synchronised(readTree(machine.path("/Papers"))))
            found.insert(entry.contents);
        return found;
    };
    const std::multiset<std::string> all{"by the first", "by the second", "one's", "two's"};
    EXPECT_TRUE(eventually([&] {
        client().refresh();
        other.refresh();
        return contents(client()) == all && contents(other) == all &&
               synchronised(readTree(papers())) == synchronised(readTree(other.path("/Papers")));
    })) << ::testing::PrintToString(contents(client()))
        << ::testing::PrintToString(contents(other));
}

TEST_F(WriteE2eTest, randomOperationsLeaveWhatAPlainFolderShows) {
    begin();
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string plain = world->folder().path("model");
    fs::create_directories(plain);
    const std::vector<std::string> names{"a", "b", "c.txt", "D", "folder", "other", "x y"};
    const auto anyPath = [&] {
        std::string path;
        for (unsigned depth = 1 + random() % 3; depth > 0; --depth)
            path += "/" + names[random() % names.size()];
        return path;
    };
    const auto errorOf = [](bool done) { return done ? 0 : errno; };
    for (int step = 0; step < 400; ++step) {
        const unsigned what = random() % 100;
        const std::string from = anyPath(), to = anyPath();
        const auto bytes = randomBytes(1 + random() % 20'000);
        const off_t at = static_cast<off_t>(random() % 5000);
        // A folder that takes the place of an empty one keeps its own name on the drive.
        if (what >= 60 && what < 80 && fs::is_directory(plain + from) && fs::is_directory(plain + to))
            continue;
        int errors[2];
        const std::string tops[2] = {papers(), plain};
        for (int side = 0; side < 2; ++side) {
            const std::string a = tops[side] + from, b = tops[side] + to;
            if (what < 35) {
                errors[side] = errorOf(writeFile(a, bytes));
            } else if (what < 45) {
                const int file = open(a.c_str(), O_RDWR | O_CLOEXEC);
                errors[side] = errorOf(file >= 0 && pwrite(file, bytes.data(), bytes.size(), at) ==
                                                        static_cast<ssize_t>(bytes.size()));
                if (file >= 0) close(file);
            } else if (what < 60) {
                errors[side] = errorOf(mkdir(a.c_str(), 0755) == 0);
            } else if (what < 80) {
                errors[side] = errorOf(rename(a.c_str(), b.c_str()) == 0);
            } else if (what < 88) {
                errors[side] = errorOf(unlink(a.c_str()) == 0);
            } else if (what < 94) {
                errors[side] = errorOf(rmdir(a.c_str()) == 0);
            } else {
                errors[side] = errorOf(truncate(a.c_str(), at + 1) == 0);
            }
        }
        // The codes of a few impossible calls differ; that they fail does not.
        ASSERT_EQ(errors[0] != 0, errors[1] != 0) << "step " << step << ", " << what << " " << from << " "
                                                  << to << ": " << errors[0] << " and " << errors[1];
        if (step % 100 == 50) std::this_thread::sleep_for(5500ms);  // some of it is sent on the way
    }
    EXPECT_EQ(differences(synchronised(readTree(plain)), local()), "");
    expectEverywhere();
}

}  // namespace
}  // namespace tarnwell::testing
