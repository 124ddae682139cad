// A full disk under the client's data: what was answered with success outlasts a quit and a kill and reaches
// the service; everything else is an error at once, and drive and service agree once there is room again.

#include <sys/mount.h>

#include <csignal>
#include <functional>
#include <map>
#include <vector>

#include "e2e/Hostile.h"

namespace tarnwell::testing {
namespace {

namespace fs = std::filesystem;

/// A disk of a few megabytes that can be filled to the last block; only root can make one.
class TinyDisk {
  public:
    explicit TinyDisk(const std::string& path) : path_(path) {
        fs::create_directories(path_);
        mounted_ = mount("tarnwell-test", path_.c_str(), "tmpfs", 0, "size=6m,mode=700") == 0;
    }
    ~TinyDisk() {
        if (mounted_) umount2(path_.c_str(), MNT_DETACH);
    }
    TinyDisk(const TinyDisk&) = delete;
    TinyDisk& operator=(const TinyDisk&) = delete;
    [[nodiscard]] bool mounted() const { return mounted_; }
    void fill() const {
        const int file = open((path_ + "/ballast").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        const std::string block(4096, 'x');
        while (write(file, block.data(), block.size()) > 0) {
        }
        close(file);
    }
    void empty() const { fs::remove(path_ + "/ballast"); }

  private:
    const std::string path_;
    bool mounted_ = false;
};

enum class End { kQuit, kKill };

struct HostileDiskE2eTest : HostileTest, ::testing::WithParamInterface<End> {
    void SetUp() override {
        HostileTest::SetUp();
        if (IsSkipped()) return;
        disk.emplace(folder.path("ann/data"));
        if (!disk->mounted()) GTEST_SKIP() << "no right to mount a small disk";
        begin({.dataFolder = folder.path("ann")});
    }
    void endAndStart() {
        if (GetParam() == End::kKill) {
            client().kill();
        } else {
            EXPECT_TRUE(client().stop().has_value()) << "it does not end";
        }
        disk->empty();
        start(client());
    }
    /// The outcome of a call on the full disk: 0 or ENOSPC.
    bool succeeded(const std::string& what, int error) {
        if (error != 0 && error != ENOSPC) otherErrors += what + ": " + strerror(error) + "; ";
        return error == 0;
    }
    void TearDown() override { EXPECT_EQ(otherErrors, ""); }

