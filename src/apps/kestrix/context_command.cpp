// kestrix context TASK: prints the context pack of a task as JSON, indexing the repository
// first when it has no index yet.

#include <unistd.h>

#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "command.hpp"
#include "orvane_kestrix/postgres/connection.hpp"
#include "orvane_kestrix/service/workspace.hpp"
#include "service_failure.hpp"
#include "orvane_kestrix/workers/context_builder/constants.hpp"

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
    bool no_retriever = false;
    std::string name;  // the repository's name on an index server
};

void print_indexing_start(const fs::path& repo, const fs::path& db) {
    std::cerr << "kestrix: indexing " << repo.string() << " into " << db.string() << '\n';
}

// The request the arguments describe; the repository root for snippets comes from the service.
PackRequest pack_request(const ContextArguments& arguments) {
    PackRequest request;
    request.task = arguments.task;
    request.token_budget = arguments.budget;
    if (arguments.has_component) request.component_filter = arguments.component;
    request.include_snippets = arguments.snippets;
    if (!arguments.prefer_kinds.empty()) request.prefer_kinds = arguments.prefer_kinds;
    request.source_only = !arguments.all_files;
    request.wide_match = arguments.wide;
    if (!arguments.deep.empty()) request.deep_fqns = std::set<std::string>(arguments.deep.begin(), arguments.deep.end());
    return request;
}

int run_context(const ContextArguments& arguments) {
    try {
        service::WorkspaceOptions options;
        options.repo = arguments.repo;
        if (postgres::is_postgres_url(arguments.db)) {
            options.server_url = arguments.db;
            options.repository_name = arguments.name;
        } else if (!arguments.db.empty()) {
            options.db = fs::path(arguments.db);
        }
        options.list_tests = arguments.list_tests;
        options.use_retriever = !arguments.no_retriever;
        service::Workspace workspace(options);
        install_stderr_log_sink(false);
        // A server's repositories are written by `kestrix index`, not by their readers.
        if (!workspace.on_server() && !workspace.has_complete_index()) {
            print_indexing_start(workspace.repo(), workspace.index_path());
            const bool tty = isatty(STDERR_FILENO) != 0;
            std::function<void(const indexer::IndexProgress&)> on_progress;
            if (tty) {
                on_progress = [](const indexer::IndexProgress& progress) {
                    if (progress.total == 0) return;
                    std::cerr << fmt::format("\r{} {}/{}\033[K", progress.phase, progress.done, progress.total)
                              << std::flush;
                };
            }
            const indexer::IndexStats stats = workspace.refresh(
                {.on_progress = on_progress, .on_wait = [](pid_t holder) {
                     std::cerr << "kestrix: waiting for another index run (pid " << holder << ") to finish\n";
                 }});
            if (tty) std::cerr << "\r\033[K";
            std::cerr << "kestrix: " << stats.summary() << '\n';
        }
        const ContextPack pack = workspace.pack(pack_request(arguments));
        std::cout << pack.to_dict().dump(arguments.pretty ? 2 : -1, ' ', false, nlohmann::json::error_handler_t::replace)
                  << '\n';
        return 0;
    } catch (const std::exception& e) {
        return report_failure("kestrix context", e);
    }
}

const CommandRegistrar registrar([](CLI::App& app, int& exit_code) {
    auto* command = app.add_subcommand("context", "Print the context pack of a coding task as JSON");
    auto arguments = std::make_shared<ContextArguments>();
    command->add_option("TASK", arguments->task, "the coding task, in plain words")->required();
    command->add_option("--repo", arguments->repo, "the repository's root directory")->capture_default_str();
    command->add_option("--db", arguments->db,
                        "the index file (default: REPO/.kestrix/index.db), or a postgresql:// URL: the index on a server");
    command->add_option("--name", arguments->name, "with a postgresql:// --db: the repository's name there (ORG/REPO)");
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
    command->add_flag("--no-retriever", arguments->no_retriever,
                      "seed the pack with keyword matches only, without the retriever's ranking");
    command->callback([arguments, command, &exit_code] {
        arguments->has_component = command->count("--component") > 0;
        exit_code = run_context(*arguments);
    });
});

}  // namespace

}  // namespace orvane_kestrix::app
