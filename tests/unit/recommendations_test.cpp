// The pack's closing hints, from its rows and the task's terms.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "orvane_kestrix/workers/context_builder/context_builder.hpp"
#include "support/mock_repository.hpp"

namespace {

using namespace orvane_kestrix;
using orvane_kestrix::testing::MockRepository;
using orvane_kestrix::testing::MockTokenizer;
using ::testing::Return;
using ::testing::StrictMock;

constexpr const char* NONE_FOUND = "No matching symbols found. Try broader search terms.";
constexpr const char* FEW = "Few symbols matched. Consider exploring related components.";
constexpr const char* TESTS = "Found functions - consider their test requirements.";
constexpr const char* API = "Check for related API handlers and middleware.";

std::vector<SymbolRow> rows(std::initializer_list<const char*> kinds) {
    std::vector<SymbolRow> out;
    for (const char* kind : kinds) out.push_back(SymbolRow{.fqn = "f", .name = "f", .kind = kind});
    return out;
}

TEST(Recommendations, Combinations) {
    struct Case {
        const char* what;
        std::vector<SymbolRow> symbols;
        std::vector<std::string> terms;
        bool about_tests;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"empty pack, plain task", {}, {"parse", "config"}, false, {NONE_FOUND}},
        {"four rows are few", rows({"class", "class", "method", "class"}), {"parse"}, false, {FEW}},
        {"five rows are enough", rows({"class", "class", "class", "class", "class"}), {"parse"}, false, {}},
        {"tests task without function rows", rows({"class", "method", "class", "method", "class"}), {"test"}, true, {}},
        {"one function row is enough", rows({"class", "method", "function", "method", "class"}), {"test"}, true, {TESTS}},
        {"kind compared exactly", rows({"Function", "functions", "method", "class", "class"}), {"test"}, true, {}},
        {"not about tests, many functions", rows({"function", "function", "function", "function", "function"}),
         {"parse"}, false, {}},
        {"empty pack about tests", {}, {"test"}, true, {NONE_FOUND}},
        {"api term on an empty pack", {}, {"api"}, false, {NONE_FOUND, API}},
        {"endpoint and endpoints", rows({"class", "class", "class", "class", "class"}), {"add", "endpoints"}, false, {API}},
        {"near misses are no api words", rows({"class", "class", "class", "class", "class"}), {"apis", "rest", "API"},
         false, {}},
        {"all three at once", rows({"class", "function", "method"}), {"test", "endpoint"}, true, {FEW, TESTS, API}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        StrictMock<MockRepository> repo;
        StrictMock<MockTokenizer> tokenizer;
        ContextBuilder builder(repo, nullptr, {.tokenizer = &tokenizer});
        // The task goes to query_terms, and exactly its terms to is_test_query.
        EXPECT_CALL(tokenizer, query_terms("the task")).WillOnce(Return(c.terms));
        EXPECT_CALL(tokenizer, is_test_query(c.terms)).WillOnce(Return(c.about_tests));
        EXPECT_EQ(builder._generate_recommendations("the task", c.symbols), c.expected);
    }
}

}  // namespace
