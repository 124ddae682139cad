#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <regex>

#include "platform/BundleInformation.h"
#include "platform/SingleInstance.h"
#include "platform/SystemInformation.h"
#include "support/LogCapture.h"
#include "support/MemoryUserDefaults.h"
#include "support/TemporaryFolder.h"

namespace tarnwell {
namespace {

using testing::LogCapture;
using testing::MemoryUserDefaults;
using testing::TemporaryFolder;

TEST(SystemInformationTest, foldersFollowTheEnvironment) {
    ::setenv("HOME", "/home/ann", 1);
    const struct {
        const char* variable;
        std::string (*folder)();
        const char* fallback;
    } cases[] = {{"XDG_DATA_HOME", xdgDataHome, "/home/ann/.local/share"},
                 {"XDG_CONFIG_HOME", xdgConfigHome, "/home/ann/.config"},
                 {"XDG_CACHE_HOME", xdgCacheHome, "/home/ann/.cache"}};
    for (const auto& [variable, folder, fallback] : cases) {
        ::setenv(variable, "/elsewhere", 1);
        EXPECT_EQ(folder(), "/elsewhere");
        for (const char* invalid : {"", "relative/path"}) {
            ::setenv(variable, invalid, 1);
            EXPECT_EQ(folder(), fallback) << variable << " " << invalid;
        }
        ::unsetenv(variable);
        EXPECT_EQ(folder(), fallback);
    }
    ::unsetenv("HOME");
    EXPECT_EQ(homeFolder().front(), '/');
}

TEST(SystemInformationTest, describesThisProcessAndMachine) {
    EXPECT_TRUE(std::regex_match(operatingSystemVersion(), std::regex("[0-9]+\\.[0-9]+\\.[0-9]+")));
    EXPECT_NE(operatingSystemVersion(), "0.0.0");
    EXPECT_TRUE(executablePath().ends_with("/platform_tests")) << executablePath();
    EXPECT_EQ(processName(::getpid()), "platform_tests");
    EXPECT_EQ(processName(0), std::nullopt);
    EXPECT_EQ(processExecutable(1 << 30), std::nullopt);
    EXPECT_FALSE(userIsInGroup("no such group"));
    const auto capacity = fileSystemCapacity("/");
    ASSERT_TRUE(capacity);
    EXPECT_GE(capacity->totalBytes, capacity->freeBytes);
    EXPECT_GE(capacity->freeBytes, capacity->availableBytes);
    EXPECT_FALSE(fileSystemCapacity("/nonexistent"));
}

TEST(SystemInformationTest, readsTheFuseConfiguration) {
    TemporaryFolder folder;
    EXPECT_TRUE(fuseAllowsOther(folder.write("a", "# comment\nmount_max = 9\n  user_allow_other \n")));
    EXPECT_FALSE(fuseAllowsOther(folder.write("b", "#user_allow_other\nuser_allow_others\n")));
    EXPECT_FALSE(fuseAllowsOther(folder.path("missing")));
}

TEST(SingleInstanceTest, refusesASecondAndNamesTheFirstUntilItEnds) {
    TemporaryFolder folder;
    const auto path = folder.write("lock", "99999999 left by a crash, longer than what follows");
    {
        const auto first = SingleInstance::acquire(path);
        ASSERT_TRUE(std::holds_alternative<SingleInstance>(first));
        const auto second = SingleInstance::acquire(path);
        const auto* other = std::get_if<SingleInstance::Other>(&second);
        ASSERT_TRUE(other);
        EXPECT_EQ(other->pid, ::getpid());
        EXPECT_EQ(other->executable, executablePath());
        EXPECT_EQ(folder.read("lock"), std::to_string(::getpid()) + "\n");
    }
    EXPECT_TRUE(std::holds_alternative<SingleInstance>(SingleInstance::acquire(path)));

    // A process that is killed leaves the file and no lock.
    const pid_t child = ::fork();
    if (child == 0) {
        const auto held = SingleInstance::acquire(path);
        ::_exit(std::holds_alternative<SingleInstance>(held) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(std::holds_alternative<SingleInstance>(SingleInstance::acquire(path)));

    const auto failed = SingleInstance::acquire(folder.path("missing/lock"));
    ASSERT_TRUE(std::holds_alternative<SingleInstance::Failure>(failed));
    EXPECT_EQ(std::get<SingleInstance::Failure>(failed).error, ENOENT);
}

constexpr const char* kPropertyList =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
    "<key>CFBundleName</key><string>Tarnwell</string><key>CFBundleVersion</key><integer>42</integer>"
    "<key>TWBrandName</key><string>Brand</string><key>LSUIElement</key><true/>"
    "<key>List</key><array><string>x</string></array></dict></plist>";

TEST(BundleInformationTest, settingsReplaceOnlyWhatUsersMayChange) {
    TemporaryFolder folder;
    MemoryUserDefaults settings({{"CFBundleName", "Other"}, {"TWGlobalAddress", "island.localhost:8443"}});
    const BundleInformation bundle(folder.write("Info.plist", kPropertyList), settings);
    EXPECT_TRUE(bundle.loaded());
    EXPECT_EQ(bundle.value("CFBundleName"), "Tarnwell");
    EXPECT_EQ(bundle.value("CFBundleVersion"), "42");
    EXPECT_EQ(bundle.value("LSUIElement"), "true");
    EXPECT_EQ(bundle.value("List"), std::nullopt);
    EXPECT_EQ(bundle.value("TWGlobalAddress"), "island.localhost:8443");
    EXPECT_EQ(bundle.value("TWBrandName"), "Brand");
    settings.set("TWBrandName", "Quelto");
    EXPECT_EQ(bundle.value("TWBrandName"), "Quelto");
}

TEST(BundleInformationTest, unusableFilesAreLoggedAndEmpty) {
    TemporaryFolder folder;
    const MemoryUserDefaults settings;
    const std::string files[] = {folder.path("missing"), folder.write("damaged", "<plist><dict><key>"),
                                 folder.write("text", "<plist><string>x</string></plist>"), folder.path()};
    for (const auto& file : files) {
        LogCapture log;
        const BundleInformation bundle(file, settings);
        EXPECT_FALSE(bundle.loaded()) << file;
        EXPECT_EQ(bundle.value("CFBundleName"), std::nullopt);
        EXPECT_TRUE(log.contains("Cannot use bundle information " + file)) << log.text();
    }
}

}  // namespace
}  // namespace tarnwell
