// Deeply nested scopes index in time and memory proportional to the file: the tool indexes
// 50,000 nested C++ namespaces, Java classes and JavaScript functions, each in its own
// repository, and its run is measured as a child process.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

struct Nesting {
    const char* file;
    const char* open;   // one level, with %d for its number
    const char* close;  // the end of one level
};

std::string nested(const Nesting& shape, int levels) {
    std::string text;
    text.reserve(static_cast<std::size_t>(levels) * 24);
    for (int i = 0; i < levels; ++i) {
        std::string line = shape.open;
        line.replace(line.find("%d"), 2, std::to_string(i));
        text += line;
    }
    for (int i = 0; i < levels; ++i) text += shape.close;
    return text;
}

struct ToolRun {
    int status = -1;
    // Processor time (user and system) of the run: what the input costs, whatever else the
    // machine is doing meanwhile.
    double seconds = 0;
    long peak_kb = 0;
};

ToolRun run_tool(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    ToolRun run;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) return run;
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    struct rusage usage {};
    wait4(pid, &status, 0, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
    run.seconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.peak_kb = usage.ru_maxrss;
    return run;
}

TEST(NestingCost, FiftyThousandNestedScopesIndexQuicklyInLittleMemory) {
    char pattern[] = "/tmp/kestrix-nesting-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const fs::path base = pattern;
    const Nesting shapes[] = {
        {"deep.cpp", "namespace n%d {\n", "}\n"},
        {"Deep.java", "class C%d {\n", "}\n"},
        {"deep.js", "function f%d() {\n", "}\n"},
    };
    for (const auto& shape : shapes) {
        SCOPED_TRACE(shape.file);
        const fs::path repo = base / shape.file;
        fs::create_directories(repo);
        std::ofstream(repo / shape.file) << nested(shape, 50'000);
        const ToolRun run = run_tool({KESTRIX_BINARY, "index", "--repo", repo.string(), "--db", (base / "index.db").string(),
                                  "--rebuild"});
        EXPECT_EQ(run.status, 0);
        // The bounds hold for an optimised build; the sanitizers multiply both.
        if (!kSanitized) {
            EXPECT_LT(run.seconds, 3.0) << "processor seconds";
            EXPECT_LT(run.peak_kb, 300 * 1024);
        }
    }
    std::error_code error;
    fs::remove_all(base, error);
}

}  // namespace
