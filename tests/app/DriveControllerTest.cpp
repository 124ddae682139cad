#include "app/DriveController.h"

#include <cerrno>
#include <deque>
#include <string>

#include "support/ManualRunLoop.h"
#include "support/TemporaryFolder.h"

namespace tarnwell {
namespace {

using testing::ManualRunLoop;
using testing::TemporaryFolder;

/// What the controller did to the mounts it made, and their events at hand.
struct Mounts {
    struct Layer : FileSystemLayer {
        Layer(Mounts& owner, Events given) : mounts(owner), events(std::move(given)) {}
        ~Layer() override { --mounts.alive; }
        void mount(const std::string&, const std::vector<std::string>&) override {}
        int unmount(bool forced) override {
            mounts.unmounts += forced ? "forced " : "normal ";
            if (mounts.unmountErrors.empty()) return 0;
            const int error = mounts.unmountErrors.front();
            mounts.unmountErrors.pop_front();
            return error;
        }
        Mounts& mounts;
        Events events;
    };

    FileSystemLayer::Factory factory() {
        return [this](FileSystemLayer::Events given) {
            events.push_back(given);
            ++alive;
            return std::make_unique<Layer>(*this, std::move(given));
        };
    }

    int alive = 0;
    std::string unmounts;
    std::deque<int> unmountErrors;
    std::vector<FileSystemLayer::Events> events;  ///< of every mount made
};

struct DriveControllerTest : ::testing::Test, DriveController::Mediator {
    bool inAdminGroup() override { return false; }
    void checkForOldMountAtPath(const std::string&) override {}
    void driveDidMount() override {}
    std::string deviceAtPath(const std::string&) override { return device; }
    void migrateMountDirectoryIfNeeded() override {}
    void mountDidFail(const std::string&) override {}

    DriveController& start() {
        controller.emplace(DriveController::Settings{"Tarnwell", home.path("Tarnwell"),
                                                     home.path("Fern Disk"), "/res/MainIcon.icns"},
                           *this, loop, mounts.factory());
        controller->initializeFuse();
        return *controller;
    }
    void happens(const std::function<void()>& event) {
        event();
        loop.runPending();
    }

    TemporaryFolder home;
    ManualRunLoop loop;
    Mounts mounts;
    std::string device;
    std::optional<DriveController> controller;
};

TEST_F(DriveControllerTest, holdsTheLockFileWhileMountedAndForcesABusyDriveDown) {
    auto& drive = start();
    EXPECT_FALSE(home.exists("Tarnwell/.fuselock"));
    happens(mounts.events[0].didMount);
    EXPECT_TRUE(home.exists("Tarnwell/.fuselock"));
    mounts.unmountErrors = {EBUSY, EPERM};
    drive.stopFuse();
    EXPECT_EQ(mounts.alive, 0);
    EXPECT_FALSE(drive.fuseInitialized());
    drive.stopFuse();
    EXPECT_EQ(mounts.unmounts, "normal forced ") << "nothing left to take down";
}

TEST_F(DriveControllerTest, mountsAgainUnlessTheUnmountWasItsOwn) {
    auto& drive = start();
    happens(mounts.events[0].didMount);
    happens(mounts.events[0].didUnmount);
    ASSERT_EQ(mounts.events.size(), 2u);
    EXPECT_TRUE(drive.fuseInitialized());
    EXPECT_EQ(mounts.alive, 1) << "the lost mount is gone";

    happens(mounts.events[0].didUnmount);
    EXPECT_EQ(mounts.events.size(), 2u) << "a late word of the first mount is not about the second";

    happens(mounts.events[1].didMount);
    mounts.events[1].didUnmount();  // under way when our own unmount comes
    drive.stopFuse();
    loop.runPending();
    EXPECT_EQ(mounts.events.size(), 2u);
    EXPECT_FALSE(drive.fuseInitialized());
}

TEST_F(DriveControllerTest, mountsAgainWhenDetachedWithFilesOpen) {
    auto& drive = start();
    drive.mountTableChanged();  // still mounting
    device = "0:50";
    happens(mounts.events[0].didMount);
    drive.mountTableChanged();
    EXPECT_EQ(mounts.events.size(), 1u) << "somebody else's mount";
    device = "";
    drive.mountTableChanged();
    EXPECT_EQ(mounts.unmounts, "forced ");
    ASSERT_EQ(mounts.events.size(), 2u);
    happens(mounts.events[0].didUnmount);
    drive.mountTableChanged();
    EXPECT_EQ(mounts.events.size(), 2u) << "mounted again once";

    device = "0:51";
    happens(mounts.events[1].didMount);
    drive.stopFuse();
    device = "";
    drive.mountTableChanged();
    EXPECT_EQ(mounts.events.size(), 2u);
}

}  // namespace
}  // namespace tarnwell
