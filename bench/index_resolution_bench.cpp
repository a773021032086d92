// Cost of the index's cross-file refresh: reading what resolution needs from an index, and
// resolving every reference (targets, fan-in, covering tests).
//
//   KESTRIX_BENCH_INDEX=/path/to/index.db build/bench/index_resolution_bench
//
// Without KESTRIX_BENCH_INDEX the sample repository is indexed into a temporary file first.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/indexer/index_store.hpp"
#include "orvane_kestrix/indexer/resolution.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix;

fs::path index_path() {
    if (const char* given = std::getenv("KESTRIX_BENCH_INDEX")) return given;
    static const fs::path made = [] {
        const fs::path path = fs::temp_directory_path() / "kestrix-resolution-bench.db";
        indexer::IndexOptions options;
        options.repo = fs::path(__FILE__).parent_path().parent_path() / "tests" / "sample_repo";
        options.db = path;
        options.rebuild = true;
        indexer::IndexBuilder(options).run();
        return path;
    }();
    return made;
}

void BM_LoadSnapshot(benchmark::State& state) {
    storage::Database db = storage::open_index(index_path());
    indexer::IndexStore store(db);
    std::size_t references = 0;
    for (auto _ : state) {
        auto snapshot = store.load_snapshot();
        references = snapshot.references.size();
        benchmark::DoNotOptimize(snapshot);
    }
    state.counters["references"] = static_cast<double>(references);
}
BENCHMARK(BM_LoadSnapshot)->Unit(benchmark::kMillisecond);

void BM_DeriveIndexData(benchmark::State& state) {
    storage::Database db = storage::open_index(index_path());
    indexer::IndexStore store(db);
    const auto snapshot = store.load_snapshot();
    std::size_t edges = 0;
    for (auto _ : state) {
        auto derived = indexer::derive_index_data(snapshot);
        edges = derived.edges.size();
        benchmark::DoNotOptimize(derived);
    }
    state.counters["references"] = static_cast<double>(snapshot.references.size());
    state.counters["edges"] = static_cast<double>(edges);
}
BENCHMARK(BM_DeriveIndexData)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
