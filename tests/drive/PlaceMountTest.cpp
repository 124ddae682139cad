// Requests act on the item that the program named, whatever others rename, trade and replace meanwhile.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <functional>
#include <thread>

#include "drive/MountedDrive.h"
#include "store/LocalChangeJournal.h"

namespace tarnwell::testing {
namespace {

class PlaceMountTest : public MountedDrive {
  protected:
    /// Runs `disturb` until all `workers` are done.
    static void runAgainst(const std::function<void()>& disturb,
                           const std::vector<std::function<void()>>& workers) {
        std::atomic<bool> done = false;
        std::thread disturber([&] {
            while (!done)
                disturb();
        });
        std::vector<std::thread> threads;
        for (const auto& worker : workers)
            threads.emplace_back(worker);
        for (auto& thread : threads)
            thread.join();
        done = true;
        disturber.join();
    }
    void expectQuiet() {
        for (int i = 0; i < 500 && !TWFuseFileData::openedFiles().empty(); ++i)
            ::usleep(10'000);
        EXPECT_TRUE(TWFuseFileData::openedFiles().empty());
        for (const auto& file : world.store.allFiles())
            EXPECT_FALSE(file->LocallyUpdated.value_or(false)) << file->FullPath.view();
    }
    [[nodiscard]] int rename(const char* from, const char* to) const {
        return ::rename(path(from).c_str(), path(to).c_str());
    }
    static std::string failure(const char* call) { return std::string(call) + ": " + std::strerror(errno); }
};

TEST_F(PlaceMountTest, workInFoldersThatTradeNamesStaysInThem) {
    constexpr int kRounds = 150;
    struct Folder {
        int descriptor = -1;
        std::vector<std::string> kept;
        std::vector<std::string> failures;
    };
    std::array<Folder, 2> folders;
    std::vector<std::function<void()>> workers;
    for (std::size_t i = 0; i < folders.size(); ++i) {
        const auto name = "Share/d" + std::to_string(i);
        ASSERT_EQ(::mkdir(path(name).c_str(), 0755), 0);
        folders[i].descriptor = ::open(path(name).c_str(), O_RDONLY | O_DIRECTORY);
        workers.emplace_back([&folder = folders[i], i] {
            const auto check = [&](bool ok, const char* call) {
                if (!ok) folder.failures.push_back(failure(call));
            };
            for (int round = 0; round < kRounds; ++round) {
                const auto own = std::to_string(i) + "-" + std::to_string(round);
                for (const auto& name : {std::string("same"), own}) {
                    const int file =
                        ::openat(folder.descriptor, name.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644);
                    check(file >= 0, "create");
                    check(::write(file, own.data(), own.size()) == static_cast<ssize_t>(own.size()), "write");
                    check(::close(file) == 0, "close");
                }
                struct stat status {};
                check(::fstatat(folder.descriptor, own.c_str(), &status, 0) == 0, "stat");
                check(::mkdirat(folder.descriptor, "sub", 0755) == 0, "mkdir");
                check(::unlinkat(folder.descriptor, "sub", AT_REMOVEDIR) == 0, "rmdir");
                check(::unlinkat(folder.descriptor, "same", 0) == 0, "unlink");
                if (round % 2 == 0) {
                    const auto other = own + "-moved";
                    check(::renameat(folder.descriptor, own.c_str(), folder.descriptor, other.c_str()) == 0,
                          "rename");
                    folder.kept.push_back(other);
                } else {
                    folder.kept.push_back(own);
                }
            }
        });
    }
    runAgainst(
        [this] {
            EXPECT_EQ(rename("Share/d0", "Share/t"), 0);
            EXPECT_EQ(rename("Share/d1", "Share/d0"), 0);
            EXPECT_EQ(rename("Share/t", "Share/d1"), 0);
        },
        workers);
    for (auto& folder : folders) {
        EXPECT_THAT(folder.failures, ::testing::IsEmpty());
        std::vector<std::string> found;
        const auto place = "/proc/self/fd/" + std::to_string(folder.descriptor);
        for (const auto& entry : std::filesystem::directory_iterator(place))
            found.push_back(entry.path().filename());
        EXPECT_THAT(found, ::testing::UnorderedElementsAreArray(folder.kept));
        ::close(folder.descriptor);
    }
    expectQuiet();
}

TEST_F(PlaceMountTest, aNameThatIsReplacedIsAlwaysThere) {
    constexpr int kCalls = 400;
    const auto name = path("Share/name");
    const auto put = [&](const std::string& temporary) {
        std::ofstream(temporary) << "some text";
        ASSERT_EQ(::rename(temporary.c_str(), name.c_str()), 0);
    };
    put(path("Share/first"));
    std::mutex mutex;
    std::vector<std::string> failures;
    const auto repeat = [&](const char* what, const std::function<int()>& call) {
        return [&failures, &mutex, what, call] {
            for (int i = 0; i < kCalls; ++i) {
                if (call() == 0) continue;
                const std::lock_guard lock(mutex);
                failures.push_back(failure(what));
            }
        };
    };
    struct stat status {};
    runAgainst([&] { put(path("Share/temporary")); },
               {repeat("open",
                       [&] {
                           const int file = ::open(name.c_str(), O_RDONLY);
                           char text[20];
                           const bool whole = file >= 0 && ::read(file, text, sizeof text) == 9;
                           if (file >= 0) ::close(file);
                           return whole ? 0 : -1;
                       }),
                repeat("stat", [&] { return ::stat(name.c_str(), &status); }),
                repeat("truncate", [&] { return ::truncate(name.c_str(), 9); }),
                repeat("chmod", [&] { return ::chmod(name.c_str(), 0644); }),
                repeat("access", [&] { return ::access(name.c_str(), R_OK | W_OK); })});
    EXPECT_THAT(failures, ::testing::IsEmpty());
    expectQuiet();
}

}  // namespace
}  // namespace tarnwell::testing
