// Task keywords, retriever seeds, the component filter, keyword candidates and ranking,
// over the fixture index.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/fixture_harness.hpp"
#include "orvane_kestrix/workers/context_builder/keywords.hpp"

namespace orvane_kestrix {
namespace {

using testing::FixtureHarness;
using Json = nlohmann::ordered_json;

Symbol make(std::optional<std::int64_t> id, std::string name, std::string kind, bool exported = false,
            std::string fqn = "") {
    Symbol s;
    s.id = id;
    s.name = name;
    s.fqn = fqn.empty() ? name : fqn;
    s.kind = std::move(kind);
    s.is_export = exported;
    return s;
}

std::vector<std::string> names_of(const std::vector<RankedSymbol>& ranked) {
    std::vector<std::string> out;
    for (const auto& r : ranked) out.push_back(r.symbol.name);
    return out;
}

TEST(TaskKeywordsTest, NamesLoweredFirstThenTermsEachOnceNoneShorterThanThree) {
    FixtureHarness index(R"({"tokenizer": {
        "names": ["ReaderPool", "build_context_pack", "io", "\u0130x"],
        "terms": ["reader", "pool", "readerpool", "io", "Abc", "ab", "x\u00e9\u00e9"]},
      "request": {"task": "t"}})");
    EXPECT_EQ(task_keywords("t", *index.tokenizer),
              (std::vector<std::string>{"readerpool", "build_context_pack",
                                        "i\xCC\x87x",  // "İx" lowercases to three code points
                                        "reader", "pool", "Abc", "x\xC3\xA9\xC3\xA9"}));
    EXPECT_EQ(index.ops(), (std::vector<std::string>{"query_names", "query_terms"}));

    FixtureHarness empty(R"({"tokenizer": {}, "request": {"task": "t"}})");
    EXPECT_TRUE(task_keywords("t", *empty.tokenizer).empty());
}

TEST(NameMatchTest, TakesTheBestLevelOverAllKeywords) {
    FixtureHarness index(R"({"request": {"task": "t"}})");
    const auto& b = *index.builder;
    struct Case {
        Symbol symbol;
        std::vector<std::string> keywords;
        double level;
    };
    const Case cases[] = {
        {make(1, "ReadFile", "function"), {"read"}, 0.8},
        {make(1, "FileReader", "function"), {"read"}, 0.6},
        {make(1, "open", "function", false, "pkg.reader.open"), {"read"}, 0.4},
        {make(1, "ReadFile", "function"), {"file", "readfile"}, 1.0},
        {make(1, "ReadFile", "function"), {"READFILE"}, 1.0},  // keywords are lowercased too
        {make(1, "anything", "function"), {""}, 0.8},          // the empty keyword is a prefix
        {make(1, "x", "function"), {}, 0.0},
        {make(1, "\xC4\xB0stanbul", "function"), {"i\xCC\x87stanbul"}, 1.0},  // full lowercasing
    };
    for (const auto& c : cases) {
        EXPECT_EQ(b._calculate_name_match(c.symbol, c.keywords), c.level) << c.symbol.name;
    }
}

TEST(RelevanceScoreTest, WeighsNameMatchExportAndKind) {
    FixtureHarness index(R"({"request": {"task": "t"}})");
    const auto& b = *index.builder;
    const std::vector<std::string> kw = {"parse"};
    struct Case {
        Symbol symbol;
        std::optional<std::vector<std::string>> prefer;
        double score;
    };
    const Case cases[] = {
        {make(1, "zzz", "gadget", true), std::nullopt, 0.3},
        {make(1, "zzz", "module", true), std::nullopt, 0.3 * 1.5},
        {make(1, "zzz", "property", true), std::nullopt, 0.3 * 0.4},
        {make(1, "parse", "variable"), std::nullopt, 0.5 * 0.3},
        {make(1, "parse", "constant", true), std::nullopt, 0.8 * 0.35},
        {make(1, "parse", "constant", true), std::vector<std::string>{"constant"}, 0.8 * (0.35 * 1.5)},
        {make(1, "f", "function", false, "m.parse.f"), std::nullopt, 0.2 * 1.8},
        {make(1, "parse", "class", true), std::vector<std::string>{"class"}, 3.0},
        {make(1, "parser", "module"), std::nullopt, 0.6000000000000001},
        {make(1, "parse", "Class", true), std::vector<std::string>{"class"}, 0.8},  // kinds are case-sensitive
    };
    for (const auto& c : cases) {
        EXPECT_DOUBLE_EQ(b._calculate_relevance_score(c.symbol, kw, c.prefer), c.score) << c.symbol.kind;
    }
    // The tie case must be bit-exact, not merely close.
    EXPECT_EQ(b._calculate_relevance_score(make(1, "parser", "module"), kw), 0.6000000000000001);
    EXPECT_EQ(b._calculate_relevance_score(make(1, "zzz", "enum", true), kw), 0.6);
}

