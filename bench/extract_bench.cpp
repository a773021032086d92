// Extraction throughput over this machine's Python standard library (site-packages left out):
// every .py file read into memory first, then parsed and extracted on one thread, as the
// indexer does; for reference in the same run, the same files parsed by the bare grammar, and
// parsed and walked node by node (the floor under any extraction).
// Reports files/s (items_per_second) and bytes/s, plus what was found.
//
//   build/extract_bench [--benchmark_filter=...]     KESTRIX_BENCH_DIR=/some/tree overrides the corpus

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <tree_sitter/api.h>

#include "orvane_kestrix/indexer/extraction.hpp"

extern "C" const TSLanguage* tree_sitter_python();

namespace fs = std::filesystem;
using namespace orvane_kestrix::indexer;

namespace {

struct SourceFile {
    std::string path;
    Language language;
    std::string content;
};

std::string corpus_dir() {
    if (const char* dir = std::getenv("KESTRIX_BENCH_DIR")) return dir;
    FILE* pipe = popen("python3 -c 'import sysconfig;print(sysconfig.get_paths()[\"stdlib\"])' 2>/dev/null", "r");
    if (pipe == nullptr) return {};
    char buffer[4096] = {};
    std::string out = fgets(buffer, sizeof buffer, pipe) ? buffer : "";
    pclose(pipe);
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
    return out;
}

const std::vector<SourceFile>& corpus() {
    static const std::vector<SourceFile> files = [] {
        std::vector<SourceFile> out;
        std::string root = corpus_dir();
        if (root.empty() || !fs::is_directory(root)) return out;
        for (auto it = fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied);
             it != fs::recursive_directory_iterator(); ++it) {
            std::string name = it->path().filename().string();
            if (it->is_directory() && (name == "site-packages" || name == "__pycache__")) {
                it.disable_recursion_pending();
                continue;
            }
            if (!it->is_regular_file()) continue;
            std::string rel = fs::relative(it->path(), root).generic_string();
            auto language = language_for_path(rel);
            if (!language || !is_source_language(*language)) continue;
            std::ifstream in(it->path(), std::ios::binary);
            std::ostringstream content;
            content << in.rdbuf();
            out.push_back({rel, *language, content.str()});
        }
        return out;
    }();
    return files;
}

void BM_ExtractCorpus(benchmark::State& state) {
    const auto& files = corpus();
    if (files.empty()) {
        state.SkipWithError("no corpus (python3 stdlib not found; set KESTRIX_BENCH_DIR)");
        return;
    }
    std::size_t bytes = 0;
    for (const auto& f : files) bytes += f.content.size();
    Extractor extractor;
    std::size_t symbols = 0, references = 0, errors = 0, abandoned = 0;
    for (auto _ : state) {
        symbols = references = errors = abandoned = 0;
        for (const auto& f : files) {
            FileExtraction x = extractor.extract(f.language, f.path, f.content);
            symbols += x.symbols.size();
            references += x.references.size();
            errors += x.has_syntax_errors ? 1 : 0;
            abandoned += x.parse_abandoned ? 1 : 0;
            benchmark::DoNotOptimize(x);
        }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * files.size()));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
    state.counters["files"] = static_cast<double>(files.size());
    state.counters["MB"] = static_cast<double>(bytes) / 1e6;
    state.counters["symbols"] = static_cast<double>(symbols);
    state.counters["references"] = static_cast<double>(references);
    state.counters["with_errors"] = static_cast<double>(errors);
    state.counters["abandoned"] = static_cast<double>(abandoned);
}
BENCHMARK(BM_ExtractCorpus)->Unit(benchmark::kSecond)->Iterations(2)->UseRealTime();

// The floor under extraction: the Python files parsed by the bare grammar, nothing walked.
void BM_ParsePythonOnly(benchmark::State& state) {
    const auto& files = corpus();
    TSParser* parser = ts_parser_new();
    ts_parser_set_language(parser, tree_sitter_python());
    std::size_t parsed = 0, bytes = 0;
    for (auto _ : state) {
        parsed = bytes = 0;
        for (const auto& f : files) {
            if (f.language != Language::python) continue;
            TSTree* tree = ts_parser_parse_string(parser, nullptr, f.content.data(),
                                                  static_cast<std::uint32_t>(f.content.size()));
            benchmark::DoNotOptimize(tree);
            ts_tree_delete(tree);
            ++parsed;
            bytes += f.content.size();
        }
    }
    ts_parser_delete(parser);
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * parsed));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_ParsePythonOnly)->Unit(benchmark::kSecond)->Iterations(2)->UseRealTime();

// Parsed, then every node visited by a cursor walk, as the language walkers do before they
// look at any node.
void BM_ParseWalkPython(benchmark::State& state) {
    const auto& files = corpus();
    TSParser* parser = ts_parser_new();
    ts_parser_set_language(parser, tree_sitter_python());
    std::size_t nodes = 0;
    for (auto _ : state) {
        nodes = 0;
        for (const auto& f : files) {
            if (f.language != Language::python) continue;
            TSTree* tree = ts_parser_parse_string(parser, nullptr, f.content.data(),
                                                  static_cast<std::uint32_t>(f.content.size()));
            TSTreeCursor cursor = ts_tree_cursor_new(ts_tree_root_node(tree));
            for (;;) {
                ++nodes;
                benchmark::DoNotOptimize(ts_node_symbol(ts_tree_cursor_current_node(&cursor)));
                if (ts_tree_cursor_goto_first_child(&cursor)) continue;
                while (!ts_tree_cursor_goto_next_sibling(&cursor)) {
                    if (!ts_tree_cursor_goto_parent(&cursor)) goto done;
                }
            }
        done:
            ts_tree_cursor_delete(&cursor);
            ts_tree_delete(tree);
        }
    }
    ts_parser_delete(parser);
    state.counters["nodes"] = static_cast<double>(nodes);
}
BENCHMARK(BM_ParseWalkPython)->Unit(benchmark::kSecond)->Iterations(2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
