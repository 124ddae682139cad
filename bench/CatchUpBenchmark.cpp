// One catch-up page of 10,000 records, from the text of the reply to the merged store.
#include <benchmark/benchmark.h>

#include "bench/Records.h"
#include "connector/OSXCatchUpResponse.h"
#include "store/RemoteChanges.h"
#include "util/RecordMapping.h"
#include "util/TWLogger.h"

namespace tarnwell::bench {
namespace {

std::string pageText(int records) {
    const auto tree = makeTree(static_cast<std::size_t>(records), 200);
    OSXCatchUpResponse page;
    page.TwVirtualFiles = tree.folders;
    page.TwVirtualFiles.insert(page.TwVirtualFiles.end(), tree.files.begin(), tree.files.end());
    page.ShareTick = page.LargestTick = records;
    return toJsonText(page);
}

void parsePage(benchmark::State& state) {
    const auto text = pageText(10'000);
    std::string error;
    for (auto _ : state) {
        auto page = parseRecord<OSXCatchUpResponse>(text, error);
        if (!page) state.SkipWithError(error.c_str());
        benchmark::DoNotOptimize(page);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(parsePage)->Unit(benchmark::kMillisecond);

/// Into an empty share, and (second argument) again over records that are there already with newer ticks.
void parseAndMergePage(benchmark::State& state) {
    const auto text = pageText(10'000);
    const bool again = state.range(0) != 0;
    std::string error;
    for (auto _ : state) {
        state.PauseTiming();
        auto world = std::make_unique<World>();
        TWInitLogs(world->layout().logsPath());
        const auto share = makeTree(1, 0).share;
        world->store().insertShare(share);
        const auto merge = [&](int tickOffset) {
            auto page = parseRecord<OSXCatchUpResponse>(text, error);
            if (tickOffset) {
                for (auto& file : page->TwVirtualFiles)
                    file->Tick += tickOffset;
            }
            world->store().remoteChanges().updateFiles(page->TwVirtualFiles, page->LargestTick + tickOffset,
                                                       share);
        };
        if (again) merge(0);
        state.ResumeTiming();
        merge(again ? 10'000 : 0);
        state.PauseTiming();
        if (world->store().fileCount() != 10'000) state.SkipWithError("records are missing");
        world.reset();
        TWClose();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * 10'000);
}
BENCHMARK(parseAndMergePage)->ArgName("again")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace tarnwell::bench

BENCHMARK_MAIN();
