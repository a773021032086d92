// Round-trip time of a `tools/call` of the context tool over kestrix mcp's standard input and
// output, beside the time of the same call made in process (the pack and its JSON, no
// protocol), in the same run, over an index of this machine's Python standard library.
//
//   mcp_stdio_bench [--stdlib DIR] [--db PATH] [--calls N]
//
// Without --db the library is indexed into a temporary file first (removed at the end). The
// server runs with --no-follow, so no refresh competes with the calls. Each task is called
// once to warm the caches, then timed once in each way. Printed: median and 95th percentile
// milliseconds per call for both, and what the protocol adds.

#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/mcp/context_tool.hpp"
#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "stdlib_tasks.hpp"

namespace {

using namespace orvane_kestrix;
using namespace orvane_kestrix::bench;
namespace fs = std::filesystem;
using mcp::Json;

// kestrix mcp as a child process, one JSON-RPC line each way.
class StdioChild {
public:
    explicit StdioChild(const std::vector<std::string>& args) {
        int to_child[2];
        int from_child[2];
        if (pipe(to_child) != 0 || pipe(from_child) != 0) throw std::runtime_error("cannot make pipes");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, to_child[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, from_child[1], STDOUT_FILENO);
        for (const int fd : {to_child[0], to_child[1], from_child[0], from_child[1]}) posix_spawn_file_actions_addclose(&actions, fd);
        std::vector<char*> argv;
        for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        const int error = posix_spawn(&pid_, args[0].c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(to_child[0]);
        close(from_child[1]);
        if (error != 0) throw std::runtime_error("cannot start " + args[0]);
        in_ = to_child[1];
        out_ = fdopen(from_child[0], "r");
    }
    ~StdioChild() {
        close(in_);
        if (out_ != nullptr) fclose(out_);
        int status = 0;
        waitpid(pid_, &status, 0);
    }
    StdioChild(const StdioChild&) = delete;
    StdioChild& operator=(const StdioChild&) = delete;

    void send(const Json& message) {
        const std::string line = message.dump() + "\n";
        for (std::size_t done = 0; done < line.size();) {
            const ssize_t n = write(in_, line.data() + done, line.size() - done);
            if (n <= 0) throw std::runtime_error("the server stopped reading");
            done += static_cast<std::size_t>(n);
        }
    }

    // The next line the server writes.
    std::string receive() {
        char* line = nullptr;
        std::size_t capacity = 0;
        const ssize_t n = getline(&line, &capacity, out_);
        std::string text = n > 0 ? std::string(line, static_cast<std::size_t>(n)) : std::string();
        free(line);
        if (text.empty()) throw std::runtime_error("the server closed its output");
        return text;
    }

private:
    pid_t pid_ = 0;
    int in_ = -1;
    FILE* out_ = nullptr;
};

Json tool_call(int id, const std::string& task) {
    return Json{{"jsonrpc", "2.0"},
                {"id", id},
                {"method", "tools/call"},
                {"params", {{"name", "context"}, {"arguments", {{"task", task}}}}}};
}

}  // namespace

int main(int argc, char** argv) {
    fs::path stdlib;
    fs::path db;
    std::size_t calls = 200;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 < argc && arg == "--stdlib") {
            stdlib = argv[++i];
        } else if (i + 1 < argc && arg == "--db") {
            db = argv[++i];
        } else if (i + 1 < argc && arg == "--calls") {
            calls = std::stoul(argv[++i]);
        } else {
            std::cerr << "usage: mcp_stdio_bench [--stdlib DIR] [--db PATH] [--calls N]\n";
            return 2;
        }
    }
    if (stdlib.empty()) stdlib = python_stdlib();
    if (stdlib.empty() || !fs::is_directory(stdlib)) {
        std::cerr << "mcp_stdio_bench: no Python standard library found (pass --stdlib DIR)\n";
        return 2;
    }
    fs::path temp_dir;
    if (db.empty()) {
        char pattern[] = "/tmp/kestrix-mcp-bench-XXXXXX";
        if (mkdtemp(pattern) == nullptr) return 1;
        temp_dir = pattern;
        db = temp_dir / "index.db";
    }
    signal(SIGPIPE, SIG_IGN);

    int status = 0;
    try {
        std::cout << "standard library: " << stdlib.string() << '\n';
        if (!fs::exists(db)) {
            indexer::IndexOptions index;
            index.repo = stdlib;
            index.db = db;
            index.use_git = false;
            // With the retriever's tables, as `kestrix index` builds it: the server packs with the retriever.
            std::cout << "index: " << indexer::IndexBuilder(retrieval::index_options_with_retrieval(index)).run().summary() << '\n';
        }
        service::WorkspaceOptions options;
        options.repo = stdlib;
        options.db = db;
        service::Workspace workspace(options);
        std::vector<std::string> tasks;
        {
            SqliteRepository repository(db);
            tasks = make_tasks(symbol_names(repository), calls);
        }

        // In process: the tool's own work, from arguments to the result's JSON text.
        std::vector<double> in_process;
        for (const auto& task : tasks) mcp::call_context_tool(workspace, Json{{"task", task}}).dump();
        for (const auto& task : tasks) {
            const auto start = Clock::now();
            mcp::call_context_tool(workspace, Json{{"task", task}}).dump();
            in_process.push_back(ms_since(start));
        }

        // Over stdio: the same calls as JSON-RPC lines to the server and back.
        StdioChild server({KESTRIX_BINARY, "mcp", "--repo", stdlib.string(), "--db", db.string(), "--no-follow"});
        server.send(Json{{"jsonrpc", "2.0"},
                         {"id", 0},
                         {"method", "initialize"},
                         {"params", {{"protocolVersion", "2025-11-25"}, {"capabilities", Json::object()},
                                     {"clientInfo", {{"name", "bench"}, {"version", "1"}}}}}});
        server.receive();
        server.send(Json{{"jsonrpc", "2.0"}, {"method", "notifications/initialized"}});
        int id = 1;
        for (const auto& task : tasks) {
            server.send(tool_call(id++, task));
            server.receive();
        }
        std::vector<double> round_trips;
        std::size_t bytes = 0;
        for (const auto& task : tasks) {
            const auto start = Clock::now();
            server.send(tool_call(id++, task));
            bytes += server.receive().size();
            round_trips.push_back(ms_since(start));
        }

        const Summary local = summarise(in_process);
        const Summary remote = summarise(round_trips);
        std::cout << fmt::format("calls: {} tasks, answers {:.1f} kB on average\n", tasks.size(),
                                 static_cast<double>(bytes) / 1024.0 / static_cast<double>(tasks.size()));
        std::cout << fmt::format("{:<26} {:>10} {:>10}\n", "", "median ms", "p95 ms");
        std::cout << fmt::format("{:<26} {:>10.3f} {:>10.3f}\n", "in process (pack + JSON)", local.median, local.p95);
        std::cout << fmt::format("{:<26} {:>10.3f} {:>10.3f}\n", "tools/call over stdio", remote.median, remote.p95);
        std::cout << fmt::format("{:<26} {:>10.3f} {:>10.3f}\n", "added by the protocol", remote.median - local.median,
                                 remote.p95 - local.p95);
    } catch (const std::exception& e) {
        std::cerr << "mcp_stdio_bench: " << e.what() << '\n';
        status = 1;
    }
    if (!temp_dir.empty()) {
        std::error_code error;
        fs::remove_all(temp_dir, error);
    }
    return status;
}
