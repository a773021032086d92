#pragma once
// Subcommands register themselves here, each from its own source file.

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace orvane_kestrix::app {

// Adds a subcommand to the tool's command line; its callback runs it and sets the exit code.
using CommandSetup = std::function<void(CLI::App& app, int& exit_code)>;

std::vector<CommandSetup>& command_setups();

struct CommandRegistrar {
    explicit CommandRegistrar(CommandSetup setup) { command_setups().push_back(std::move(setup)); }
};

// The text with its line breaks as spaces: an error message as one line of standard error.
std::string one_line(std::string text);

// Sends the library's log records to standard error (warnings and above by default).
void install_stderr_log_sink(bool verbose);

}  // namespace orvane_kestrix::app