TEST(RankSymbolsTest, TiesOnTheRoundedScoreGoByKindPriorityThenFanInThenInputOrder) {
    FixtureHarness index(R"({
      "files": [{"id": 1, "path": "a.py"}],
      "fan_in": {"3": 5, "4": 9},
      "request": {"task": "t"}})");
    std::vector<Symbol> candidates = {
        make(1, "parser", "module"),      // 0.6000000000000001, priority 70
        make(2, "zzz", "enum", true),     // 0.6, priority 85
        make(3, "zz1", "enum", true),     // 0.6, priority 85, fan-in 5
        make(4, "zz2", "enum", true),     // 0.6, priority 85, fan-in 9
        make(5, "zz3", "enum", true),     // 0.6, priority 85, fan-in 0: stays behind id 2
        make(6, "tiny", "property", true),  // 0.12: dropped
        make(7, "odd", "gadget", true),   // exactly 0.3: kept, priority 0
    };
    auto ranked = index.builder->_rank_symbols(candidates, {"parse"});
    EXPECT_EQ(names_of(ranked), (std::vector<std::string>{"zz2", "zz1", "zzz", "zz3", "parser", "odd"}));
    EXPECT_EQ(ranked[4].score, 0.6000000000000001) << "scores are never rounded in the result";
}

TEST(RankSymbolsTest, SeedsArePinnedByPositionWhateverTheirRelevanceAndTestFilesDrop) {
    FixtureHarness index(R"({
      "files": [{"id": 1, "path": "a.py"}, {"id": 2, "path": "tests/test_a.py", "is_test": true}],
      "fan_in": {"10": 100},
      "request": {"task": "t"}})");
    auto with_file = [](Symbol s, std::int64_t file) {
        s.file_id = file;
        return s;
    };
    std::vector<Symbol> candidates = {
        with_file(make(10, "other", "variable"), 1),      // keyword hit scoring 0.0: dropped
        with_file(make(11, "unrelated", "variable"), 1),  // seed 1, relevance 0.0
        with_file(make(12, "parse", "class", true), 1),   // seed 0
        with_file(make(13, "in_test", "class"), 2),       // seed 2 in a test file: dropped
        with_file(make(14, "parse", "class", true), 1),   // keyword hit: 2.0
    };
    SeedRank seeds = {{12, 0}, {11, 1}, {13, 2}};
    auto ranked = index.builder->_rank_symbols(candidates, {"parse"}, false, std::nullopt, seeds);
    EXPECT_EQ(names_of(ranked), (std::vector<std::string>{"parse", "unrelated", "parse"}));
    EXPECT_EQ(ranked[0].score, 10.0);
    EXPECT_EQ(ranked[1].score, 10.0 - 0.001);
    EXPECT_EQ(ranked[2].score, 2.0);
    EXPECT_EQ(ranked[0].file_path, "a.py");
    // Seeds are left out of the fan-in request; the test-path request gets the distinct paths.
    const auto& calls = index.log.calls();
    ASSERT_EQ(index.ops(), (std::vector<std::string>{"get_file_paths_batch", "production_fan_in", "test_paths"}));
    EXPECT_EQ(calls[1]["arg"], Json::parse("[10, 14]"));
    EXPECT_EQ(calls[2]["arg"], Json::parse(R"(["a.py", "tests/test_a.py"])"));

    // With test files wanted, the seed in the test file stays and no test paths are asked.
    FixtureHarness again(R"({"files": [{"id": 2, "path": "t.py", "is_test": true}], "request": {"task": "t"}})");
    auto kept = again.builder->_rank_symbols({with_file(make(13, "in_test", "class"), 2)}, {}, true, std::nullopt,
                                             SeedRank{{13, 0}});
    EXPECT_EQ(kept.size(), 1u);
    EXPECT_EQ(again.ops(), (std::vector<std::string>{"get_file_paths_batch"}));
}

