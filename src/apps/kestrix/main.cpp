// kestrix: the command-line tool of Orvane Kestrix.

#include <iostream>

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include "command.hpp"
#include "orvane_kestrix/logging.hpp"
#include "orvane_kestrix/workers/context_builder/constants.hpp"

namespace orvane_kestrix::app {

std::vector<CommandSetup>& command_setups() {
    static std::vector<CommandSetup> setups;
    return setups;
}

namespace {

// Writes "level: message" lines to standard error, with the attached error on its own line.
class StderrSink final : public spdlog::sinks::base_sink<std::mutex> {
protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        std::cerr << spdlog::level::to_string_view(msg.level).data() << ": "
                  << std::string_view(msg.payload.data(), msg.payload.size()) << '\n';
        if (const auto& error = attached_error()) std::cerr << "  caused by: " << *error << '\n';
    }
    void flush_() override { std::cerr.flush(); }
};

}  // namespace

std::string one_line(std::string text) {
    for (char& c : text) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    return text;
}

void install_stderr_log_sink(bool verbose) {
    auto logger = context_logger();
    logger->sinks().push_back(std::make_shared<StderrSink>());
    logger->set_level(verbose ? spdlog::level::debug : spdlog::level::warn);
}

}  // namespace orvane_kestrix::app

int main(int argc, char** argv) {
    using namespace orvane_kestrix::app;
    CLI::App app{"kestrix: token-budgeted code context for coding agents"};
    app.set_version_flag("--version", std::string("kestrix ") + KESTRIX_VERSION);
    app.require_subcommand(0, 1);
    int exit_code = 0;
    for (const auto& setup : command_setups()) setup(app, exit_code);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    if (app.get_subcommands().empty()) {
        std::cout << app.help();
        return 0;
    }
    return exit_code;
}
