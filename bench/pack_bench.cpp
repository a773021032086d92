// Time per pack over a fixture index of 10,000 symbols with 25 retriever seeds and snippets on,
// beside a reference measured in the same run: reading the 25 snippet files whole, which the
// pack must do anyway.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "orvane_kestrix/fixture/fixture_repository.hpp"

namespace {

using namespace orvane_kestrix;
namespace fs = std::filesystem;

constexpr int SYMBOLS = 10000;
constexpr int FILES = 500;
constexpr int SEEDS = 25;

struct Corpus {
    Fixture fixture;
    fs::path root;

    Corpus() {
        root = fs::temp_directory_path() / "kestrix-pack-bench";
        fs::create_directories(root / "src");
        for (int f = 0; f < FILES; ++f) {
            fixture.files.push_back(FixtureFile{f + 1, "src/mod" + std::to_string(f) + ".py", false, true});
            std::ofstream out(root / fixture.files.back().path);
            for (int line = 1; line <= 400; ++line) out << "    value_" << line << " = compute(" << line << ")  # line\n";
        }
        for (int i = 0; i < SYMBOLS; ++i) {
            Symbol s;
            s.id = i + 1;
            s.name = "symbol_" + std::to_string(i);
            s.fqn = "pkg.mod" + std::to_string(i % FILES) + "." + s.name;
            s.kind = i % 3 == 0 ? "class" : "function";
            s.file_id = i % FILES + 1;
            s.is_export = true;
            s.start_line = 1 + (i / FILES) * 20;
            s.end_line = s.start_line + 60;
            s.signature = "def " + s.name + "(a, b, c)";
            s.docstring = "Do the thing.\n\nArgs:\n    a: first\n    b (int): second\n    c: third";
            s.stored_token_count = 20;
            fixture.symbols.push_back(std::move(s));
        }
        FixtureRetrieverData retriever;
        for (int i = 0; i < SEEDS; ++i) retriever.hits.push_back(FixtureHit{i * 397 % SYMBOLS + 1, 1.0 - i * 0.01, "function"});
        fixture.retriever = retriever;
        fixture.tokenizer = FixtureTokenizerData{{"symbol_1"}, {"symbol", "thing"}, false};
        fixture.request.task = "Fix symbol_1 when the thing breaks";
        fixture.request.include_snippets = true;
        fixture.request.repo_root = root;
        fixture.request.token_budget = 40000;
    }
    ~Corpus() {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
};

Corpus& corpus() {
    static Corpus instance;
    return instance;
}

void BM_PackWithSnippets(benchmark::State& state) {
    auto& c = corpus();
    for (auto _ : state) {
        CallLog log;
        FailureInjector failures(c.fixture.fail);
        FixtureRepository repository(c.fixture, log, failures);
        FixtureRetriever retriever(c.fixture, log, failures);
        ScriptedTokenizer tokenizer(*c.fixture.tokenizer, log, failures);
        ContextBuilder builder(repository, &retriever, {.list_tests = true, .tokenizer = &tokenizer});
        auto pack = builder.build_context_pack(c.fixture.request);
        benchmark::DoNotOptimize(pack);
        if (pack.symbols.size() != SEEDS) state.SkipWithError("expected every seed in the pack");
    }
}
BENCHMARK(BM_PackWithSnippets)->Unit(benchmark::kMicrosecond);

void BM_ReferenceReadSnippetFiles(benchmark::State& state) {
    auto& c = corpus();
    for (auto _ : state) {
        std::size_t bytes = 0;
        for (int i = 0; i < SEEDS; ++i) {
            const auto& hit = c.fixture.retriever->hits[static_cast<std::size_t>(i)];
            const auto& symbol = c.fixture.symbols[static_cast<std::size_t>(*hit.id - 1)];
            std::ifstream in(c.root / c.fixture.files[static_cast<std::size_t>(*symbol.file_id - 1)].path, std::ios::binary);
            std::ostringstream buffer;
            buffer << in.rdbuf();
            bytes += buffer.str().size();
        }
        benchmark::DoNotOptimize(bytes);
    }
}
BENCHMARK(BM_ReferenceReadSnippetFiles)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
