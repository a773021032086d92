// The index backends side by side over this machine's Python standard library: the library
// indexed into a SQLite file and published to a PostgreSQL database, then the same tasks
// packed from both (without the retriever, which the server does not carry yet).
//
//   backends_bench [--stdlib DIR] [--tasks N] [--readers R] [--seconds S] [--url URL]
//
// Prints the index and publish times; pack latency on each backend (median, 95th percentile)
// with whether each pair of packs is byte-identical; and packs per second with one reader and
// with R readers at once (each its own Workspace, so its own connection or file handle) for S
// seconds each, with the errors met. Without --url, a throwaway server is started on a Unix
// socket (the tests' helper, Debian's postgresql package) and removed at the end.

#include <atomic>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "../tests/support/postgres_server.hpp"
#include "../tests/support/scratch_dir.hpp"
#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/postgres/index_publisher.hpp"
#include "orvane_kestrix/service/workspace.hpp"
#include "stdlib_tasks.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix;
using bench::Clock;
using bench::ms_since;

constexpr const char* kName = "bench/stdlib";

struct Backend {
    std::string label;
    service::WorkspaceOptions options;
};

struct Throughput {
    double packs_per_second = 0;
    std::int64_t errors = 0;
};

// `readers` threads, each with a Workspace of its own, packing the tasks in turn for `seconds`.
Throughput measure(const Backend& backend, const std::vector<std::string>& tasks, int readers, double seconds) {
    std::atomic<std::int64_t> packs{0};
    std::atomic<std::int64_t> errors{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int r = 0; r < readers; ++r) {
        threads.emplace_back([&, r] {
            service::Workspace workspace(backend.options);
            for (std::size_t i = static_cast<std::size_t>(r) * 7; !stop.load(); ++i) {
                try {
                    workspace.pack({.task = tasks[i % tasks.size()]});
                    packs.fetch_add(1);
                } catch (const std::exception& e) {
                    if (errors.fetch_add(1) == 0) std::cerr << backend.label << ": " << e.what() << '\n';
                }
            }
        });
    }
    const auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop.store(true);
    for (auto& t : threads) t.join();
    const double elapsed = ms_since(start) / 1000.0;
    return {static_cast<double>(packs.load()) / elapsed, errors.load()};
}

}  // namespace

int main(int argc, char** argv) {
    std::string stdlib = bench::python_stdlib();
    std::size_t task_count = 100;
    int readers = 8;
    double seconds = 5;
    std::string url;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 < argc && arg == "--stdlib") {
            stdlib = argv[++i];
        } else if (i + 1 < argc && arg == "--tasks") {
            task_count = std::stoul(argv[++i]);
        } else if (i + 1 < argc && arg == "--readers") {
            readers = std::stoi(argv[++i]);
        } else if (i + 1 < argc && arg == "--seconds") {
            seconds = std::stod(argv[++i]);
        } else if (i + 1 < argc && arg == "--url") {
            url = argv[++i];
        } else {
            std::cerr << "usage: backends_bench [--stdlib DIR] [--tasks N] [--readers R] [--seconds S] [--url URL]\n";
            return 2;
        }
    }
    if (stdlib.empty() || !fs::is_directory(stdlib)) {
        std::cerr << "backends_bench: no Python standard library found (pass --stdlib DIR)\n";
        return 2;
    }
    try {
        kestrix_test::ScratchDir scratch("backends-bench");
        if (url.empty()) url = kestrix_test::PostgresServer::shared().create_database("bench");
        const fs::path index = scratch.path() / "stdlib.db";

        indexer::IndexOptions options;
        options.repo = stdlib;
        options.db = index;
        auto start = Clock::now();
        const indexer::IndexStats stats = indexer::IndexBuilder(options).run();
        const double index_seconds = ms_since(start) / 1000.0;
        std::cout << fmt::format("{} ({})\n", stdlib, stats.summary());
        std::cout << fmt::format("index into SQLite:        {:8.2f} s\n", index_seconds);
        postgres::Connection writer(url);
        const postgres::PublishStats published = postgres::publish_index(index, writer, kName);
        std::cout << fmt::format("publish to PostgreSQL:    {:8.2f} s ({} rows)\n", published.seconds, published.rows);
        start = Clock::now();
        postgres::publish_index(index, writer, kName);
        std::cout << fmt::format("publish again (replace):  {:8.2f} s\n", ms_since(start) / 1000.0);

        std::vector<std::string> tasks;
        {
            SqliteRepository repository(index);
            tasks = bench::make_tasks(bench::symbol_names(repository), task_count);
        }
        const std::vector<Backend> backends = {
            {"SQLite", {.repo = stdlib, .db = index, .use_retriever = false}},
            {"PostgreSQL", {.repo = stdlib, .use_retriever = false, .server_url = url, .repository_name = kName}},
        };

        // Latency, one reader, and whether the two backends' packs are the same bytes.
        std::vector<std::vector<double>> latency(backends.size());
        std::vector<std::string> first_packs;
        std::size_t identical = 0;
        std::optional<std::string> first_difference;
        {
            std::vector<std::unique_ptr<service::Workspace>> workspaces;
            for (const auto& b : backends) workspaces.push_back(std::make_unique<service::Workspace>(b.options));
            // One untimed pass first: connections, prepared statements, both page caches.
            for (auto& w : workspaces) {
                for (const auto& task : tasks) w->pack({.task = task});
            }
            for (const auto& task : tasks) {
                std::vector<std::string> packs;
                for (std::size_t b = 0; b < backends.size(); ++b) {
                    const auto t = Clock::now();
                    packs.push_back(workspaces[b]->pack({.task = task}).to_dict().dump());
                    latency[b].push_back(ms_since(t));
                }
                if (packs[0] == packs[1]) {
                    ++identical;
                } else if (!first_difference) {
                    first_difference = task;
                }
            }
        }
        std::cout << fmt::format("\npack latency over {} tasks (--no-retriever), ms:\n", tasks.size());
        for (std::size_t b = 0; b < backends.size(); ++b) {
            const bench::Summary s = bench::summarise(latency[b]);
            std::cout << fmt::format("  {:<11} median {:7.2f}  p95 {:7.2f}  mean {:7.2f}\n", backends[b].label, s.median,
                                     s.p95, s.mean);
        }
        const double ratio = bench::summarise(latency[1]).median / bench::summarise(latency[0]).median;
        std::cout << fmt::format("  PostgreSQL / SQLite at the median: {:.2f}x\n", ratio);
        std::cout << fmt::format("byte-identical packs: {} of {}{}\n", identical, tasks.size(),
                                 first_difference ? " (first difference: \"" + *first_difference + "\")" : "");

        std::cout << fmt::format("\npacks per second ({} s each):\n", seconds);
        for (const auto& backend : backends) {
            const Throughput one = measure(backend, tasks, 1, seconds);
            const Throughput many = measure(backend, tasks, readers, seconds);
            std::cout << fmt::format("  {:<11} 1 reader {:7.1f}   {} readers {:7.1f}   ({:.2f}x, errors {})\n", backend.label,
                                     one.packs_per_second, readers, many.packs_per_second,
                                     many.packs_per_second / one.packs_per_second, one.errors + many.errors);
        }
        return identical == tasks.size() ? 0 : 1;
    } catch (const std::exception& e) {
        std::cerr << "backends_bench: " << e.what() << '\n';
        return 1;
    }
}
