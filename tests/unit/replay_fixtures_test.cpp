// Every fixture under tests/fixtures/replay replays to its expected output, key order
// included; and the kestrix tool prints the same and rejects malformed fixtures.

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

#include "orvane_kestrix/fixture/replay.hpp"

namespace orvane_kestrix {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

const fs::path REPLAY_DIR = fs::path(KESTRIX_TEST_DATA) / "fixtures" / "replay";

std::string read_file(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

std::vector<std::string> fixture_names() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(REPLAY_DIR)) {
        const std::string name = entry.path().filename().string();
        const std::string suffix = ".expected.json";
        if (name.ends_with(".json") && !name.ends_with(suffix)) names.push_back(name.substr(0, name.size() - 5));
    }
    std::sort(names.begin(), names.end());
    return names;
}

class ReplayFixtureTest : public ::testing::TestWithParam<std::string> {};

TEST_P(ReplayFixtureTest, ReplaysToItsExpectedOutput) {
    const fs::path input = REPLAY_DIR / (GetParam() + ".json");
    const fs::path expected_path = REPLAY_DIR / (GetParam() + ".expected.json");
    ASSERT_TRUE(fs::exists(expected_path)) << expected_path;
    const Json actual = replay_fixture(parse_fixture(Json::parse(read_file(input))));
    const Json expected = Json::parse(read_file(expected_path));
    // Dumped text compares key order as well as values.
    EXPECT_EQ(actual.dump(1), expected.dump(1));
}

INSTANTIATE_TEST_SUITE_P(Fixtures, ReplayFixtureTest, ::testing::ValuesIn(fixture_names()),
                         [](const auto& info) { return info.param; });

struct ToolRun {
    int status;
    std::string out;
    std::string err;
};

ToolRun run_tool(const std::string& arguments, const std::string& stdin_text = "") {
    const fs::path dir = fs::temp_directory_path() / ("kestrix-replay-cli-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    std::ofstream(dir / "stdin") << stdin_text;
    const std::string command = std::string("'") + KESTRIX_BINARY + "' " + arguments + " <'" + (dir / "stdin").string() +
                                "' >'" + (dir / "out").string() + "' 2>'" + (dir / "err").string() + "'";
    const int raw = std::system(command.c_str());
    ToolRun run{WEXITSTATUS(raw), read_file(dir / "out"), read_file(dir / "err")};
    fs::remove_all(dir);
    return run;
}

class ReplayToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(KESTRIX_BINARY)) GTEST_SKIP() << "the kestrix tool is not built";
    }
};

TEST_F(ReplayToolTest, PrintsTheReplayOfAFileAndOfStandardInput) {
    const fs::path input = REPLAY_DIR / "reserve_for_tests.json";
    const Json expected = Json::parse(read_file(REPLAY_DIR / "reserve_for_tests.expected.json"));
    for (const auto& [arguments, stdin_text] :
         {std::pair<std::string, std::string>{"replay '" + input.string() + "'", ""}, {"replay -", read_file(input)}}) {
        ToolRun run = run_tool(arguments, stdin_text);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(Json::parse(run.out).dump(1), expected.dump(1));
        EXPECT_TRUE(run.err.empty()) << run.err;
    }
}

TEST_F(ReplayToolTest, MalformedFixturesExitTwoWithOneLineAndNoOutput) {
    const std::pair<const char*, const char*> cases[] = {
        {"replay -", "{not json"},
        {"replay -", R"({"request": {"task": "t", "token_budget": null}})"},
        {"replay -", R"({"symbols": [{"id": "7"}], "request": {"task": "t"}})"},
        {"replay /nonexistent/fixture.json", ""},
    };
    for (const auto& [arguments, stdin_text] : cases) {
        ToolRun run = run_tool(arguments, stdin_text);
        EXPECT_EQ(run.status, 2) << stdin_text;
        EXPECT_TRUE(run.out.empty()) << run.out;
        ASSERT_FALSE(run.err.empty());
        EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
    }
}

}  // namespace
}  // namespace orvane_kestrix
