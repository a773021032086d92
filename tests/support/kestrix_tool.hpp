#pragma once
// Runs the built `kestrix` tool for end-to-end tests: its exit code and what it printed.

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace orvane_kestrix::testing {

struct ToolRun {
    int status = -1;  // the exit code; -1 when the tool did not exit normally
    std::string out;
    std::string err;
};

// The text as one single-quoted shell word.
inline std::string shell_quoted(const std::string& text) {
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

inline std::string read_whole_file(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

// Runs `kestrix ARGUMENTS...`, keeping its output in `scratch` (a directory of the test's own).
inline ToolRun run_kestrix(const std::vector<std::string>& arguments, const std::filesystem::path& scratch) {
    const std::filesystem::path out = scratch / "tool-stdout.txt";
    const std::filesystem::path err = scratch / "tool-stderr.txt";
    std::string command = shell_quoted(KESTRIX_BINARY);
    for (const auto& argument : arguments) command += " " + shell_quoted(argument);
    command += " >" + shell_quoted(out.string()) + " 2>" + shell_quoted(err.string()) + " </dev/null";
    ToolRun run;
    const int raw = std::system(command.c_str());
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    run.out = read_whole_file(out);
    run.err = read_whole_file(err);
    return run;
}

}  // namespace orvane_kestrix::testing
