// kestrix index: builds or refreshes the repository's index and prints a one-line summary.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <optional>

#include <fmt/format.h>

#include "command.hpp"
#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/postgres/index_publisher.hpp"
#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "orvane_kestrix/storage/index_writer_lock.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix::app {

namespace {

std::atomic<bool> interrupted{false};

// The largest --max-file-size: files are read whole into memory, and no source file worth
// parsing is larger.
constexpr std::uint64_t kMaxFileSizeLimit = std::uint64_t{1} << 30;

void on_interrupt(int) { interrupted.store(true); }

struct IndexArguments {
    std::string repo = ".";
    std::string db;
    bool rebuild = false;
    unsigned jobs = 0;
    std::uint64_t max_file_size = 2 * 1024 * 1024;
    bool timings = false;
    bool no_retriever = false;
    bool no_wait = false;
    bool include_generated = false;
    std::string name;     // the repository's name on an index server
    std::string staging;  // the local index published to the server
};

// The exit code of a run that found another run updating the index (EX_TEMPFAIL: try again).
constexpr int kIndexBusyExit = 75;

// Redraws one status line on standard error, at most ten times a second.
class ProgressBar {
public:
    void update(const indexer::IndexProgress& progress) {
        const auto now = std::chrono::steady_clock::now();
        const bool last = progress.total > 0 && progress.done == progress.total;
        if (!last && now - drawn_ < std::chrono::milliseconds(100)) return;
        drawn_ = now;
        constexpr int kWidth = 30;
        std::string line;
        if (progress.total > 0) {
            const int filled = static_cast<int>(kWidth * progress.done / progress.total);
            line = fmt::format("\r[{}{}] {}/{} {}", std::string(static_cast<std::size_t>(filled), '#'),
                               std::string(static_cast<std::size_t>(kWidth - filled), ' '), progress.done, progress.total,
                               progress.phase);
        } else {
            line = fmt::format("\r{}...", progress.phase);
        }
        std::cerr << line << "\033[K" << std::flush;
        shown_ = true;
    }