TEST(RankSymbolsTest, IndexCallsAreSkippedWhereNothingNeedsThem) {
    FixtureHarness index(R"({"request": {"task": "t"}})");
    EXPECT_TRUE(index.builder->_rank_symbols({}, {"x"}).empty());
    EXPECT_EQ(index.ops(), (std::vector<std::string>{"get_file_paths_batch", "test_paths"}));

    // An empty seed map behaves as none; a candidate without id is never in the fan-in request.
    FixtureHarness other(R"({"request": {"task": "t"}})");
    auto ranked = other.builder->_rank_symbols({make(std::nullopt, "parse", "function"), make(0, "parse", "function")},
                                               {"parse"}, true, std::nullopt, SeedRank{});
    EXPECT_EQ(ranked.size(), 2u);
    EXPECT_FALSE(ranked[0].file_path);
    EXPECT_EQ(other.ops(), (std::vector<std::string>{"get_file_paths_batch", "production_fan_in"}));
    EXPECT_EQ(other.log.calls()[1]["arg"], Json::parse("[0]"));
}

TEST(RankSymbolsTest, KeywordsBeyondTheTenthAreNotSearchedButStillScore) {
    FixtureHarness index(R"({
      "symbols": [{"id": 1, "name": "k01", "kind": "function"}, {"id": 2, "name": "eleventh", "kind": "function"}],
      "tokenizer": {"terms": ["k01", "k02", "k03", "k04", "k05", "k06", "k07", "k08", "k09", "k10", "eleventh"]},
      "request": {"task": "t", "seed_symbols": []}})");
    auto pack = index.builder->build_context_pack(index.fixture.request);
    for (const auto& call : index.log.calls()) EXPECT_NE(call["arg"], "eleventh");
    auto ranked = index.builder->_rank_symbols({index.fixture.symbols[1]},
                                               task_keywords("t", *index.tokenizer));
    ASSERT_EQ(ranked.size(), 1u);
    EXPECT_DOUBLE_EQ(ranked[0].score, 0.9);
}

TEST(RankSymbolsTest, FiveHundredCandidatesCostThreeIndexCalls) {
    FixtureHarness index(R"({"request": {"task": "t"}})");
    std::vector<Symbol> candidates;
    for (int i = 1; i <= 500; ++i) candidates.push_back(make(i, "parse" + std::to_string(i), "function"));
    auto ranked = index.builder->_rank_symbols(candidates, {"parse"});
    EXPECT_EQ(ranked.size(), 500u);
    EXPECT_EQ(index.log.calls().size(), 3u);
}

