// The saved store at the size of a large company's: 1,000,000 records in 10 shares. Prints the time of a
// whole save, of a load up to a store that answers, of a save after one record changed, how long the longest
// look-up of another thread waited meanwhile, and the memory that each took at its peak.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "bench/Records.h"
#include "store/StorePersistence.h"

namespace tarnwell::bench {
namespace {

constexpr std::size_t kShares = 10;
constexpr std::size_t kRecordsPerShare = 100'000;
constexpr std::size_t kFoldersPerShare = 2'000;

using SteadyClock = std::chrono::steady_clock;

double millisecondsSince(SteadyClock::time_point start) {
    return std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
}

double processorMilliseconds() {
    return 1000 * static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

double megabytes(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field, 0) == 0) return std::stod(line.substr(line.find(':') + 1)) / 1024;
    }
    return 0;
}

/// Runs `work` and prints its time, the memory that it took beside what was there, and how long look-ups of a
/// second thread waited at most.
template <class Work>
void measure(const char* name, TWMetadataStorage& store, const std::string& id, Work work) {
    std::ofstream("/proc/self/clear_refs") << 5;
    const double before = megabytes("VmRSS");
    std::atomic<bool> ended{false};
    double longest = 0;
    std::thread drive([&] {
        while (!ended) {
            const auto start = SteadyClock::now();
            static_cast<void>(store.fileWithId(id));
            longest = std::max(longest, millisecondsSince(start));
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    const double processorBefore = processorMilliseconds();
    const auto start = SteadyClock::now();
    work();
    const double time = millisecondsSince(start);
    const double processor = processorMilliseconds() - processorBefore;
    ended = true;
    drive.join();
    const double peak = megabytes("VmHWM");
    std::printf(
        "%-24s %6.0f ms (%.0f ms of processor)   memory %.0f MB, at its peak +%.0f %%   longest wait %.2f "
        "ms\n",
        name, time, processor, before, 100 * (peak - before) / before, longest);
}

void run() {
    World world;
    auto& store = world.store();
    std::string id;
    for (std::size_t i = 0; i < kShares; ++i) {
        const auto tree =
            makeTree(kRecordsPerShare, kFoldersPerShare, std::string(1, static_cast<char>('a' + i)));
        insert(store, tree);
        id = tree.files.back()->InternalName.str();
    }
    measure("save, everything", store, id, [&] { store.persistence().save(); });
    measure("save, nothing changed", store, id, [&] { store.persistence().save(); });
    {
        const auto lock = store.beginWriteStorage();
        const auto file = store.fileWithId(id);
        file->EndOfFile = 12345;
        store.noteAttributesChanged(*file);
    }
    measure("save, one record changed", store, id, [&] { store.persistence().save(); });

    std::uintmax_t bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(world.layout().rootCachePath())) {
        if (entry.is_regular_file()) bytes += entry.file_size();
    }
    std::printf("files on disk            %6.0f MB\n", static_cast<double>(bytes) / 1e6);

    SystemClock clock;
    struct DroppingExecutor final : Executor {
        void async(std::function<void()>) override {}
    } background;
    TWMetadataStorage loaded({world.layout(), clock, background, [] { return std::string(); }, [] {}});
    measure("load", loaded, "", [&] { loaded.persistence().load(); });
    std::printf("%zu records, the last one at %s\n", loaded.fileCount(),
                loaded.fileWithId(id)->FullPath.str().c_str());
}

}  // namespace
}  // namespace tarnwell::bench

int main() {
    tarnwell::bench::run();
}