    void clear() {
        if (shown_) std::cerr << "\r\033[K" << std::flush;
        shown_ = false;
    }

private:
    std::chrono::steady_clock::time_point drawn_{};
    bool shown_ = false;
};

int run_index(const IndexArguments& arguments) {
    std::error_code error;
    if (!std::filesystem::is_directory(arguments.repo, error)) {
        std::cerr << "kestrix index: " << arguments.repo << ": not a directory\n";
        return 2;
    }
    const bool on_server = postgres::is_postgres_url(arguments.db);
    if (on_server && arguments.name.empty()) {
        std::cerr << "kestrix index: --db " << postgres::redacted_url(arguments.db)
                  << " needs --name, the repository's name on the server (such as ORG/REPO)\n";
        return 2;
    }
    if (!on_server && (!arguments.name.empty() || !arguments.staging.empty())) {
        std::cerr << "kestrix index: --name and --staging are for an index on a server (--db postgresql://...)\n";
        return 2;
    }
    indexer::IndexOptions options;
    options.repo = arguments.repo;
    if (on_server) {
        if (!arguments.staging.empty()) options.db = arguments.staging;
    } else if (!arguments.db.empty()) {
        options.db = arguments.db;
    }
    options.rebuild = arguments.rebuild;
    options.jobs = arguments.jobs;
    options.max_file_size = arguments.max_file_size;
    options.include_generated = arguments.include_generated;
    options.cancel = &interrupted;
    options.wait_for_writer = !arguments.no_wait;
    options.on_lock_wait = [](pid_t holder) {
        std::cerr << "kestrix index: waiting for another index run (pid " << holder << ") to finish\n";
    };
    // The server keeps no retriever tables yet, so its staging index does not either.
    if (!arguments.no_retriever && !on_server) options = retrieval::index_options_with_retrieval(std::move(options));

    ProgressBar bar;
    if (isatty(STDERR_FILENO) != 0) {
        options.on_progress = [&bar](const indexer::IndexProgress& progress) { bar.update(progress); };
    }

    interrupted.store(false);
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigemptyset(&action.sa_mask);
    struct sigaction previous_int {};
    struct sigaction previous_term {};
    sigaction(SIGINT, &action, &previous_int);
    sigaction(SIGTERM, &action, &previous_term);
    struct Restore {
        struct sigaction& int_action;
        struct sigaction& term_action;
        ~Restore() {
            sigaction(SIGINT, &int_action, nullptr);
            sigaction(SIGTERM, &term_action, nullptr);
        }
    } restore{previous_int, previous_term};

    try {
        indexer::IndexStats stats;
        std::optional<postgres::PublishStats> published;
        if (on_server) {
            postgres::ServerIndexStats server = postgres::index_to_server(options, arguments.db, arguments.name);
            stats = std::move(server.index);
            if (!stats.cancelled) published = server.publish;
        } else {
            stats = indexer::IndexBuilder(options).run();
        }
        bar.clear();
        std::cout << stats.summary() << std::endl;
        if (published) {
            std::cout << fmt::format("published {} to {} ({} rows, {:.2f} s)", arguments.name,
                                     postgres::redacted_url(arguments.db), published->rows, published->seconds)
                      << std::endl;
        }
        if (arguments.timings) {
            std::string line = "timings:";
            for (const auto& [phase, seconds] : stats.timings) line += fmt::format(" {} {:.3f} s", phase, seconds);
            std::cerr << line << '\n';
        }
        return stats.cancelled ? 130 : 0;
    } catch (const storage::IndexBusyError& e) {
        bar.clear();
        std::cerr << "kestrix index: " << e.what() << '\n';
        return kIndexBusyExit;
    } catch (const storage::IndexFileError& e) {
        bar.clear();
        std::cerr << "kestrix index: " << e.what() << '\n';
        return 1;
    } catch (const std::exception& e) {
        bar.clear();
        std::cerr << "kestrix index: " << e.what() << '\n';
        return 1;
    }
}

const CommandRegistrar registrar([](CLI::App& app, int& exit_code) {
    auto* command = app.add_subcommand("index", "Build or refresh the index of a repository");
    auto arguments = std::make_shared<IndexArguments>();
    command->add_option("--repo", arguments->repo, "the repository's root directory")->capture_default_str();
    command->add_option("--db", arguments->db,
                        "the index file (default: REPO/.kestrix/index.db), or a postgresql:// URL: the index on a server");
    command->add_option("--name", arguments->name, "with a postgresql:// --db: the repository's name there (ORG/REPO)");
    command->add_option("--staging", arguments->staging,
                        "with a postgresql:// --db: the local index file published to the server "
                        "(default: under $XDG_CACHE_HOME/kestrix)");
    command->add_flag("--rebuild", arguments->rebuild,
                      "index from scratch, then replace the index file (on a server: also rewrite a repository of "
                      "another schema version)");
    command->add_option("--jobs", arguments->jobs, "parser threads (default: one per core; at most 256)")
        ->check(CLI::Range(0u, 256u));
    command->add_option("--max-file-size", arguments->max_file_size,
                        "skip files larger than this many bytes (1 to 1073741824)")
        ->capture_default_str()
        ->check(CLI::Range(std::uint64_t{1}, kMaxFileSizeLimit));
    command->add_flag("--no-wait", arguments->no_wait,
                      "when another index run is updating this index, exit at once (code 75) instead of waiting");
    command->add_flag("--include-generated", arguments->include_generated,
                      "index minified and generated files too (skipped by default)");
    command->add_flag("--timings", arguments->timings, "print the seconds of each phase on standard error");
    command->add_flag("--no-retriever", arguments->no_retriever,
                      "leave the retriever's tables as they are (for comparing index times)");
    command->callback([arguments, &exit_code] { exit_code = run_index(*arguments); });
});

}  // namespace

}  // namespace orvane_kestrix::app