TEST(CandidateSearchTest, SearchesTheFirstTenKeywordsWithWideModePatterns) {
    FixtureHarness index(R"({
      "symbols": [{"id": 1, "name": "read"}, {"id": 0, "name": "readZero"}, {"name": "readNoId"},
                  {"id": 2, "name": "Reader"}, {"id": 3, "name": "io"}],
      "request": {"task": "t"}})");
    std::vector<std::string> keywords = {"read", "50%x", "io", "%%%", "a_b", "k6", "k7", "k8", "k9", "k10", "k11", "k12"};
    auto found = index.builder->_get_candidate_symbols(keywords, std::nullopt, true, true);
    std::vector<std::string> patterns;
    for (const auto& call : index.log.calls()) patterns.push_back(call["arg"].get<std::string>());
    EXPECT_EQ(patterns, (std::vector<std::string>{"%read%", "%50x%", "io", "%%", "%a_b%", "k6", "k7", "k8", "k9",
                                                  "%k10%"}));
    // Each id once at its first finding; no id and id 0 never enter.
    std::vector<std::int64_t> ids;
    for (const auto& s : found) ids.push_back(*s.id);
    EXPECT_EQ(ids, (std::vector<std::int64_t>{1, 2, 3}));

    FixtureHarness exact(R"({"request": {"task": "t"}})");
    exact.builder->_get_candidate_symbols({"50%x", "a_b"}, std::nullopt, false, false);
    EXPECT_EQ(exact.log.calls()[0]["arg"], "50%x");
    EXPECT_EQ(exact.log.calls()[1]["arg"], "a_b");
    EXPECT_EQ(exact.log.calls()[1]["source_only"], false);
}

TEST(CandidateSearchTest, TheComponentIsResolvedAfterTheSearchesAndFiltersByFile) {
    FixtureHarness index(R"({
      "symbols": [{"id": 1, "name": "run", "file_id": 10}, {"id": 2, "name": "run", "file_id": 11},
                  {"id": 3, "name": "run"}],
      "components": [{"id": 4, "name": "core", "file_ids": [11, null, 0]}, {"id": 0, "name": "zero"}],
      "request": {"task": "t"}})");
    auto found = index.builder->_get_candidate_symbols({"run"}, "core");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].id, 2);
    EXPECT_EQ(index.ops(), (std::vector<std::string>{"search_symbols", "get_component_by_name", "get_files_by_component"}));

    for (const char* name : {"billing", "zero"}) {
        FixtureHarness fresh(R"({"components": [{"id": 0, "name": "zero"}], "request": {"task": "t"}})");
        try {
            fresh.builder->_get_candidate_symbols({}, std::string(name));
            ADD_FAILURE() << name;
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(std::string(e.what()), std::string("Unknown component: ") + name);
        }
        EXPECT_EQ(fresh.ops(), (std::vector<std::string>{"get_component_by_name"}));
    }

    FixtureHarness none(R"({"request": {"task": "t"}})");
    EXPECT_FALSE(none.builder->_component_files(std::string("")));
    EXPECT_FALSE(none.builder->_component_files(std::nullopt));
    EXPECT_TRUE(none.log.calls().empty());
}

TEST(RetrievedTest, PreferredKindsBoostHitsAndUnknownIdsDrop) {
    FixtureHarness index(R"({
      "symbols": [{"id": 1, "name": "f", "kind": "function"}, {"id": 2, "name": "C", "kind": "class"},
                  {"id": 3, "name": "D", "kind": "class"}],
      "retriever": {"hits": [{"id": 1, "score": 0.7}, {"id": 2, "score": 0.5}, {"id": 3, "score": 0.4},
                             {"id": 99, "score": 0.3}, {"id": 1, "score": 0.2}], "note": "n"},
      "request": {"task": "t"}})");
    auto [symbols, note] = index.builder->_retrieved(*index.retriever, "t", false, 25, std::vector<std::string>{"class"});
    std::vector<std::string> names;
    for (const auto& s : symbols) names.push_back(s.name);
    EXPECT_EQ(names, (std::vector<std::string>{"C", "f", "D", "f"}));  // 0.75, 0.7, 0.6, (99 dropped), 0.2
    EXPECT_EQ(note, "n");
    EXPECT_EQ(index.log.calls()[1]["arg"], Json::parse("[2, 1, 3, 99, 1]"));

    FixtureHarness plain(R"({"retriever": {"hits": []}, "request": {"task": "t"}})");
    auto [none, no_note] = plain.builder->_retrieved(*plain.retriever, "t", true, 100, std::vector<std::string>{});
    EXPECT_TRUE(none.empty());
    EXPECT_FALSE(no_note);
    EXPECT_EQ(plain.log.calls()[1], Json::parse(R"({"op": "symbols_with_paths", "arg": []})"));
}

}  // namespace
}  // namespace orvane_kestrix
