#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

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
    ::setenv("XDG_DATA_HOME", "/elsewhere", 1);
    EXPECT_EQ(xdgDataHome(), "/elsewhere");
    for (const char* invalid : {"", "relative/path"}) {
        ::setenv("XDG_DATA_HOME", invalid, 1);
        EXPECT_EQ(xdgDataHome(), "/home/ann/.local/share") << invalid;
    }
    ::unsetenv("XDG_DATA_HOME");
    ::unsetenv("HOME");
    EXPECT_EQ(homeFolder().front(), '/');
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
        EXPECT_TRUE(other->executable.ends_with("/platform_tests"));
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
    "<key>TWBrandName</key><string>Brand</string></dict></plist>";

TEST(BundleInformationTest, settingsReplaceOnlyWhatUsersMayChange) {
    TemporaryFolder folder;
    MemoryUserDefaults settings({{"CFBundleName", "Other"}, {"TWGlobalAddress", "island.localhost:8443"}});
    const BundleInformation bundle(folder.write("Info.plist", kPropertyList), settings);
    EXPECT_TRUE(bundle.loaded());
    EXPECT_EQ(bundle.value("CFBundleName"), "Tarnwell");
    EXPECT_EQ(bundle.value("CFBundleVersion"), "42");
    EXPECT_EQ(bundle.value("TWGlobalAddress"), "island.localhost:8443");
    EXPECT_EQ(bundle.value("TWBrandName"), "Brand");
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
