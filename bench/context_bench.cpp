// Time per context pack over an index of this machine's Python standard library, for many
// varied tasks, keyword packs and retriever packs, beside `grep -rlw` for each task's first
// keyword over the same tree in the same run; then the retriever's time for a 100 KB task.
//
//   context_bench [--stdlib DIR] [--db PATH] [--tasks N] [--repeat R] [--profile] [--retriever-only]
//
// Without --db the library is indexed into a temporary file first (and the file is removed at
// the end); with --db an existing index there is reused, or made there. Tasks are generated
// from the index's own symbol names (functions, classes, methods) and from common programming
// words, with a fixed seed so that runs compare. Each mode runs every task once to warm the
// caches, then R times; a task's time is the median of its R runs. Printed per mode: median,
// 95th percentile and mean milliseconds per pack, and the grep median beside it with the ratio.
// --profile also prints, per mode, the milliseconds per pack spent in each index operation.
// --retriever-only times retriever packs alone, without grep (for trees where grep per task
// takes minutes); --stdlib then names any indexed tree.

#include <stdlib.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <type_traits>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "orvane_kestrix/retrieval/sqlite_hybrid_retriever.hpp"
#include "orvane_kestrix/storage/sqlite_repository.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"
#include "orvane_kestrix/workers/context_builder/keywords.hpp"
#include "stdlib_tasks.hpp"

namespace {

using namespace orvane_kestrix;
using namespace orvane_kestrix::bench;
namespace fs = std::filesystem;

struct Options {
    fs::path stdlib;
    fs::path db;
    std::size_t tasks = 120;
    int repeat = 3;
    bool profile = false;
    bool retriever_only = false;
};

std::string shell_quote(const std::string& text) {
    std::string out = "'";
    for (const char c : text) {
        if (c == '\'') {
            out += "'\\''";
        } else {
            out.push_back(c);
        }
    }
    return out + "'";
}

// Forwards to the SQLite index and adds up the time spent in each operation (--profile).
class TimedRepository final : public Repository {
public:
    explicit TimedRepository(Repository& inner) : inner_(inner) {}

    std::map<std::string, std::pair<double, std::int64_t>> totals;  // operation -> (ms, calls)

    std::optional<Component> get_component_by_name(const std::string& name) override {
        return timed("get_component_by_name", [&] { return inner_.get_component_by_name(name); });
    }
    std::vector<FileRecord> get_files_by_component(std::int64_t id) override {
        return timed("get_files_by_component", [&] { return inner_.get_files_by_component(id); });
    }
    SymbolSearchResult search_symbols(const std::string& pattern, std::int64_t limit, bool source_only) override {
        return timed("search_symbols", [&] { return inner_.search_symbols(pattern, limit, source_only); });
    }
    SymbolPathMap get_file_paths_batch(const std::vector<Symbol>& symbols) override {
        return timed("get_file_paths_batch", [&] { return inner_.get_file_paths_batch(symbols); });
    }
    FanInMap production_fan_in(const std::vector<std::int64_t>& ids) override {
        return timed("production_fan_in", [&] { return inner_.production_fan_in(ids); });
    }
    std::unordered_set<std::string> test_paths(const std::vector<std::string>& paths) override {
        return timed("test_paths", [&] { return inner_.test_paths(paths); });
    }
    std::unordered_map<std::int64_t, SymbolWithPath> symbols_with_paths(
        const std::vector<std::optional<std::int64_t>>& ids) override {
        return timed("symbols_with_paths", [&] { return inner_.symbols_with_paths(ids); });
    }
    std::vector<CoveringTest> find_covering_tests(const std::vector<std::string>& paths) override {
        return timed("find_covering_tests", [&] { return inner_.find_covering_tests(paths); });
    }
    std::vector<Symbol> get_symbols_by_file(std::int64_t id) override {
        return timed("get_symbols_by_file", [&] { return inner_.get_symbols_by_file(id); });
    }
    ReferencesResult get_references(const std::string& fqn) override {
        return timed("get_references", [&] { return inner_.get_references(fqn); });
    }
    std::optional<Symbol> get_symbol_by_fqn(const std::string& fqn) override {
        return timed("get_symbol_by_fqn", [&] { return inner_.get_symbol_by_fqn(fqn); });
    }

private:
    template <typename F>
    std::invoke_result_t<F&> timed(const char* name, F&& f) {
        const auto start = Clock::now();
        auto result = f();
        auto& [ms, calls] = totals[name];
        ms += ms_since(start);
        ++calls;
        return result;
    }

