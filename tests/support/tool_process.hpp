#pragma once
// Runs the built kestrix tool from a test in the background, or to its end with output files
// of its own (runs at the same time keep theirs apart), through /bin/sh so that arguments are
// written as on a command line.

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/kestrix_tool.hpp"

extern char** environ;

namespace kestrix_test {

using orvane_kestrix::testing::read_whole_file;
using orvane_kestrix::testing::shell_quoted;
using orvane_kestrix::testing::ToolRun;

// Starts `kestrix ARGUMENTS` with standard output and error going to the two files.
inline pid_t start_tool(const std::string& arguments, const std::filesystem::path& out, const std::filesystem::path& err) {
    const std::string command = std::string("exec ") + KESTRIX_BINARY + " " + arguments + " >" + shell_quoted(out.string()) +
                                " 2>" + shell_quoted(err.string()) + " </dev/null";
    const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) return -1;
    return pid;
}

// The exit code of a started tool, or -1 when it did not exit normally.
inline int wait_for_exit(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

// Runs `kestrix ARGUMENTS` to its end; its output passes through files named after `tag`
// in `scratch` (so that runs at the same time keep theirs apart).
inline ToolRun run_tool(const std::string& arguments, const std::filesystem::path& scratch, const std::string& tag = "run") {
    const std::filesystem::path out = scratch / (tag + ".out");
    const std::filesystem::path err = scratch / (tag + ".err");
    ToolRun run;
    run.status = wait_for_exit(start_tool(arguments, out, err));
    run.out = read_whole_file(out);
    run.err = read_whole_file(err);
    return run;
}

}  // namespace kestrix_test
