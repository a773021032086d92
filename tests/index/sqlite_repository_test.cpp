// What the SQLite index does beyond the index contract (whose answers the backend contract
// suite checks over every backend): how it routes a name pattern, and how it refuses files
// that hold no index.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "orvane_kestrix/storage/sqlite_repository.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix;

fs::path make_temp_dir() {
    char pattern[] = "/tmp/kestrix-sqlite-repo-XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

TEST(NamePatternPlan, ChoosesTheCheapestRouteThatCannotMissAMatch) {
    struct Case {
        std::string pattern;
        NamePatternRoute route;
        std::string lower, upper;
    };
    const std::vector<Case> cases = {
        {"read", NamePatternRoute::exact, "", ""},
        {"io", NamePatternRoute::exact, "", ""},
        {"%read%", NamePatternRoute::trigram, "", ""},
        {"read_line", NamePatternRoute::trigram, "", ""},
        {"%éèà%", NamePatternRoute::trigram, "", ""},  // three characters, six bytes
        {"a\"bc%", NamePatternRoute::trigram, "", ""},
        {"%éè%", NamePatternRoute::scan, "", ""},
        {"%%", NamePatternRoute::scan, "", ""},
        {"_", NamePatternRoute::scan, "", ""},
        {"%io%", NamePatternRoute::scan, "", ""},
        {"Io%", NamePatternRoute::prefix, "io", "ip"},
        {"a_bc%", NamePatternRoute::prefix, "a", "b"},
        {"Zz%", NamePatternRoute::prefix, "zz", "z{"},
    };
    for (const auto& c : cases) {
        const NamePatternPlan plan = plan_name_pattern(c.pattern);
        EXPECT_EQ(plan.route, c.route) << c.pattern;
        EXPECT_EQ(plan.lower, c.lower) << c.pattern;
        EXPECT_EQ(plan.upper, c.upper) << c.pattern;
    }
    // Every trigram of every literal run, once, quoted for FTS5.
    EXPECT_EQ(plan_name_pattern("%read%").match, "\"rea\" AND \"ead\"");
    EXPECT_EQ(plan_name_pattern("rea_x_line%").match, "\"rea\" AND \"lin\" AND \"ine\"");
    EXPECT_EQ(plan_name_pattern("%abcabc%").match, "\"abc\" AND \"bca\" AND \"cab\"");
    EXPECT_EQ(plan_name_pattern("%éèàç%").match, "\"éèà\" AND \"èàç\"");
    EXPECT_EQ(plan_name_pattern("a\"bc%").match, "\"a\"\"b\" AND \"\"\"bc\"");
}

TEST(SqliteRepositoryOpen, AMissingOrForeignFileIsAnIndexFileError) {
    const fs::path dir = make_temp_dir();
    EXPECT_THROW(SqliteRepository(dir / "missing.db"), storage::IndexFileError);
    std::ofstream(dir / "garbage.db") << std::string(8192, 'x');
    try {
        SqliteRepository repo(dir / "garbage.db");
        ADD_FAILURE() << "opened a garbage file";
    } catch (const storage::IndexFileError& e) {
        EXPECT_NE(std::string(e.what()).find("--rebuild"), std::string::npos) << e.what();
    }
    std::error_code error;
    fs::remove_all(dir, error);
}

}  // namespace
