#pragma once
// How the tool reports a failure of the service layer: one line on standard error and an exit
// code, chosen here for every subcommand.

#include <exception>
#include <string_view>

namespace orvane_kestrix::app {

// Exit codes: 2 for a repository that is not a directory (a usage error), 1 for everything
// else (an unknown component, a damaged or unreadable index).
int exit_code_for(const std::exception& error);

// Writes the failure's line ("COMMAND: message", or the message alone for an unknown
// component, which is worded for the user as it is) and returns its exit code.
int report_failure(std::string_view command, const std::exception& error);

}  // namespace orvane_kestrix::app
