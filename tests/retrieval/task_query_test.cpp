// Which task words each full-text search runs with: the rarest first, within the budgets that
// bound a search on a large index, and never none while some word is indexed.

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "orvane_kestrix/retrieval/task_query.hpp"

namespace {

using namespace orvane_kestrix;
using retrieval::WordFrequency;

struct QueryCase {
    const char* name;
    std::map<std::string, WordFrequency> index;  // word -> (symbols, files) holding it
    std::string task;
    std::string file_match;
    std::string symbol_match;
};

TEST(TaskQuery, SearchesTheRarestWordsWithinTheirBudgets) {
    const std::int64_t symbols = 1'000'000;
    const std::int64_t files = 60'000;
    const std::vector<QueryCase> cases = {
        {"rare words all searched",
         {{"ledger", {40, 12}}, {"tax", {90, 30}}},
         "ledger tax",
         "(\"ledger\" OR \"tax\")",
         "(\"ledger\" OR \"tax\")"},
        {"common words past the file budget left out of the file search",
         {{"ledger", {40, 12}}, {"buffer", {9000, 4000}}, {"lock", {12000, 9000}}},
         "lock the buffer of the ledger",
         "(\"ledger\" OR \"buffer\")",
         "(\"ledger\" OR \"buffer\")"},
        {"the rarest word is searched even past every budget",
         {{"lock", {400'000, 50'000}}},
         "lock",
         "(\"lock\")",
         ""},
        {"unindexed words are dropped",
         {{"ledger", {40, 12}}},
         "frobnicate the ledger",
         "(\"ledger\")",
         "(\"ledger\")"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto frequency = [&](const std::string& word) {
            const auto it = c.index.find(word);
            return it == c.index.end() ? WordFrequency{} : it->second;
        };
        const auto query = retrieval::make_task_query(c.task, false, default_tokenizer(), frequency, symbols, files);
        EXPECT_EQ(query.file_match, c.file_match);
        EXPECT_EQ(query.symbol_match, c.symbol_match);
    }
}

}  // namespace
