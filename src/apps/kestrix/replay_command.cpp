// kestrix replay FILE|-: builds one pack over a fixture index and prints it with its call log.

#include <fstream>
#include <iostream>
#include <sstream>

#include "command.hpp"
#include "orvane_kestrix/fixture/replay.hpp"

namespace orvane_kestrix::app {

namespace {

int run_replay(const std::string& file) {
    std::string text;
    if (file == "-") {
        std::ostringstream buffer;
        buffer << std::cin.rdbuf();
        text = buffer.str();
    } else {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            std::cerr << "kestrix replay: cannot read " << file << '\n';
            return 2;
        }
        std::ostringstream buffer;
        buffer << in.rdbuf();
        if (in.bad()) {
            std::cerr << "kestrix replay: cannot read " << file << '\n';
            return 2;
        }
        text = buffer.str();
    }
    nlohmann::ordered_json result;
    try {
        auto document = nlohmann::ordered_json::parse(text);
        result = replay_fixture(parse_fixture(document));
    } catch (const nlohmann::json::parse_error& e) {
        std::cerr << "kestrix replay: " << file << ": not JSON: " << one_line(e.what()) << '\n';
        return 2;
    } catch (const FixtureError& e) {
        std::cerr << "kestrix replay: " << file << ": " << one_line(e.what()) << '\n';
        return 2;
    }
    std::cout << result.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
    return 0;
}

const CommandRegistrar registrar([](CLI::App& app, int& exit_code) {
    auto* command = app.add_subcommand("replay", "Build one pack over a JSON fixture index and print it with its call log");
    auto file = std::make_shared<std::string>();
    command->add_option("FILE", *file, "the fixture file, or - for standard input")->required();
    command->callback([file, &exit_code] { exit_code = run_replay(*file); });
});

}  // namespace

}  // namespace orvane_kestrix::app
