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
    ::setenv("XDG_DATA_HOME", "relative/path", 1);
    EXPECT_EQ(xdgDataHome(), "/home/ann/.local/share");
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
        EXPECT_EQ(folder.read("lock"), std::to_string(::getpid()) + "\n");
    }
    EXPECT_TRUE(std::holds_alternative<SingleInstance>(SingleInstance::acquire(path)));

    const auto failed = SingleInstance::acquire(folder.path("missing/lock"));
    ASSERT_TRUE(std::holds_alternative<SingleInstance::Failure>(failed));
    EXPECT_EQ(std::get<SingleInstance::Failure>(failed).error, ENOENT);
}

TEST(BundleInformationTest, settingsReplaceOnlyWhatUsersMayChange) {
    TemporaryFolder folder;
    const MemoryUserDefaults settings(
        {{"CFBundleName", "Other"}, {"TWGlobalAddress", "island.localhost:8443"}});
    const BundleInformation bundle(
        folder.write("Info.plist",
                     "<plist version=\"1.0\"><dict><key>CFBundleName</key><string>Tarnwell</string>"
                     "<key>CFBundleVersion</key><integer>42</integer></dict></plist>"),
        settings);
    EXPECT_TRUE(bundle.loaded());
    EXPECT_EQ(bundle.value("CFBundleName"), "Tarnwell");
    EXPECT_EQ(bundle.value("CFBundleVersion"), "42");
    EXPECT_EQ(bundle.value("TWGlobalAddress"), "island.localhost:8443");

    // A file that cannot be used is logged and empty.
    for (const auto& file : {folder.path("missing"), folder.write("damaged", "<plist><dict><key>"),
                             folder.write("text", "<plist><string>x</string></plist>")}) {
        LogCapture log;
        const BundleInformation unusable(file, settings);
        EXPECT_FALSE(unusable.loaded()) << file;
        EXPECT_EQ(unusable.value("CFBundleName"), std::nullopt);
        EXPECT_TRUE(log.contains("Cannot use bundle information " + file)) << log.text();
    }
}

}  // namespace
}  // namespace tarnwell