    TemporaryFolder folder;
    std::optional<TinyDisk> disk;
    std::string otherErrors;
};

TEST_P(HostileDiskE2eTest, anAcknowledgedEditInPlaceIsNotLost) {
    // Neither needs a block of its own. There are enough of them to use up the last blocks of every file.
    constexpr int kFiles = 30;
    const std::string old(10'000, 'o'), edited = "edited" + old.substr(6), grown = old + "appended";
    for (int i = 0; i < kFiles; ++i)
        ASSERT_EQ(writeFile(papers(std::to_string(i)), old), 0);
    ASSERT_TRUE(client().waitForUploads());
    disk->fill();
    const auto edit = [&](const std::string& name, const std::string& bytes, off_t at) {
        const int file = open(papers(name).c_str(), O_RDWR | O_CLOEXEC);
        int error = file < 0 ? errno : errorOf(pwrite(file, bytes.data(), bytes.size(), at));
        const int closing = file < 0 ? 0 : errorOf(close(file));
        if (error == 0) error = closing;
        return succeeded(name, error);
    };
    std::vector<bool> done;
    for (int i = 0; i < kFiles; ++i) {
        done.push_back(i % 2 == 0 ? edit(std::to_string(i), "edited", 0)
                                  : edit(std::to_string(i), "appended", static_cast<off_t>(old.size())));
    }
    endAndStart();
    expectDriveIsService();
    const Tree service = exported();
    std::string wrong;
    for (int i = 0; i < kFiles; ++i) {
        const bool kept = done[static_cast<std::size_t>(i)];
        const auto& contents = service.at("/" + std::to_string(i)).contents;
        if (contents != (!kept ? old : i % 2 == 0 ? edited : grown))
            wrong += std::to_string(i) + (kept ? " acknowledged: " : " refused: ") + shown(contents) + "; ";
    }
    EXPECT_EQ(wrong, "");
    // Nothing of it keeps another machine's version away, or lets it be overwritten.
    changeElsewhere("0", "from elsewhere");
    EXPECT_TRUE(eventually([&] { return readFile(papers("0")) == "from elsewhere"; }));
}

TEST_P(HostileDiskE2eTest, whatSucceedsStaysDone) {
    for (const char* name : {"renamed", "removed", "replaced", "overwritten"})
        ASSERT_EQ(writeFile(papers(name), std::string("old ") + name), 0);
    ASSERT_EQ(writeFile(papers("new version"), "new version"), 0);
    for (const char* name : {"folder", "empty folder"})
        ASSERT_EQ(errorOf(mkdir(papers(name).c_str(), 0755)), 0);
    ASSERT_EQ(writeFile(papers("folder/in it"), "in it"), 0);
    ASSERT_TRUE(client().waitForUploads());
    Tree expected = synchronised(readTree(papers()));
    const auto move = [&](const std::string& from, const std::string& to) {
        Tree moved;
        for (const auto& [path, entry] : expected) {
            if (path == to) continue;
            const bool below = path == from || path.starts_with(from + "/");
            moved[below ? to + path.substr(from.size()) : path] = entry;
        }
        expected = moved;
    };
    disk->fill();
    const auto in = [&](const std::string& name) { return papers(name); };
    if (succeeded("rename", errorOf(rename(in("renamed").c_str(), in("other name").c_str()))))
        move("/renamed", "/other name");
    if (succeeded("rename of a folder", errorOf(rename(in("folder").c_str(), in("moved").c_str()))))
        move("/folder", "/moved");
    if (succeeded("rename over", errorOf(rename(in("new version").c_str(), in("replaced").c_str()))))
        move("/new version", "/replaced");
    if (succeeded("unlink", errorOf(unlink(in("removed").c_str())))) expected.erase("/removed");
    if (succeeded("rmdir", errorOf(rmdir(in("empty folder").c_str())))) expected.erase("/empty folder");
    if (succeeded("mkdir", errorOf(mkdir(in("made").c_str(), 0755)))) expected["/made"].isFolder = true;
    const bool created = succeeded("create", writeFile(in("created"), "created", O_CREAT | O_EXCL));
    if (created) expected["/created"].contents = "created";
    const bool overwritten = succeeded("overwrite", writeFile(in("overwritten"), std::string(200'000, 'n')));
    if (overwritten) expected["/overwritten"].contents = std::string(200'000, 'n');
    endAndStart();
    expectDriveIsService();
    Tree service = synchronised(exported());
    // A creation that failed may leave an empty file, and an overwriting that failed what it had got to.
    if (!created) service.erase("/created");
    if (!overwritten) {
        const auto kept = service["/overwritten"].contents;
        EXPECT_TRUE(kept == "old overwritten" || kept.find_first_not_of('n') == std::string::npos)
            << kept.substr(0, 50);
        service.erase("/overwritten");
        expected.erase("/overwritten");
    }
    EXPECT_EQ(names(service), names(expected));
    for (const auto& [path, entry] : expected)
        EXPECT_TRUE(service[path].contents == entry.contents) << path;
    ASSERT_EQ(writeFile(papers("overwritten"), "once more"), 0) << "with room again everything works";
    expectDriveIsService();
}

INSTANTIATE_TEST_SUITE_P(, HostileDiskE2eTest, ::testing::Values(End::kQuit, End::kKill),
                         [](const auto& info) { return info.param == End::kQuit ? "quit" : "killed"; });

}  // namespace
}  // namespace tarnwell::testing
