// kestrix context TASK: prints the context pack of a task as JSON, indexing the repository
// first when it has no index yet.

#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>

#include <fmt/format.h>

#include "command.hpp"
#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/storage/sqlite_repository.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"
#include "orvane_kestrix/workers/context_builder/constants.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace orvane_kestrix::app {

namespace {

namespace fs = std::filesystem;

struct ContextArguments {
    std::string task;
    std::string repo = ".";
    std::string db;
    std::int64_t budget = 800;
    std::string component;
    bool has_component = false;
    bool snippets = false;
    std::vector<std::string> prefer_kinds;
    bool all_files = false;
    bool wide = false;
    std::vector<std::string> deep;
    bool list_tests = false;
    bool pretty = false;
};

// Whether `db` holds a completed index; a file left by an interrupted first run has no
// completion time and is indexed again (the builder resumes where it stopped).
bool index_complete(const fs::path& db) {
    std::error_code error;
    if (!fs::exists(db, error)) return false;
    storage::Database database = storage::open_index(db, {.read_only = true});
    return storage::read_meta(database, storage::meta_key::indexed_at).has_value();
}

void build_index(const fs::path& repo, const fs::path& db) {
    std::cerr << "kestrix: indexing " << repo.string() << " into " << db.string() << '\n';
    indexer::IndexOptions options;
    options.repo = repo;
    options.db = db;
    const bool tty = isatty(STDERR_FILENO) != 0;
    if (tty) {
        options.on_progress = [](const indexer::IndexProgress& progress) {
            if (progress.total == 0) return;
            std::cerr << fmt::format("\r{} {}/{}\033[K", progress.phase, progress.done, progress.total) << std::flush;
        };
    }
    const indexer::IndexStats stats = indexer::IndexBuilder(options).run();
    if (tty) std::cerr << "\r\033[K";
    std::cerr << "kestrix: " << stats.summary() << '\n';
}

int run_context(const ContextArguments& arguments) {
    std::error_code error;
    if (!fs::is_directory(arguments.repo, error)) {
        std::cerr << "kestrix context: " << arguments.repo << ": not a directory\n";
        return 2;
    }
    const fs::path repo = arguments.repo;
    const fs::path db = arguments.db.empty() ? indexer::default_index_path(repo) : fs::path(arguments.db);
    install_stderr_log_sink(false);
    try {
        if (!index_complete(db)) build_index(repo, db);
        SqliteRepository repository(db);
        ContextBuilder builder(repository, nullptr, {.list_tests = arguments.list_tests});

        PackRequest request;
        request.task = arguments.task;
        request.token_budget = arguments.budget;
        if (arguments.has_component) request.component_filter = arguments.component;
        request.include_snippets = arguments.snippets;
        if (arguments.snippets) request.repo_root = repo;
        if (!arguments.prefer_kinds.empty()) request.prefer_kinds = arguments.prefer_kinds;
        request.source_only = !arguments.all_files;
        request.wide_match = arguments.wide;
        if (!arguments.deep.empty()) request.deep_fqns = std::set<std::string>(arguments.deep.begin(), arguments.deep.end());

        const ContextPack pack = builder.build_context_pack(request);
        std::cout << pack.to_dict().dump(arguments.pretty ? 2 : -1, ' ', false, nlohmann::json::error_handler_t::replace)
                  << '\n';
        return 0;
    } catch (const std::invalid_argument& e) {
        // The builder's own error: an unknown component, reported as it is worded.
        std::cerr << e.what() << '\n';
        return 1;
    } catch (const std::exception& e) {
        std::cerr << "kestrix context: " << one_line(e.what()) << '\n';
        return 1;
    }
}

const CommandRegistrar registrar([](CLI::App& app, int& exit_code) {
    auto* command = app.add_subcommand("context", "Print the context pack of a coding task as JSON");
    auto arguments = std::make_shared<ContextArguments>();
    command->add_option("TASK", arguments->task, "the coding task, in plain words")->required();
    command->add_option("--repo", arguments->repo, "the repository's root directory")->capture_default_str();
    command->add_option("--db", arguments->db, "the index file (default: REPO/.kestrix/index.db)");
    command->add_option("--budget", arguments->budget, "the tokens the pack should spend (0 to 1000000)")
        ->capture_default_str()
        ->check(CLI::Range(std::int64_t{0}, MAX_TOKEN_BUDGET));
    command->add_option("--component", arguments->component, "keep to the files of this component");
    command->add_flag("--snippets", arguments->snippets, "give the packed symbols code snippets");
    command->add_option("--prefer-kinds", arguments->prefer_kinds, "symbol kinds to favour, comma-separated")
        ->delimiter(',');
    command->add_flag("--all-files", arguments->all_files, "search documentation and data files too");
    command->add_flag("--wide", arguments->wide, "match the task's words anywhere in symbol names");
    command->add_option("--deep", arguments->deep, "a symbol (fully qualified name) whose snippet may run longer; repeatable")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    command->add_flag("--list-tests", arguments->list_tests, "list the tests that cover the pack's files");
    command->add_flag("--pretty", arguments->pretty, "indent the JSON");
    command->callback([arguments, command, &exit_code] {
        arguments->has_component = command->count("--component") > 0;
        exit_code = run_context(*arguments);
    });
});

}  // namespace

}  // namespace orvane_kestrix::app
