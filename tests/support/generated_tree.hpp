#pragma once
// A generated Python repository in two states, for tests of what readers and writers see
// while an index changes: `modules` modules that import and call each other, and a test file
// for every tenth one. State 'a' and state 'b' differ in every file (each function's
// parameter, each docstring, each class's method), but each file keeps its size, so a refresh
// from one state to the other parses the files in the order a fresh build of it does.

#include <filesystem>
#include <fstream>
#include <string>

namespace kestrix_test {

inline void write_generated_tree(const std::filesystem::path& root, int modules, char state) {
    namespace fs = std::filesystem;
    fs::create_directories(root / "pkg");
    fs::create_directories(root / "tests");
    const std::string v(1, state);
    for (int i = 0; i < modules; ++i) {
        const std::string n = std::to_string(i);
        const std::string next = std::to_string((i + 1) % modules);
        std::ofstream(root / "pkg" / ("mod_" + n + ".py"))
            << "\"\"\"Ledger module " << n << ".\"\"\"\n"
            << "from pkg.mod_" << next << " import step_" << next << "\n\n\n"
            << "def step_" << n << "(value_" << v << "):\n"
            << "    \"\"\"Advance ledger " << n << " by one step (state " << v << ").\"\"\"\n"
            << "    return step_" << next << "(value_" << v << ") + " << n << "\n\n\n"
            << "class Ledger" << n << ":\n"
            << "    \"\"\"Keeps the entries of ledger " << n << " (state " << v << ").\"\"\"\n\n"
            << "    def post_" << v << "(self, amount):\n"
            << "        return step_" << n << "(amount)\n";
        if (i % 10 == 0) {
            std::ofstream(root / "tests" / ("test_mod_" + n + ".py"))
                << "from pkg.mod_" << n << " import step_" << n << ", Ledger" << n << "\n\n\n"
                << "def test_step_" << n << "_" << v << "():\n"
                << "    assert step_" << n << "(1)\n"
                << "    Ledger" << n << "().post_" << v << "(2)\n";
        }
    }
}

}  // namespace kestrix_test
