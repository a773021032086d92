// kestrix replay FILE|-: builds one pack over a fixture index and prints it with its call log.

#include <fstream>
#include <iostream>

#include "command.hpp"
#include "orvane_kestrix/fixture/replay.hpp"

namespace orvane_kestrix::app {

namespace {

// Reads all of `in` unless it holds more than kMaxFixtureBytes (an endless device among them).
bool read_capped(std::istream& in, std::string& text) {
    char buffer[65536];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
        if (text.size() + static_cast<std::size_t>(in.gcount()) > kMaxFixtureBytes) return false;
        text.append(buffer, static_cast<std::size_t>(in.gcount()));
    }
    return true;
}

int run_replay(const std::string& file) {
    std::string text;
    std::ifstream opened;
    if (file != "-") {
        opened.open(file, std::ios::binary);
        if (!opened) {
            std::cerr << "kestrix replay: cannot read " << file << '\n';
            return 2;
        }
    }
    std::istream& in = file == "-" ? std::cin : opened;
    if (!read_capped(in, text)) {
        std::cerr << "kestrix replay: " << file << ": larger than " << (kMaxFixtureBytes >> 20)
                  << " MiB, the most a fixture may hold\n";
        return 2;
    }
    if (in.bad()) {
        std::cerr << "kestrix replay: cannot read " << file << '\n';
        return 2;
    }
    nlohmann::ordered_json result;
    try {
        result = replay_fixture(parse_fixture_text(text));
    } catch (const nlohmann::json::exception& e) {
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