    Repository& inner_;
};

struct Mode {
    std::string label;
    bool wide = false;
    bool snippets = false;
    bool retriever = false;
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                std::cerr << arg << " needs a value\n";
                std::exit(2);
            }
            return argv[++i];
        };
        if (arg == "--stdlib") {
            options.stdlib = value();
        } else if (arg == "--db") {
            options.db = value();
        } else if (arg == "--tasks") {
            options.tasks = std::stoul(value());
        } else if (arg == "--profile") {
            options.profile = true;
        } else if (arg == "--retriever-only") {
            options.retriever_only = true;
        } else if (arg == "--repeat") {
            options.repeat = std::max(1, std::stoi(value()));
        } else {
            std::cerr << "usage: context_bench [--stdlib DIR] [--db PATH] [--tasks N] [--repeat R] [--profile] "
                         "[--retriever-only]\n";
            return 2;
        }
    }
    if (options.stdlib.empty()) options.stdlib = python_stdlib();
    if (options.stdlib.empty() || !fs::is_directory(options.stdlib)) {
        std::cerr << "context_bench: no Python standard library found (pass --stdlib DIR)\n";
        return 2;
    }

    fs::path temp_dir;
    if (options.db.empty()) {
        char pattern[] = "/tmp/kestrix-context-bench-XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            std::cerr << "context_bench: cannot make a temporary directory\n";
            return 1;
        }
        temp_dir = pattern;
        options.db = temp_dir / "index.db";
    }

    int status = 0;
    try {
        std::cout << "standard library: " << options.stdlib.string() << '\n';
        if (!fs::exists(options.db)) {
            indexer::IndexOptions index;
            index.repo = options.stdlib;
            index.db = options.db;
            index.use_git = false;  // the library may sit in an ignored corner of a work tree
            const auto stats = indexer::IndexBuilder(retrieval::index_options_with_retrieval(index)).run();
            std::cout << "index: " << stats.summary() << '\n';
        } else {
            std::cout << "index: reusing " << options.db.string() << '\n';
        }

        SqliteRepository repository(options.db);
        const auto names = symbol_names(repository);
        const auto tasks = make_tasks(names, options.tasks);
        std::cout << fmt::format("tasks: {} (from {} distinct symbol names and common words), {} runs each\n",
                                 tasks.size(), names.size(), options.repeat);

        // grep for each task's first keyword, over the files the indexer reads.
        std::vector<double> grep_ms;
        Tokenizer& tokenizer = default_tokenizer();
        for (const auto& task : tasks) {
            if (options.retriever_only) break;
            const auto keywords = task_keywords(task, tokenizer);
            if (keywords.empty()) continue;
            const std::string command = "grep -rlw --exclude-dir=site-packages --exclude-dir=__pycache__ -- " +
                                        shell_quote(keywords.front()) + " " + shell_quote(options.stdlib.string()) +
                                        " >/dev/null";
            const auto start = Clock::now();
            if (std::system(command.c_str()) == -1) throw std::runtime_error("cannot run grep");
            grep_ms.push_back(ms_since(start));
        }
        const Summary grep = summarise(grep_ms);

        std::vector<Mode> modes = {
            {"exact", false, false},
            {"wide", true, false},
            {"exact + snippets", false, true},
            {"wide + snippets", true, true},
            {"retriever", false, false, true},
            {"retriever + snip", false, true, true},
        };
        if (options.retriever_only) std::erase_if(modes, [](const Mode& mode) { return !mode.retriever || mode.snippets; });
        retrieval::SqliteHybridRetriever retriever(repository.database(), options.stdlib);
        std::cout << fmt::format("{:<18} {:>10} {:>10} {:>10} {:>12} {:>10} {:>10}\n", "mode", "median ms", "p95 ms",
                                 "mean ms", "symbols/pack", "grep med", "grep/pack");
        for (const auto& mode : modes) {
            TimedRepository timed(repository);
            Repository& index = options.profile ? static_cast<Repository&>(timed) : repository;
            ContextBuilder builder(index, mode.retriever ? &retriever : nullptr, {.list_tests = true});
            const auto build = [&](const std::string& task) {
                PackRequest request;
                request.task = task;
                request.wide_match = mode.wide;
                request.include_snippets = mode.snippets;
                if (mode.snippets) request.repo_root = options.stdlib;
                return builder.build_context_pack(request);
            };
            for (const auto& task : tasks) build(task);  // warm the caches
            std::vector<double> per_task;
            std::size_t symbols = 0;
            for (const auto& task : tasks) {
                std::vector<double> runs;
                for (int r = 0; r < options.repeat; ++r) {
                    const auto start = Clock::now();
                    const ContextPack pack = build(task);
                    runs.push_back(ms_since(start));
                    if (r == 0) symbols += pack.symbols.size();
                }
                std::sort(runs.begin(), runs.end());
                per_task.push_back(runs[runs.size() / 2]);
            }
            const Summary s = summarise(per_task);
            std::cout << fmt::format("{:<18} {:>10.3f} {:>10.3f} {:>10.3f} {:>12.1f} {:>10.1f} {:>9.0f}x\n", mode.label,
                                     s.median, s.p95, s.mean,
                                     static_cast<double>(symbols) / static_cast<double>(tasks.size()), grep.median,
                                     grep.median / s.median);
            if (options.profile) {
                // The warm-up pass is counted too: divide by every pack built.
                const double packs = static_cast<double>(tasks.size()) * (options.repeat + 1);
                for (const auto& [name, total] : timed.totals) {
                    std::cout << fmt::format("    {:<24} {:>8.3f} ms/pack {:>7.2f} calls/pack\n", name, total.first / packs,
                                             static_cast<double>(total.second) / packs);
                }
            }
        }
        if (!grep_ms.empty()) std::cout << fmt::format("grep -rlw (first keyword): median {:.1f} ms, p95 {:.1f} ms over {} tasks\n", grep.median,
                                 grep.p95, grep_ms.size());

        // A pasted log of about 100 KB as the task: the retriever bounds its work per task.
        std::string log = "The nightly job fails after the upgrade; the log:\n";
        for (int line = 0; log.size() < 100'000; ++line) {
            log += fmt::format("2024-06-11 02:{:02}:{:02} INFO worker-{} fetched {} rows from {} in {} ms\n", line / 60 % 60,
                               line % 60, line % 7, line * 37 % 1000, names.empty() ? "table" : names[line % names.size()],
                               line % 97);
        }
        ContextBuilder log_builder(repository, &retriever);
        std::vector<double> log_ms;
        for (int r = 0; r < std::max(3, options.repeat); ++r) {
            const auto start = Clock::now();
            log_builder.build_context_pack({.task = log});
            log_ms.push_back(ms_since(start));
        }
        std::sort(log_ms.begin(), log_ms.end());
        std::cout << fmt::format("retriever, a {} KB pasted log as the task: median {:.1f} ms over {} runs (target < 200 ms)\n",
                                 log.size() / 1000, log_ms[log_ms.size() / 2], log_ms.size());
    } catch (const std::exception& e) {
        std::cerr << "context_bench: " << e.what() << '\n';
        status = 1;
    }
    if (!temp_dir.empty()) {
        std::error_code error;
        fs::remove_all(temp_dir, error);
    }
    return status;
}
