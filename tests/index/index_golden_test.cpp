// Indexes tests/sample_repo with the real parser and compares the index with the expected files
// in tests/golden/index/ (each line reasoned from the sample sources; see the comments there).

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace {

namespace fs = std::filesystem;
using orvane_kestrix::indexer::IndexBuilder;
using orvane_kestrix::indexer::IndexOptions;
using orvane_kestrix::indexer::IndexStats;
using orvane_kestrix::storage::Database;
using orvane_kestrix::storage::Statement;

const fs::path kSample = fs::path(KESTRIX_TEST_DATA) / "sample_repo";
const fs::path kGolden = fs::path(KESTRIX_TEST_DATA) / "golden" / "index";

// The lines of an expected file, without comments and blank lines.
std::vector<std::string> expected_lines(const std::string& name) {
    std::ifstream in(kGolden / name);
    EXPECT_TRUE(in) << "cannot read " << (kGolden / name);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        lines.push_back(line);
    }
    return lines;
}

std::string join(const std::vector<std::string>& lines) {
    std::string out;
    for (const auto& line : lines) out += line + "\n";
    return out;
}

class SampleIndex : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        char pattern[] = "/tmp/kestrix-golden-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        IndexOptions options;
        options.repo = kSample;
        options.db = dir_ / "index.db";
        options.jobs = 2;
        stats_ = IndexBuilder(options).run();
        db_ = new Database(orvane_kestrix::storage::open_index(dir_ / "index.db", {.read_only = true}));
    }

    static void TearDownTestSuite() {
        delete db_;
        db_ = nullptr;
        std::error_code error;
        fs::remove_all(dir_, error);
    }

    static std::vector<std::string> rows(const std::string& sql) {
        Statement statement(*db_, sql);
        std::vector<std::string> out;
        while (statement.step()) out.push_back(statement.column_string(0));
        return out;
    }

    static inline fs::path dir_;
    static inline IndexStats stats_;
    static inline Database* db_ = nullptr;
};

TEST_F(SampleIndex, RecordsEachFileWithItsFlagsAndComponent) {
    EXPECT_EQ(join(rows("SELECT f.path || ' ' || f.language || ' test=' || f.is_test || ' source=' || f.is_source || "
                        "' component=' || c.name FROM files f JOIN components c ON c.id = f.component_id ORDER BY f.path")),
              join(expected_lines("files.txt")));
    EXPECT_EQ(stats_.skipped, (std::map<std::string, std::int64_t>{{"unsupported", 3}}));
    EXPECT_EQ(stats_.files, 32);
    EXPECT_EQ(stats_.parsed, 32);
}

TEST_F(SampleIndex, HasOneComponentPerManifestDirectoryAndTopLevelFolder) {
    EXPECT_EQ(join(rows("SELECT name FROM components ORDER BY name")),
              join({".", "config", "docs", "go", "java", "native", "python", "ruby", "rust", "web"}));
}

TEST_F(SampleIndex, RanksTheTestsThatReachEachSourceFile) {
    EXPECT_EQ(join(rows("SELECT s.path || ' <- ' || t.path || ' rank ' || printf('%g', c.rank) || ' used ' || c.used_symbols "
                        "FROM covering_tests c JOIN files s ON s.id = c.source_file_id "
                        "JOIN files t ON t.id = c.test_file_id ORDER BY s.path, c.rank, t.path")),
              join(expected_lines("covering_tests.txt")));
}

TEST_F(SampleIndex, CountsProductionFanIn) {
    std::vector<std::string> actual;
    std::vector<std::string> expected = expected_lines("fan_in.txt");
    Statement statement(*db_, "SELECT group_concat(production_fan_in) FROM symbols WHERE fqn = ?");
    for (const auto& line : expected) {
        const std::string fqn = line.substr(0, line.find(' '));
        statement.bind(1, fqn);
        ASSERT_TRUE(statement.step());
        actual.push_back(fqn + " " + (statement.column_is_null(0) ? std::string("<no such symbol>") : statement.column_string(0)));
        statement.reset();
    }
    EXPECT_EQ(join(actual), join(expected));
}

TEST_F(SampleIndex, ListsReferencesWithCallersInFileAndLineOrder) {
    std::vector<std::string> actual;
    const std::vector<std::string> expected = expected_lines("references.txt");
    Statement statement(*db_,
                        "SELECT f.path || ':' || r.line || ' ' || r.usage_type || ' ' || "
                        "coalesce(c.fqn || ' (' || c.kind || ')', '-') || ' | ' || r.context "
                        "FROM symbols t JOIN ref_targets rt ON rt.symbol_id = t.id JOIN refs r ON r.id = rt.ref_id "
                        "JOIN files f ON f.id = r.file_id LEFT JOIN symbols c ON c.id = r.caller_id "
                        "WHERE t.fqn = ? GROUP BY r.id ORDER BY f.path, r.line, r.id");
    for (const auto& line : expected) {
        if (line.starts_with("  ")) continue;
        actual.push_back(line);
        statement.bind(1, line);
        while (statement.step()) actual.push_back("  " + statement.column_string(0));
        statement.reset();
    }
    EXPECT_EQ(join(actual), join(expected));
}

TEST_F(SampleIndex, StoresTheTokenCountOfTheSymbolsPackRow) {
    // {"fqn":"python.shop.cart.total_price","name":"total_price","kind":"function",
    //  "file":"python/shop/cart.py","line":69,"signature":<the stored signature>}
    Statement statement(*db_, "SELECT s.token_count, s.signature FROM symbols s WHERE s.fqn = 'python.shop.cart.total_price'");
    ASSERT_TRUE(statement.step());
    const std::string head = R"({"fqn":"python.shop.cart.total_price","name":"total_price","kind":"function",)"
                             R"("file":"python/shop/cart.py","line":69,"signature":)";
    const std::string signature = statement.column_string(1);
    ASSERT_EQ(signature.find_first_of("\"\\"), std::string::npos) << "escapes would change the length";
    EXPECT_EQ(statement.column_int64(0), static_cast<std::int64_t>((head.size() + signature.size() + 3) / 4));
}

TEST_F(SampleIndex, FindsSymbolsBySubstringThroughTheTrigramTable) {
    EXPECT_EQ(join(rows("SELECT s.fqn FROM symbols s JOIN files f ON f.id = s.file_id "
                        "WHERE s.id IN (SELECT rowid FROM symbol_names WHERE name LIKE '%PRICE%') "
                        "AND s.name LIKE '%PRICE%' AND f.is_source = 1 ORDER BY s.fqn")),
              join({"python.shop.cart.Item.price", "python.shop.cart.total_price",
                    "python.tests.test_cart.test_total_price_of_nothing", "web.src.api.Product.price",
                    "web.src.format.formatPrice"}));
}

TEST_F(SampleIndex, SecondRunOverTheSameTreeParsesNothing) {
    IndexOptions options;
    options.repo = kSample;
    options.db = dir_ / "index.db";
    const IndexStats again = IndexBuilder(options).run();
    EXPECT_EQ(again.parsed, 0);
    EXPECT_EQ(again.unchanged, 32);
    EXPECT_EQ(again.symbols, stats_.symbols);
    EXPECT_EQ(again.references, stats_.references);
}

}  // namespace
