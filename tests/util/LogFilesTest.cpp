#include "util/LogFiles.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <sstream>
#include <thread>

#include "support/TemporaryFolder.h"
#include "util/TWLogger.h"

namespace tarnwell {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

std::time_t localTime(int year, int month, int day, int hour, int minute = 0, int second = 0) {
    std::tm time{second, minute, hour, day, month - 1, year - 1900, 0, 0, -1, 0, nullptr};
    return mktime(&time);
}

class LogFilesTest : public ::testing::Test {
  protected:
    LogFilesTest() {
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
        now = localTime(2026, 11, 15, 16, 40, 41);
    }
    ~LogFilesTest() override {
        unsetenv("TZ");
        tzset();
    }

    std::vector<std::string> lines(const std::string& name) const {
        std::istringstream in(folder.read(name));
        std::vector<std::string> result;
        for (std::string line; std::getline(in, line);)
            result.push_back(line);
        return result;
    }
    void touch(const std::string& name, int day) const {
        const timespec time{localTime(2026, 11, day, 23), 0}, times[2] = {time, time};
        ::utimensat(AT_FDCWD, folder.write(name, "old\n").c_str(), times, 0);
    }

    testing::TemporaryFolder folder;
    std::atomic<std::time_t> now = 0;
    std::vector<std::string> systemLog;
    LogFiles files{{[this] { return now.load(); },
                    [this](std::string_view message) { systemLog.emplace_back(message); }}};
};

TEST_F(LogFilesTest, eachLevelHasItsFileAndEachLineItsPrefix) {
    files.init(folder.path());
    files.write(kLogMain, "hello \x1b[31m");
    files.write(kLogFuse, "two\nlines\n");
    EXPECT_THAT(lines("2026-11-15-main.log"), ElementsAre("[" + std::to_string(::gettid()) +
                                                          "] 2026-11-15 15:40:41 +0000 : hello \\x1b[31m"));
    EXPECT_THAT(lines("2026-11-15-fuse.log"), ElementsAre(HasSubstr(" : two"), "lines", ""));
    const auto mode = std::filesystem::status(folder.path("2026-11-15-main.log")).permissions();
    EXPECT_EQ(static_cast<unsigned>(mode), 0600U);
}

TEST_F(LogFilesTest, theLineAfterMidnightOpensTheNewDayAndOldFilesGo) {
    files.init(folder.path());
    touch("2026-11-01-main.log", 1), touch("keep.txt", 1), touch("2026-11-02-main.log", 2);
    now = localTime(2026, 11, 15, 23, 59, 59);
    files.write(kLogMain, "before");
    EXPECT_TRUE(folder.exists("2026-11-01-main.log"));
    now = localTime(2026, 11, 16, 0);
    files.write(kLogMain, "due to the old day");
    files.write(kLogMain, "new day");
    EXPECT_EQ(lines("2026-11-15-main.log").size(), 2U);
    EXPECT_THAT(lines("2026-11-16-main.log"), ElementsAre(HasSubstr("new day")));
    now = localTime(2026, 11, 14, 12);  // the clock goes back
    files.write(kLogMain, "due to the 16th");
    files.write(kLogMain, "back");
    EXPECT_THAT(lines("2026-11-14-main.log"), ElementsAre(HasSubstr("back")));
    EXPECT_FALSE(folder.exists("2026-11-01-main.log"));
    EXPECT_TRUE(folder.exists("keep.txt") && folder.exists("2026-11-02-main.log"));
}

TEST_F(LogFilesTest, aDayOf25HoursHasOneFileOpenedOnce) {
    now = localTime(2026, 10, 25, 0, 30);  // summer time ends in the night
    files.init(folder.path());
    now = localTime(2026, 10, 25, 23, 30);  // 24 h after midnight, still the 25th
    std::filesystem::remove(folder.path("2026-10-25-main.log"));
    files.write(kLogMain, "to the file that is open");
    EXPECT_FALSE(folder.exists("2026-10-25-main.log"));
    now = localTime(2026, 10, 26, 0, 0);
    files.write(kLogMain, "last");
    files.write(kLogMain, "first");
    EXPECT_EQ(lines("2026-10-26-main.log").size(), 1U);
}

TEST_F(LogFilesTest, withoutFilesLinesGoToTheSystemLog) {
    files.init(folder.path("missing"));
    files.write(kLogMain, "unwritable");
    EXPECT_THAT(systemLog, ElementsAre("Warning! Failed to open main log file : error 2",
                                       "Warning! Failed to open fuse log file : error 2", "unwritable\n"));
    systemLog.clear();
    files.init(folder.path());
    files.close();
    now += 86400 * 2;
    files.write(kLogFuse, "after close");
    EXPECT_THAT(systemLog, ElementsAre("after close\n"));
}

TEST_F(LogFilesTest, linesOfManyThreadsNeverMix) {
    files.init(folder.path());
    std::vector<std::jthread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < 300; ++i) {
                files.write(i % 2, std::string(50 + t, static_cast<char>('a' + t)));
                if (t == 0 && i % 50 == 0) now += 86400;  // rotation in the midst
            }
        });
    }
    threads.clear();
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
        for (const auto& line : lines(entry.path().filename())) {
            ++count;
            const auto text = line.substr(line.find(" : ") + 3);
            ASSERT_THAT(line, MatchesRegex("\\[[0-9]+\\] [-0-9: ]+\\+0000 : [a-h]+"));
            ASSERT_EQ(text, std::string(50 + text[0] - 'a', text[0]));
        }
    }
    EXPECT_EQ(count, 8U * 300U);
}

}  // namespace
}  // namespace tarnwell
