#include <sys/stat.h>

#include <thread>
#include <tuple>

#include "platform/FileUserDefaults.h"
#include "support/LogCapture.h"
#include "support/MemoryUserDefaults.h"
#include "support/TemporaryFolder.h"

namespace tarnwell {
namespace {

using testing::LogCapture;
using testing::MemoryUserDefaults;
using testing::TemporaryFolder;

const std::map<std::string, std::string> kAwkward = {
    {"Tarnwell.username", "ann@example.org"},   {"#no comment a=b", " # no comment c=d=e "},
    {"[section]", "one\ntwo\r\nthree\t"},       {"path\\to/日本語", "C:\\new\\x41"},
    {"bytes", std::string("\x01\x7f\x00z", 4)}, {" ", ""},
};

mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode;
}

TEST(UserDefaultsTest, readsFlagsAndNumbers) {
    const std::tuple<const char*, bool, int> cases[] = {
        {"true", true, -7},   {"YES", true, -7}, {"-1", true, -1},       {"0", false, 0},
        {"false", false, -7}, {"", false, -7},   {"60 days", false, -7}, {"99999999999", false, -7}};
    for (const auto& [text, flag, number] : cases) {
        const MemoryUserDefaults settings(MemoryUserDefaults::Values{{"key", text}});
        EXPECT_EQ(settings.getBool("key"), flag) << text;
        EXPECT_EQ(settings.getInt("key", -7), number) << text;
    }
}

TEST(FileUserDefaultsTest, everyKeyAndValueComesBackFromAPrivateFile) {
    TemporaryFolder folder;
    const auto path = folder.path("made/on/demand/settings.ini");
    {
        FileUserDefaults settings(path);
        for (const auto& [key, value] : kAwkward)
            settings.set(key, value);
        ASSERT_TRUE(settings.synchronize());
    }
    EXPECT_EQ(FileUserDefaults(path).all(), kAwkward);
    EXPECT_EQ(modeOf(path) & 07777, 0600u);
    EXPECT_EQ(modeOf(folder.path("made")) & 07777, 0700u);
    EXPECT_NE(folder.read("made/on/demand/settings.ini").find("\nTarnwell.username=ann@example.org\n"),
              std::string::npos)
        << "people read and edit the file";
}

TEST(FileUserDefaultsTest, readsWhatPeopleWriteAndFollowsALinkToTheRealFile) {
    TemporaryFolder folder;
    const auto real = folder.write("dotfiles/real.ini",
                                   "; comment\r\n[General]\r\n\r\n  key = /home/ann/keys \r\n"
                                   "twice=1\ntwice=2\nno newline=at end");
    const auto path = folder.path("settings.ini");
    ASSERT_EQ(::symlink(real.c_str(), path.c_str()), 0);
    const std::map<std::string, std::string> expected{
        {"key", "/home/ann/keys"}, {"twice", "2"}, {"no newline", "at end"}};
    FileUserDefaults settings(path);
    EXPECT_EQ(settings.all(), expected);
    settings.set("b", "2");
    ASSERT_TRUE(settings.synchronize());
    EXPECT_NE(folder.read("dotfiles/real.ini").find("b=2"), std::string::npos);
    EXPECT_TRUE(S_ISLNK(modeOf(path)));
}

TEST(FileUserDefaultsTest, processesMergeTheirChanges) {
    TemporaryFolder folder;
    const auto path = folder.path("settings.ini");
    FileUserDefaults client(path), tool(path);
    client.set("mine", "1");
    client.set("both", "client");
    tool.set("theirs", "2");
    tool.set("both", "tool");
    ASSERT_TRUE(tool.synchronize());
    ASSERT_TRUE(client.synchronize());
    EXPECT_EQ(client.all(),
              (std::map<std::string, std::string>{{"both", "client"}, {"mine", "1"}, {"theirs", "2"}}));
    tool.remove("mine");
    ASSERT_TRUE(tool.synchronize());
    ASSERT_TRUE(client.synchronize());
    EXPECT_FALSE(client.contains("mine"));
    EXPECT_EQ(client.get("both"), "client");
}

TEST(FileUserDefaultsTest, manyThreadsAndObjectsLoseNothing) {
    TemporaryFolder folder;
    const auto path = folder.path("settings.ini");
    FileUserDefaults shared(path);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            FileUserDefaults own(path);
            for (int n = 0; n < 10; ++n) {
                auto& settings = n % 2 ? static_cast<UserDefaults&>(shared) : own;
                settings.set(std::to_string(i) + "." + std::to_string(n), "x");
                EXPECT_TRUE(settings.synchronize());
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(FileUserDefaults(path).all().size(), 40u);
}

TEST(FileUserDefaultsTest, damagedFileIsSetAsideAndItsGoodLinesKept) {
    for (const auto& line : {std::string("garbage without a sign\n"), std::string("cut=\\x4\n"),
                             std::string("=no key\n"), std::string("nul\0=x\n", 7)}) {
        LogCapture log;
        TemporaryFolder folder;
        const auto contents = "good=1\n" + line + "also=2\n";
        const auto path = folder.write("settings.ini", contents);
        FileUserDefaults settings(path);
        EXPECT_EQ(settings.all(), (std::map<std::string, std::string>{{"also", "2"}, {"good", "1"}})) << line;
        EXPECT_EQ(folder.read("settings.ini.damaged"), contents);
        EXPECT_EQ(log.count("damaged lines"), 1u) << log.text();
        settings.set("new", "3");
        EXPECT_TRUE(settings.synchronize());
        EXPECT_EQ(FileUserDefaults(path).all().size(), 3u);
    }
}

TEST(FileUserDefaultsTest, whatCannotBeReadOrWrittenIsNeverReplaced) {
    LogCapture log;
    TemporaryFolder folder;
    folder.write("settings.ini/occupied", "");  // a folder in the file's place
    FileUserDefaults settings(folder.path("settings.ini"));
    settings.set("a", "1");
    EXPECT_FALSE(settings.synchronize());
    EXPECT_EQ(settings.get("a"), "1") << "the change stays in memory for a later try";
    EXPECT_TRUE(log.contains("Cannot read settings")) << log.text();

    std::string large(5u << 20, 'x');
    FileUserDefaults oversized(folder.write("large.ini", "a=" + large));
    oversized.set("a", "1");
    EXPECT_FALSE(oversized.synchronize());
    EXPECT_GT(folder.read("large.ini").size(), large.size());
}

}  // namespace
}  // namespace tarnwell
