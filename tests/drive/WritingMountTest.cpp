// Programs that change files on the mounted drive.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <array>

#include "drive/MountedDrive.h"
#include "store/LocalChangeJournal.h"

namespace tarnwell::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
namespace fs = std::filesystem;

class WritingMountTest : public MountedDrive {
  protected:
    /// 0 or the errno of a call that answers -1 on failure.
    static int errorOf(long result) { return result < 0 ? errno : 0; }

    void write(const std::string& name, const std::string& bytes, int flags = O_WRONLY | O_CREAT | O_TRUNC) {
        const int descriptor = ::open(path(name).c_str(), flags, 0644);
        ASSERT_GE(descriptor, 0) << name << ": " << std::strerror(errno);
        EXPECT_EQ(::write(descriptor, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        EXPECT_EQ(::close(descriptor), 0);
    }
    std::string read(const std::string& name) const { return contentsOf(path(name)); }
    int rename(const std::string& from, const std::string& to, unsigned flags = 0) const {
        return errorOf(::renameat2(AT_FDCWD, path(from).c_str(), AT_FDCWD, path(to).c_str(), flags));
    }
    struct stat statOf(int descriptor) {
        struct stat result {};
        EXPECT_EQ(::fstat(descriptor, &result), 0) << std::strerror(errno);
        return result;
    }
    /// The last close of a file is told to the drive after close(2) returned.
    std::vector<std::string> settledJournal() {
        for (int i = 0; i < 500 && !TWFuseFileData::openedFiles().empty(); ++i)
            ::usleep(10'000);
        return world.journal();
    }
    /// Runs a shell script in /Share; its exit status.
    int run(const std::string& script) {
        return std::system(("cd '" + path("Share") + "' && export HOME='" + world.folder.path() +
                            "' && ( set -e; " + script + " ) >'" + world.folder.path("output") + "' 2>&1")
                               .c_str());
    }
    std::string output() const { return contentsOf(world.folder.path("output")); }
};

TEST_F(WritingMountTest, everyCallHasItsError) {
    world.addShare("RO", "Fixed", 0);
    world.addShare("S2", "Other");
    world.addCached("RO", "doc", "text");
    write("Share/file", "text");
    write("Share/file2", "text");
    ASSERT_EQ(::mkdir(path("Share/full").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(path("Share/empty").c_str(), 0755), 0);
    write("Share/full/inside", "x");
    const auto at = [this](const char* name) { return path(name); };
    const auto open = [&](const char* name, int flags) {
        const int descriptor = ::open(at(name).c_str(), flags, 0644);
        if (descriptor >= 0) ::close(descriptor);
        return errorOf(descriptor);
    };
    const timespec now[2] = {{0, UTIME_NOW}, {0, UTIME_NOW}};
    const std::pair<int, int> cases[] = {
        // 0: what was asked, 1: what must come
        {open("Fixed/new", O_CREAT | O_WRONLY), EACCES},
        {open("Fixed/._new", O_CREAT | O_WRONLY), 0},
        {open("Fixed/doc", O_RDONLY | O_TRUNC), EACCES},
        {open("top", O_CREAT | O_WRONLY), EACCES},
        {open("Share/none/new", O_CREAT | O_WRONLY), ENOENT},
        {open("Share/file", O_CREAT | O_EXCL | O_WRONLY), EEXIST},
        {open("Share/FILE", O_CREAT | O_EXCL | O_WRONLY), EEXIST},
        {open("Share/full", O_WRONLY), EISDIR},
        {open(("Share/" + std::string(256, 'n')).c_str(), O_CREAT | O_WRONLY), ENAMETOOLONG},
        {open("Share/\xff", O_CREAT | O_WRONLY), EILSEQ},
        {errorOf(::mkdir(at("Fixed/new").c_str(), 0700)), EACCES},
        {errorOf(::mkdir(at("Share/file/x").c_str(), 0700)), ENOTDIR},
        {errorOf(::unlink(at("Fixed/doc").c_str())), EACCES},
        {errorOf(::unlink(at("Share/full").c_str())), EISDIR},
        {errorOf(::rmdir(at("Share/full").c_str())), ENOTEMPTY},
        {errorOf(::rmdir(at("Share").c_str())), EACCES},
        {errorOf(::truncate(at("Fixed/doc").c_str(), 0)), EACCES},
        {errorOf(::chmod(at("Fixed/doc").c_str(), 0600)), EACCES},
        {errorOf(::chown(at("Share/file").c_str(), ::getuid(), ::getgid())), 0},
        {errorOf(::chown(at("Share/file").c_str(), ::getuid() + 1, static_cast<gid_t>(-1))), EPERM},
        {errorOf(::utimensat(AT_FDCWD, at("Fixed/doc").c_str(), now, 0)), EACCES},
        {rename("Share/file", "Other/file"), EIO},
        {rename("Share/file", "Fixed/file"), EACCES},
        {rename("Share/file", "Share/empty"), EISDIR},
        {rename("Share/empty", "Share/file"), ENOTDIR},
        {rename("Share/empty", "Share/full"), ENOTEMPTY},
        {rename("Share/full", "Share/full/x"), EINVAL},
        {rename("Share/file", "Share/file2", RENAME_NOREPLACE), EEXIST},
        {rename("Share/file", "Share/empty", RENAME_EXCHANGE), EINVAL},
        {rename("Share/file", "Fixed/doc", RENAME_EXCHANGE), EACCES},
        {errorOf(::symlink("file", at("Share/link").c_str())), EPERM},
        {errorOf(::mknod(at("Share/node").c_str(), S_IFREG | 0600, 0)), 0},
        {errorOf(::access(at("Fixed/doc").c_str(), W_OK)), EACCES},
        {errorOf(::setxattr(at("Share/file").c_str(), "user.none", "v", 1, XATTR_REPLACE)), ENODATA},
        {errorOf(::removexattr(at("Share/file").c_str(), "user.none")), ENODATA},
        {errorOf(::unlink(at(".fuselock").c_str())), EACCES},
        {errorOf(::unlink(at("Share/.twrefresh").c_str())), 0},
    };
    int number = 0;
    for (const auto& [got, expected] : cases)
        EXPECT_EQ(got, expected) << "case " << number++ << ": " << std::strerror(got);
    EXPECT_FALSE(fs::exists(path("Fixed/new")));
    EXPECT_EQ(read("Fixed/doc"), "text");
}

TEST_F(WritingMountTest, whatIsWrittenIsReadJournalledAndCached) {
    write("Share/a", "hello");
    write("Share/a", ", world", O_WRONLY | O_APPEND);
    EXPECT_EQ(read("Share/a"), "hello, world");
    EXPECT_THAT(settledJournal(), ElementsAre("[Create] /Share/a 12")) << "the Create is not lost";
    EXPECT_EQ(world.cached("/Share/a"), "hello, world");
    EXPECT_FALSE(world.at("/Share/a")->LocallyUpdated.value_or(false));

    // Several opens see each other's bytes at once, and appends never overlap.
    const int one = ::open(path("Share/a").c_str(), O_RDWR | O_APPEND);
    const int two = ::open(path("Share/a").c_str(), O_RDWR | O_APPEND);
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(::write(i % 2 ? one : two, "0123456789", 10), 10);
        char last[10];
        ASSERT_EQ(::pread(i % 2 ? two : one, last, 10, 12 + i * 10), 10);
    }
    EXPECT_EQ(statOf(one).st_size, 212);
    EXPECT_EQ(::fallocate(two, 0, 0, 300), 0);
    EXPECT_EQ(::fsync(two), 0);
    ::close(one);
    ::close(two);
    EXPECT_THAT(settledJournal(), ElementsAre("[Create] /Share/a 300"));

    // Times and permissions are the program's own; they are not moved on by a close.
    const int descriptor = ::open(path("Share/a").c_str(), O_WRONLY);
    EXPECT_EQ(::pwrite(descriptor, "x", 1, 0), 1);
    const timespec times[2] = {{1'000'000'000, 0}, {1'100'000'000, 500}};
    EXPECT_EQ(::futimens(descriptor, times), 0);
    EXPECT_EQ(::fchmod(descriptor, 0751), 0);
    ::close(descriptor);
    settledJournal();
    struct stat after {};
    ASSERT_EQ(::stat(path("Share/a").c_str(), &after), 0);
    EXPECT_EQ(after.st_mtim.tv_sec, 1'100'000'000);
    EXPECT_EQ(after.st_atim.tv_sec, 1'000'000'000);
    EXPECT_EQ(after.st_mode & 07777u, 0751u);
}

TEST_F(WritingMountTest, anUnlinkedFileIsUsedToItsEnd) {
    const auto bytes = randomBytes(300'000);
    world.addRemote("S", "remote", bytes);
    write("Share/here", "first");
    settledJournal();
    const int remote = ::open(path("Share/remote").c_str(), O_RDONLY);
    const int here = ::open(path("Share/here").c_str(), O_RDWR);
    const int replaced = ::open(path("Share/here").c_str(), O_RDONLY);
    ASSERT_EQ(::unlink(path("Share/remote").c_str()), 0);
    ASSERT_EQ(::unlink(path("Share/here").c_str()), 0);
    write("Share/here", "another");
    std::string piece(1000, '\0');
    EXPECT_EQ(::pread(remote, piece.data(), 1000, 200'000), 1000);
    EXPECT_EQ(piece, bytes.substr(200'000, 1000)) << "fetched still";
    EXPECT_EQ(::pwrite(here, "SECOND", 6, 0), 6);
    EXPECT_EQ(::ftruncate(here, 4), 0);
    EXPECT_EQ(::pread(replaced, piece.data(), 10, 0), 4);
    EXPECT_EQ(piece.substr(0, 4), "SECO");
    EXPECT_EQ(statOf(here).st_nlink, 0u);
    EXPECT_EQ(statOf(here).st_size, 4);
    EXPECT_EQ(statOf(remote).st_size, 300'000);
    EXPECT_EQ(::fchmod(here, 0600), 0);
    EXPECT_EQ(::fsync(here), 0);
    for (const int descriptor : {remote, here, replaced})
        ::close(descriptor);
    EXPECT_EQ(read("Share/here"), "another");
    EXPECT_THAT(settledJournal(), ElementsAre("[Delete] /Share/remote", "[Create] /Share/here 7"));
}

TEST_F(WritingMountTest, renameOverAnOpenFile) {
    const auto document = world.addCached("S", "doc", "old text");
    const auto id = document->InternalName.str();
    const int old = ::open(path("Share/doc").c_str(), O_RDWR);
    const auto number = statOf(old).st_ino;
    const int fresh = ::open(path("Share/doc.new").c_str(), O_RDWR | O_CREAT | O_EXCL, 0640);
    ASSERT_EQ(::write(fresh, "new", 3), 3);
    ASSERT_EQ(rename("Share/doc.new", "Share/doc"), 0);
    EXPECT_EQ(read("Share/doc"), "new");
    ASSERT_EQ(::write(fresh, "er text", 7), 7) << "the open file follows its bytes";
    ASSERT_EQ(::pwrite(old, "OLD", 3, 0), 3) << "the old bytes live on for who has them open";
    char text[20] = {};
    EXPECT_EQ(::pread(old, text, sizeof text, 0), 8);
    EXPECT_STREQ(text, "OLD text");
    EXPECT_EQ(statOf(old).st_nlink, 0u);
    EXPECT_EQ(statOf(old).st_ino, number);
    EXPECT_NE(statOf(fresh).st_ino, number);
    EXPECT_EQ(read("Share/doc"), "newer text");
    ::close(old);
    ::close(fresh);
    EXPECT_THAT(settledJournal(), ElementsAre("[Update] /Share/doc 10"));
    EXPECT_EQ(world.at("/Share/doc")->InternalName, id) << "the document keeps its identity";
    EXPECT_EQ(world.at("/Share/doc")->POSIXPermissions, 0640);
    EXPECT_EQ(world.store.fileCount(), 1u);
}

TEST_F(WritingMountTest, exchangeSwapsContentsAndOpensFollowThem) {
    const auto a = world.addCached("S", "a", "contents of a"), b = world.addCached("S", "b", "B");
    const int first = ::open(path("Share/a").c_str(), O_RDWR);
    ASSERT_EQ(rename("Share/a", "Share/b", RENAME_EXCHANGE), 0);
    EXPECT_EQ(read("Share/a"), "B");
    EXPECT_EQ(read("Share/b"), "contents of a");
    ASSERT_EQ(::pwrite(first, "CONTENTS", 8, 0), 8);
    EXPECT_EQ(read("Share/b"), "CONTENTS of a");
    ::close(first);
    EXPECT_THAT(settledJournal(), ElementsAre("[Update] /Share/a 1", "[Update] /Share/b 13"));
    EXPECT_EQ(world.at("/Share/a"), a);
    EXPECT_EQ(world.at("/Share/b"), b);
}

TEST_F(WritingMountTest, moves) {
    ASSERT_EQ(::mkdir(path("Share/d1").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(path("Share/d2").c_str(), 0755), 0);
    write("Share/d1/f", "text");
    EXPECT_EQ(rename("Share/d1/f", "Share/d1/F"), 0) << "letter case alone";
    EXPECT_EQ(fs::directory_iterator(path("Share/d1"))->path().filename(), "F");
    EXPECT_EQ(rename("Share", "SHARE"), 0);
    EXPECT_EQ(rename("SHARE", "Share"), 0);
    EXPECT_EQ(rename("Share/d1", "Share/d2"), 0) << "over an empty folder";
    EXPECT_EQ(read("Share/d2/F"), "text");
    EXPECT_FALSE(fs::exists(path("Share/d1")));
    EXPECT_EQ(rename("Share", "Renamed"), 0);
    EXPECT_EQ(contentsOf(path("Renamed/d2/f")), "text");
    EXPECT_EQ(rename("Renamed", "Share"), 0);

    // Contents that are not here cannot be handed over: the target goes.
    const auto bytes = randomBytes(5000);
    const auto remote = world.addRemote("S", "remote", bytes);
    write("Share/target", "precious?");
    EXPECT_EQ(rename("Share/remote", "Share/target"), 0);
    EXPECT_EQ(world.at("/Share/target"), remote);
    EXPECT_TRUE(read("Share/target") == bytes);
    // A name that takes no part in synchronisation needs the bytes here.
    EXPECT_EQ(rename("Share/target", "Share/.target"), 0);
    EXPECT_TRUE(world.cached("/Share/.target") == bytes);
    EXPECT_TRUE(read("Share/.target") == bytes);
}

TEST_F(WritingMountTest, contentsThatAreNotHereAreFetchedBeforeTheyAreChanged) {
    const auto bytes = randomBytes(2'500'000);
    for (const char* name : {"middle", "append", "trunc", "opened"})
        world.addRemote("S", name, bytes);
    world.addRemote("S", "offline", bytes);
    world.mediator.setRemote(world.at("/Share/offline")->InternalName.str(), "");

    const auto patch = [&](const char* name, off_t offset, const std::string& text) {
        const int descriptor = ::open(path(std::string("Share/") + name).c_str(), O_RDWR);
        const auto error = errorOf(::pwrite(descriptor, text.data(), text.size(), offset));
        ::close(descriptor);
        return error;
    };
    auto expected = bytes;
    EXPECT_EQ(patch("middle", 1000, "PATCH"), 0);
    EXPECT_TRUE(read("Share/middle") == expected.replace(1000, 5, "PATCH"));
    write("Share/append", "tail", O_WRONLY | O_APPEND);
    EXPECT_TRUE(read("Share/append") == bytes + "tail");
    const auto fetches = world.mediator.fetches();
    write("Share/opened", "short");
    EXPECT_EQ(read("Share/opened"), "short");
    EXPECT_EQ(::truncate(path("Share/trunc").c_str(), 10), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(::truncate(path("Share/trunc").c_str(), 0), 0);
    EXPECT_EQ(read("Share/trunc"), "");
    EXPECT_EQ(world.mediator.fetches(), fetches) << "what goes anyway is not fetched";
    EXPECT_EQ(patch("offline", 100, "x"), ENOENT);
    EXPECT_EQ(world.cached("/Share/offline"), "(none)");
    EXPECT_THAT(settledJournal(),
                ElementsAre("[Update] /Share/middle 2500000", "[Update] /Share/append 2500004",
                            "[Update] /Share/opened 5", "[Update] /Share/trunc 0"));
    for (const auto& entry : fs::directory_iterator(world.layout.downloadsCachePath()))
        ADD_FAILURE() << "left behind: " << entry.path();
}

TEST_F(WritingMountTest, quietBurstsAreJournalledOnceAndWritersKeepTheMark) {
    world.addCached("S", "log", "");
    const int descriptor = ::open(path("Share/log").c_str(), O_WRONLY);
    const auto tick = [&](std::chrono::milliseconds by) {
        world.clock.advance(by);
        world.drive->checkOpenedFiles();
        world.background.runAll();
    };
    ASSERT_EQ(::write(descriptor, "one", 3), 3);
    EXPECT_TRUE(world.at("/Share/log")->LocallyUpdated.value_or(false));
    tick(std::chrono::seconds(4));
    EXPECT_THAT(world.journal(), IsEmpty());
    tick(std::chrono::milliseconds(1));
    EXPECT_THAT(world.journal(), ElementsAre("[Update] /Share/log 3"));
    EXPECT_FALSE(world.at("/Share/log")->LocallyUpdated.value_or(false));
    ASSERT_EQ(::write(descriptor, "two", 3), 3);
    EXPECT_TRUE(world.at("/Share/log")->LocallyUpdated.value_or(false));
    // Written again between the look and the turn of the task.
    world.clock.advance(std::chrono::seconds(5));
    world.drive->checkOpenedFiles();
    ASSERT_EQ(::write(descriptor, "three", 5), 5);
    world.background.runAll();
    EXPECT_THAT(world.journal(), ElementsAre("[Update] /Share/log 3"));
    ::close(descriptor);
    EXPECT_THAT(settledJournal(), ElementsAre("[Update] /Share/log 11"));
}

TEST_F(WritingMountTest, attributesOfPrograms) {
    write("Share/f", "x");
    const auto name = path("Share/f");
    ASSERT_EQ(::setxattr(name.c_str(), "user.color", "green", 5, 0), 0);
    ASSERT_EQ(::setxattr(name.c_str(), "user.color", "red", 3, 0), 0);
    EXPECT_EQ(errorOf(::setxattr(name.c_str(), "user.color", "red", 3, XATTR_CREATE)), EEXIST);
    ASSERT_EQ(::setxattr(name.c_str(), "user.com.apple.quarantine", "q", 1, 0), 0);
    char value[64] = {};
    EXPECT_EQ(::getxattr(name.c_str(), "user.color", value, sizeof value), 3);
    EXPECT_EQ(errorOf(::getxattr(name.c_str(), "user.color", value, 2)), ERANGE);
    EXPECT_EQ(::listxattr(name.c_str(), value, sizeof value), 11);
    ASSERT_EQ(rename("Share/f", "Share/g"), 0);
    EXPECT_EQ(::getxattr(path("Share/g").c_str(), "user.color", value, sizeof value), 3);
    EXPECT_EQ(::removexattr(path("Share/g").c_str(), "user.color"), 0);
    EXPECT_EQ(::listxattr(path("Share/g").c_str(), value, sizeof value), 0);
}

TEST_F(WritingMountTest, savePatternsKeepTheDocument) {
    struct Pattern {
        const char* name;
        const char* script;
        const char* alsoThere;  // beside the document
    };
    const Pattern patterns[] = {
        {"in place", "printf new > doc", ""},
        {"temporary file, rename", "printf new > .doc.tmp; sync .doc.tmp; mv .doc.tmp doc", ""},
        {"backup kept", "mv doc doc~; printf new > doc", "doc~"},
        {"backup removed", "mv doc doc.bak; printf new > doc; rm doc.bak", ""},
        {"lock file, copy aside",
         "printf u > .~lock.doc#; cp doc lu1.tmp; printf new > lu2.tmp; mv lu2.tmp doc; "
         "rm lu1.tmp .~lock.doc#",
         ""},
        {"delete, then create", "rm doc; printf new > doc", ""},
    };
    for (const auto& pattern : patterns) {
        SCOPED_TRACE(pattern.name);
        const auto document = world.addCached("S", "doc", "old");
        const auto id = document->InternalName.str();
        EXPECT_EQ(run(pattern.script), 0) << output();
        EXPECT_EQ(read("Share/doc"), "new");
        settledJournal();
        ASSERT_TRUE(world.at("/Share/doc"));
        EXPECT_EQ(world.at("/Share/doc")->InternalName, id) << "identity, links and history stay";
        EXPECT_EQ(world.cached("/Share/doc"), "new");
        const auto journal = world.journal();
        EXPECT_THAT(journal, ::testing::Contains("[Update] /Share/doc 3"));
        EXPECT_EQ(journal.size(), *pattern.alsoThere ? 2u : 1u) << ::testing::PrintToString(journal);
        EXPECT_EQ(world.store.fileCount(), *pattern.alsoThere ? 2u : 1u);
        if (*pattern.alsoThere) {
            EXPECT_EQ(read(std::string("Share/") + pattern.alsoThere), "old");
        }
        EXPECT_EQ(run("rm -f doc doc~"), 0);
        settledJournal();
        const auto lock = world.store.beginWriteJournal();
        while (!world.journal().empty())
            world.store.journal().deleteJournalEntry(*world.store.journal().journalItems().begin());
    }
}

/// What a call gave on the drive, or on the plain folder.
struct Outcome {
    long result = 0;
    int error = 0;
    std::string text;
};

/// Random operations on the drive and on a plain folder: the same answers, the same tree, and in the end
/// records, cache and journal that belong together.
TEST_F(WritingMountTest, behavesAsAPlainFolder) {
    const auto seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pick = [&](std::size_t count) { return random() % count; };
    const std::string tops[] = {path("Share"), world.folder.path("plain")};
    ASSERT_EQ(::mkdir(tops[1].c_str(), 0700), 0);
    const auto name = [&] {
        static constexpr const char* folders[] = {"", "/d0", "/d1", "/d0/e"};
        static constexpr const char* names[] = {"/f0", "/f1", "/f2",      "/d0",
                                                "/d1", "/e",  "/.hidden", "/t.tmp"};
        return folders[pick(4)] + std::string(names[pick(8)]);
    };
    std::vector<std::array<int, 2>> open;  // descriptors on both sides
    for (int step = 0; step < 1500; ++step) {
        const auto a = name(), b = name();
        const auto kind = pick(11);
        const auto size = pick(3000), offset = pick(5000);
        const auto bytes = std::string(size, static_cast<char>('a' + step % 26));
        const auto which = open.empty() ? 0 : pick(open.size());
        static constexpr int kFlags[] = {O_RDWR | O_CREAT, O_RDWR | O_CREAT | O_TRUNC, O_RDWR,
                                         O_RDWR | O_CREAT | O_EXCL, O_RDWR | O_APPEND};
        const int flags = kFlags[pick(5)];
        if (open.empty() && (kind == 2 || kind == 3 || kind == 4 || kind == 10)) continue;
        std::array<int, 2> opened{};
        Outcome outcomes[2];
        for (int side = 0; side < 2; ++side) {
            const auto from = tops[side] + a, to = tops[side] + b;
            auto& [result, error, text] = outcomes[side];
            const int descriptor = open.empty() ? -1 : open[which][side];
            if (kind < 2) {
                opened[side] = ::open(from.c_str(), flags | O_CLOEXEC, 0644);
                result = std::min(opened[side], 0);
            } else if (kind < 4) {
                result = ::pwrite(descriptor, bytes.data(), size, static_cast<off_t>(offset));
            } else if (kind == 4) {
                result = ::close(descriptor);
            } else if (kind == 5) {
                result = ::mkdir(from.c_str(), 0755);
            } else if (kind == 6) {
                result = ::unlink(from.c_str());
            } else if (kind == 7) {
                result = ::rmdir(from.c_str());
            } else if (kind == 8) {
                result = ::rename(from.c_str(), to.c_str());
            } else if (kind == 9) {
                result = ::truncate(from.c_str(), static_cast<off_t>(size));
            } else {
                text.resize(8000);
                result = ::pread(descriptor, text.data(), 8000, 0);
                const auto status = statOf(descriptor);
                text += std::to_string(status.st_size) + "/" + std::to_string(status.st_nlink);
            }
            error = result < 0 ? errno : 0;
        }
        // Where both say no, which of several reasons comes first is not the same everywhere.
        ASSERT_EQ(outcomes[0].result, outcomes[1].result)
            << "step " << step << " kind " << kind << " " << a << " " << b << ": "
            << std::strerror(outcomes[0].error) << ", not " << std::strerror(outcomes[1].error);
        ASSERT_EQ(outcomes[0].text, outcomes[1].text) << "step " << step;
        if (kind < 2 && outcomes[0].result == 0) open.push_back(opened);
        if (kind == 4) open.erase(open.begin() + static_cast<long>(which));
        if (step % 7 == 0) {
            world.clock.advance(std::chrono::seconds(2));
            world.drive->checkOpenedFiles();
            world.background.runAll();
        }
    }
    for (const auto& pair : open) {
        ::close(pair[0]);
        ::close(pair[1]);
    }
    settledJournal();
    const auto tree = [](const std::string& top) {
        std::map<std::string, std::string> result;
        for (const auto& entry : fs::recursive_directory_iterator(top)) {
            result[entry.path().string().substr(top.size())] =
                entry.is_directory() ? "(folder)" : contentsOf(entry.path().string());
        }
        return result;
    };
    EXPECT_EQ(tree(tops[0]), tree(tops[1]));
    const auto lock = world.store.beginReadStorage();
    for (const auto& file : world.store.allFiles()) {
        if (!file->IsFile) continue;
        EXPECT_TRUE(world.store.hasWholeContents(*file)) << file->FullPath;
        const bool ignored = CacheLayout::isPathIgnored(file->FullPath.view(), false);
        EXPECT_TRUE(ignored || !file->LocallyUpdated.value_or(false)) << file->FullPath;
        EXPECT_EQ(world.store.journal().hasPendingContents(file->InternalName.view()), !ignored)
            << file->FullPath;
    }
}

}  // namespace
}  // namespace tarnwell::testing
