// kestrix mcp: the Model Context Protocol server, on standard input and output or, with
// --http, on Streamable HTTP. The index follows the working tree in the background.

#include <csignal>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

#include "command.hpp"
#include "orvane_kestrix/mcp/http_transport.hpp"
#include "orvane_kestrix/mcp/index_follower.hpp"
#include "orvane_kestrix/mcp/server.hpp"
#include "orvane_kestrix/mcp/stdio_transport.hpp"
#include "orvane_kestrix/postgres/connection.hpp"
#include "orvane_kestrix/service/workspace.hpp"
#include "service_failure.hpp"

namespace orvane_kestrix::app {

namespace {

struct McpArguments {
    std::string repo = ".";
    std::string db;
    std::string http;
    bool list_tests = false;
    bool no_follow = false;
    bool include_generated = false;
    std::string name;  // the repository's name on an index server
};

// Log lines go to standard error: standard output carries protocol messages only.
void log_line(const std::string& line) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    std::cerr << "kestrix mcp: " << one_line(line) << '\n';
}

int run_mcp(const McpArguments& arguments) {
    try {
        service::WorkspaceOptions options;
        options.repo = arguments.repo;
        if (postgres::is_postgres_url(arguments.db)) {
            options.server_url = arguments.db;
            options.repository_name = arguments.name;
        } else if (!arguments.db.empty()) {
            options.db = std::filesystem::path(arguments.db);
        }
        options.list_tests = arguments.list_tests;
        options.include_generated = arguments.include_generated;
        service::Workspace workspace(options);
        install_stderr_log_sink(false);
        std::optional<mcp::HttpEndpoint> endpoint;
        if (!arguments.http.empty()) endpoint = mcp::parse_http_endpoint(arguments.http);

        mcp::McpServer server(workspace, {.name = "kestrix", .version = KESTRIX_VERSION});
        mcp::FollowOptions follow;
        follow.log = log_line;
        mcp::IndexFollower follower(workspace, follow);
        // A server's repositories are written by `kestrix index` on the machine that builds them.
        if (!arguments.no_follow && !workspace.on_server()) follower.start();
        if (endpoint) {
            mcp::serve_http(server, *endpoint, log_line);
        } else {
            std::ios::sync_with_stdio(false);
            mcp::serve_stdio(server, std::cin, std::cout);
        }
        follower.stop();
        return 0;
    } catch (const std::exception& e) {
        return report_failure("kestrix mcp", e);
    }
}

const CommandRegistrar registrar([](CLI::App& app, int& exit_code) {
    auto* command = app.add_subcommand("mcp", "Serve the context tool to coding agents over the Model Context Protocol");
    auto arguments = std::make_shared<McpArguments>();
    command->add_option("--repo", arguments->repo, "the repository's root directory")->capture_default_str();
    command->add_option("--db", arguments->db,
                        "the index file (default: REPO/.kestrix/index.db), or a postgresql:// URL: the index on a server");
    command->add_option("--name", arguments->name, "with a postgresql:// --db: the repository's name there (ORG/REPO)");
    command->add_option("--http", arguments->http,
                        "serve Streamable HTTP on HOST:PORT (or PORT, on 127.0.0.1) instead of standard input and output");
    command->add_flag("--list-tests", arguments->list_tests, "list the tests that cover the pack's files");
    command->add_flag("--include-generated", arguments->include_generated,
                      "index minified and generated files too (skipped by default)");
    command->add_flag("--no-follow", arguments->no_follow, "neither refresh the index at start nor follow file changes");
    command->callback([arguments, &exit_code] { exit_code = run_mcp(*arguments); });
});

}  // namespace

}  // namespace orvane_kestrix::app
