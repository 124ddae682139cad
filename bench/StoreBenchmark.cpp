// The store at the size of a large company's shares: 1,000,000 records in 20,000 folders.
#include <benchmark/benchmark.h>

#include <random>

#include "bench/Records.h"
#include "util/Format.h"

namespace tarnwell::bench {
namespace {

constexpr std::size_t kRecords = 1'000'000;
constexpr std::size_t kFolders = 20'000;

void insert(TWMetadataStorage& store, const Tree& tree) {
    const auto lock = store.beginWriteStorage();
    store.insertShare(tree.share);
    for (const auto& folder : tree.folders)
        store.addFileMetadata(folder);
    for (const auto& file : tree.files)
        store.addFileMetadata(file);
}

/// Items: records inserted. Counter bytesPerRecord: heap of records and indexes together.
void insertion(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        {
            World world;
            const auto before = heapBytes();
            auto tree = makeTree(kRecords, kFolders);
            state.ResumeTiming();
            insert(world.store(), tree);
            state.PauseTiming();
            tree = {};
            state.counters["bytesPerRecord"] = static_cast<double>(heapBytes() - before) / kRecords;
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kRecords));
}
BENCHMARK(insertion)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

/// Items: look-ups of a file by its path of five components, in random order.
void lookUpByPath(benchmark::State& state) {
    World world;
    std::vector<std::string> paths;
    {
        const auto tree = makeTree(kRecords, kFolders);
        insert(world.store(), tree);
        std::mt19937 random(7);
        for (int i = 0; i < 65536; ++i) {
            paths.push_back(tree.files[random() % tree.files.size()]->FullPath.str());
        }
    }
    std::size_t i = 0, missing = 0;
    for (auto _ : state) {
        const auto lock = world.store().beginReadStorage();
        const auto file = world.store().fileWithPath(paths[i++ % paths.size()]);
        missing += file == nullptr;
        benchmark::DoNotOptimize(file);
    }
    if (missing) state.SkipWithError("a path was not found");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(lookUpByPath);

/// All children of one folder removed and inserted again: the time grows with their number, not its square.
void removeAndReinsertChildren(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    World world;
    auto& store = world.store();
    const auto lock = store.beginWriteStorage();
    const auto share = makeShare("S1", "Share");
    store.insertShare(share);
    std::vector<TWVirtualFilePtr> files;
    for (std::size_t i = 0; i < count; ++i) {
        files.push_back(
            makeRecord(format("F%072d", i), "S1", format("file-%d", i), "S1", true, static_cast<int>(i)));
        store.addFileMetadata(files.back());
    }
    for (auto _ : state) {
        for (const auto& file : files)
            store.deleteFileMetadata(file);
        for (const auto& file : files)
            store.addFileMetadata(file);
    }
    state.SetComplexityN(state.range(0));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(removeAndReinsertChildren)->Arg(12'500)->Arg(25'000)->Arg(50'000)->Arg(100'000)->Complexity();

}  // namespace
}  // namespace tarnwell::bench

BENCHMARK_MAIN();
