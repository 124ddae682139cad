// A first catch-up of 1,000,000 records, from the text of each page to the merged store, while programs use
// the mounted drive. Prints how fast pages go in as the store grows, and how long drive calls took meanwhile.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <thread>

#include "bench/Records.h"
#include "connector/OSXCatchUpResponse.h"
#include "drive/FuseMount.h"
#include "drive/TWFuseFileSystem.h"
#include "platform/BackgroundQueue.h"
#include "store/RemoteChanges.h"
#include "util/RecordMapping.h"
#include "util/TWLogger.h"

namespace tarnwell::bench {
namespace {

constexpr std::size_t kRecords = 1'000'000;
constexpr std::size_t kFolders = 20'000;
constexpr std::size_t kPage = 10'000;
constexpr std::size_t kReportEvery = 20;  // pages

using SteadyClock = std::chrono::steady_clock;

double secondsSince(SteadyClock::time_point start) {
    return std::chrono::duration<double>(SteadyClock::now() - start).count();
}

class NoContents final : public TWFuseFileSystem::Mediator {
  public:
    bool isFileDownloaded(const TWVirtualFilePtr&) override { return false; }
    std::optional<std::string> downloadFileChunk(const TWVirtualFilePtr&, std::int64_t,
                                                 std::int64_t) override {
        return std::nullopt;
    }
    [[nodiscard]] bool excessiveLogging() const override { return false; }
};

/// Asks the drive for attributes and listings of what is there already, every half millisecond.
class Prober {
  public:
    Prober(std::string folder, std::vector<std::string> paths)
        : folder_(std::move(folder)), paths_(std::move(paths)), thread_([this] { run(); }) {}
    ~Prober() {
        ended_ = true;
        if (thread_.joinable()) thread_.join();
    }
    Prober(const Prober&) = delete;
    Prober& operator=(const Prober&) = delete;

    std::vector<double> finish() {
        ended_ = true;
        thread_.join();
        std::sort(waits_.begin(), waits_.end());
        return waits_;
    }

  private:
    void run() {
        std::mt19937 random(3);
        for (std::size_t call = 0; !ended_; ++call) {
            const auto start = SteadyClock::now();
            if (call % 16 == 0) {
                if (DIR* folder = opendir(folder_.c_str())) {
                    while (readdir(folder)) {
                    }
                    closedir(folder);
                }
            } else {
                struct stat status {};
                failed_ += stat((folder_ + paths_[random() % paths_.size()]).c_str(), &status) != 0;
            }
            waits_.push_back(secondsSince(start) * 1e3);
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        if (failed_ > 0) std::printf("%zu calls failed\n", failed_);
    }

    const std::string folder_;
    const std::vector<std::string> paths_;
    std::atomic<bool> ended_{false};
    std::vector<double> waits_;
    std::size_t failed_ = 0;
    std::thread thread_;
};

void run() {
    World world;
    auto& store = world.store();
    TWInitLogs(world.layout().logsPath());
    auto tree = makeTree(kRecords, kFolders);
    std::vector<TWVirtualFilePtr> records = std::move(tree.folders);
    records.insert(records.end(), tree.files.begin(), tree.files.end());
    store.insertShare(tree.share);

    BackgroundQueue background(1);
    NoContents contents;
    const std::string mountPoint = world.layout().rootCachePath() + "/mount";
    std::filesystem::create_directories(mountPoint);
    FuseMount mount(
        std::make_shared<TWFuseFileSystem>(store, world.layout(), background, contents),
        {[] {}, [](const std::string& reason) { std::printf("not mounted: %s\n", reason.c_str()); }, [] {}});
    mount.mount(mountPoint, {"volname=bench", "direct_io", "nolocalcaches", "novncache"});

    std::unique_ptr<Prober> prober;
    double seconds = 0, sinceReport = 0;
    for (std::size_t at = 0, page = 1; at < records.size(); at += kPage, ++page) {
        OSXCatchUpResponse answer;
        const auto end = records.begin() + static_cast<std::ptrdiff_t>(std::min(at + kPage, records.size()));
        answer.TwVirtualFiles.assign(records.begin() + static_cast<std::ptrdiff_t>(at), end);
        answer.LargestTick = answer.ShareTick = static_cast<int>(at + kPage);
        const auto text = toJsonText(answer);

        const auto start = SteadyClock::now();
        std::string error;
        const auto parsed = parseRecord<OSXCatchUpResponse>(text, error);
        if (!parsed) throw std::runtime_error(error);
        store.remoteChanges().updateFiles(parsed->TwVirtualFiles, parsed->LargestTick, tree.share);
        const double taken = secondsSince(start);
        seconds += taken;
        sinceReport += taken;

        if (!prober) {
            std::vector<std::string> paths;
            for (const auto& file : parsed->TwVirtualFiles) {
                if (paths.size() < 2000) paths.push_back(store.pathForItemWithId(file->InternalName.view()));
            }
            prober = std::make_unique<Prober>(mountPoint, std::move(paths));
        }
        if (page % kReportEvery == 0) {
            std::printf("%8zu records   %7.0f a second\n", store.fileCount(),
                        static_cast<double>(kReportEvery * kPage) / sinceReport);
            sinceReport = 0;
        }
    }
    const auto waits = prober->finish();
    mount.unmount(true);
    TWClose();
    const auto at = [&](double part) {
        return waits[static_cast<std::size_t>(part * static_cast<double>(waits.size() - 1))];
    };
    std::printf("%8zu records in %.2f s: %.0f a second, text to store\n", store.fileCount(), seconds,
                static_cast<double>(store.fileCount()) / seconds);
    std::printf(
        "%zu drive calls meanwhile: median %.2f ms, 99 %% %.2f ms, 99.9 %% %.2f ms, longest %.2f ms\n",
        waits.size(), at(0.5), at(0.99), at(0.999), waits.back());
}

}  // namespace
}  // namespace tarnwell::bench

int main() {
    try {
        tarnwell::bench::run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
