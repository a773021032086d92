// The fixture index: its LIKE matching, its answers, failure injection, the call log and the
// checks on the fixture's shape.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/fixture_harness.hpp"

namespace orvane_kestrix {
namespace {

using testing::FixtureHarness;
using Json = nlohmann::ordered_json;

TEST(LikeMatchTest, MatchesTheWholeNameWithWildcardsAndAsciiCaseFolding) {
    struct Case {
        const char* pattern;
        const char* text;
        bool match;
    };
    const Case cases[] = {
        {"read", "read", true},
        {"read", "READ", true},          // ASCII letters fold
        {"read", "reader", false},       // the whole name
        {"%read%", "FileReader", true},
        {"%read%", "rea", false},
        {"read%", "readFile", true},
        {"%read", "readFile", false},
        {"r_ad", "road", true},
        {"r_ad", "rad", false},
        {"_", "\xC3\xA9", true},         // "_" takes one code point, not one byte
        {"__", "\xC3\xA9", false},
        {"\xC3\xA9t\xC3\xA9", "\xC3\x89T\xC3\x89", false},  // only A-Z and a-z fold
        {"\xC3\xA9t\xC3\xA9", "\xC3\xA9T\xC3\xA9", true},
        {"%", "", true},
        {"%%", "anything", true},
        {"", "", true},
        {"", "a", false},
        {"a.b", "a.b", true},            // every other character is literal
        {"a.b", "axb", false},
        {"a*b", "aab", false},
        {"[ab]", "a", false},
        {"%a%b%c", "xxaxxbxxc", true},
        {"%a%b%c", "xxaxxbxxcx", false},
        {"50\\%", "50%", false},          // no escape character: "\" is literal
        {"50\\%", "50\\", true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(like_match(c.pattern, c.text), c.match) << c.pattern << " ~ " << c.text;
    }
}

constexpr const char* INDEX = R"({
  "symbols": [
    {"id": 1, "name": "read", "file_id": 10, "kind": "function"},
    {"id": 2, "name": "Reader", "fqn": "io.Reader", "file_id": 11, "kind": "class"},
    {"id": 3, "name": "readme", "file_id": 12, "kind": "section"},
    {"id": 4, "name": "read_all", "file_id": 99},
    {"id": null, "name": "orphan"},
    {"id": 2, "name": "shadow", "fqn": "io.Reader"}
  ],
  "files": [
    {"id": 10, "path": "src/read.py"},
    {"id": 11, "path": "src/reader.py", "is_test": false},
    {"id": 12, "path": "README.md", "is_source": false},
    {"id": 13, "path": "tests/test_read.py", "is_test": true},
    {"id": null, "path": "nowhere.py", "is_test": true}
  ],
  "components": [
    {"id": 5, "name": "core", "file_ids": [10, null, 11]},
    {"id": 5, "name": "shadowed", "file_ids": [12]}
  ],
  "fan_in": {"1": 7, "2": 0},
  "references": {"read": [{"usage_type": "import", "caller_symbol": {"fqn": "app.main"}, "context": "import read"}]},
  "covering_tests": [
    {"test": "tests/test_read.py", "reaches": {"src/read.py": 0, "src/reader.py": 2}},
    {"test": "tests/test_other.py", "reaches": {"src/other.py": 1}}
  ],
  "retriever": {"hits": [{"id": 2, "score": 0.9}, {"id": null, "score": 0.5}, {"id": 77, "score": 0.1}], "note": "partial"},
  "fail": {"get_symbol_by_fqn": {"message": "index gone", "from_call": 2}, "no_such_op": "ignored"},
  "request": {"task": "read things"}
})";

TEST(FixtureIndexTest, SearchMatchesNamesInTableOrderHonoursSourceOnlyAndCutsToTheLimit) {
    FixtureHarness index(INDEX);
    auto all = index.repository.search_symbols("%read%", 50, false);
    std::vector<std::int64_t> ids;
    for (const auto& s : all.symbols) ids.push_back(s.id.value_or(-1));
    EXPECT_EQ(ids, (std::vector<std::int64_t>{1, 2, 3, 4}));

    // README.md is not a source file; a symbol whose file is unknown stays.
    auto source = index.repository.search_symbols("%read%", 50, true);
    ids.clear();
    for (const auto& s : source.symbols) ids.push_back(s.id.value_or(-1));
    EXPECT_EQ(ids, (std::vector<std::int64_t>{1, 2, 4}));

    auto cut = index.repository.search_symbols("%", 2, false);
    EXPECT_EQ(cut.symbols.size(), 2u);
}

TEST(FixtureIndexTest, AnswersFollowTheTables) {
    FixtureHarness index(INDEX);
    auto& repo = index.repository;

    EXPECT_EQ(repo.get_component_by_name("core")->id, 5);
    EXPECT_FALSE(repo.get_component_by_name("billing"));
    auto files = repo.get_files_by_component(5);  // the first component with that id
    ASSERT_EQ(files.size(), 3u);
    EXPECT_EQ(files[0].id, 10);
    EXPECT_EQ(files[1].id, std::nullopt);

    Symbol no_id;
    Symbol unknown_file;
    unknown_file.id = 4;
    unknown_file.file_id = 99;
    auto paths = repo.get_file_paths_batch({index.fixture.symbols[0], no_id, unknown_file});
    EXPECT_EQ(paths, (SymbolPathMap{{1, "src/read.py"}}));

    EXPECT_EQ(repo.production_fan_in({1, 2, 3}), (FanInMap{{1, 7}, {2, 0}}));
    EXPECT_EQ(repo.test_paths({"src/read.py", "tests/test_read.py", "nowhere.py"}),
              (std::unordered_set<std::string>{"tests/test_read.py", "nowhere.py"}));
    EXPECT_TRUE(repo.test_paths({"src/read.py"}).empty());

    auto with_paths = repo.symbols_with_paths({2, std::nullopt, 77});
    ASSERT_EQ(with_paths.size(), 1u);
    EXPECT_EQ(with_paths.at(2).first.name, "Reader");  // the first symbol with that id
    EXPECT_EQ(with_paths.at(2).second, "src/reader.py");
    EXPECT_TRUE(repo.symbols_with_paths({}).empty());

    auto covering = repo.find_covering_tests({"src/reader.py"});
    ASSERT_EQ(covering.size(), 1u);
    EXPECT_EQ(covering[0].alone("src/reader.py")->rank, 2);
    EXPECT_FALSE(covering[0].alone("src/read.py")) << "only asked paths are answered";

    EXPECT_EQ(repo.get_symbols_by_file(10).size(), 1u);
    auto refs = repo.get_references("read");
    ASSERT_EQ(refs.references.size(), 1u);
    EXPECT_EQ(refs.total, 1);
    EXPECT_EQ(refs.references[0].caller_symbol->fqn, "app.main");
    EXPECT_FALSE(refs.references[0].caller_symbol->kind);
    EXPECT_TRUE(repo.get_references("nothing").references.empty());

    auto retrieved = index.retriever->retrieve("t", 2, false);
    ASSERT_EQ(retrieved.hits.size(), 2u);
    EXPECT_EQ(retrieved.hits[0].symbol.kind, "class");  // the kind of the first symbol with the id
    EXPECT_EQ(retrieved.hits[1].symbol.kind, "function");
    EXPECT_EQ(retrieved.note, "partial");
}

TEST(FixtureIndexTest, FailingOperationsThrowFromTheirNthCallAndAreLoggedFirst) {
    FixtureHarness index(INDEX);
    EXPECT_EQ(index.repository.get_symbol_by_fqn("io.Reader")->id, 2);
    EXPECT_THROW(
        {
            try {
                index.repository.get_symbol_by_fqn("io.Reader");
            } catch (const std::runtime_error& e) {
                EXPECT_STREQ(e.what(), "index gone");
                throw;
            }
        },
        std::runtime_error);
    EXPECT_THROW(index.repository.get_symbol_by_fqn("x"), std::runtime_error);
    EXPECT_EQ(index.ops(), (std::vector<std::string>{"get_symbol_by_fqn", "get_symbol_by_fqn", "get_symbol_by_fqn"}));

    FixtureHarness always(R"({"fail": {"search_symbols": {"message": "m", "from_call": 0}}, "request": {"task": "t"}})");
    EXPECT_THROW(always.repository.search_symbols("x", 50, true), std::runtime_error);
}

TEST(FixtureIndexTest, CallLogRendersEachOperationsArgument) {
    FixtureHarness index(INDEX);
    auto& repo = index.repository;
    repo.get_component_by_name("core");
    repo.get_files_by_component(5);
    repo.search_symbols("%read%", 50, true);
    Symbol no_id;
    repo.get_file_paths_batch({index.fixture.symbols[1], no_id});
    repo.production_fan_in({3, 1});
    repo.test_paths({"b.py", "a.py", "b.py", "\xC3\xA9.py", "Z.py"});
    repo.symbols_with_paths({2, std::nullopt});
    repo.find_covering_tests({"src/read.py"});
    repo.get_symbols_by_file(10);
    repo.get_references("read");
    repo.get_symbol_by_fqn("io.Reader");
    index.retriever->retrieve("the task", 25, true);
    index.tokenizer->query_names("the task");
    index.tokenizer->query_terms("the task");
    index.tokenizer->is_test_query(std::vector<std::string>{"a", "b"});

    const Json expected = Json::parse(R"([
      {"op": "get_component_by_name", "arg": "core"},
      {"op": "get_files_by_component", "arg": 5},
      {"op": "search_symbols", "arg": "%read%", "limit": 50, "source_only": true},
      {"op": "get_file_paths_batch", "arg": [2, null]},
      {"op": "production_fan_in", "arg": [3, 1]},
      {"op": "test_paths", "arg": ["Z.py", "a.py", "b.py", "\u00e9.py"]},
      {"op": "symbols_with_paths", "arg": [2, null]},
      {"op": "find_covering_tests", "arg": ["src/read.py"]},
      {"op": "get_symbols_by_file", "arg": 10},
      {"op": "get_references", "arg": "read"},
      {"op": "get_symbol_by_fqn", "arg": "io.Reader"},
      {"op": "retrieve", "arg": "the task", "limit": 25, "include_tests": true},
      {"op": "query_names", "arg": "the task"},
      {"op": "query_terms", "arg": "the task"},
      {"op": "is_test_query", "arg": ["a", "b"]}
    ])");
    EXPECT_EQ(index.log.calls(), expected) << index.log.calls().dump(2);
}

// A number beyond a double's range stops the JSON parser itself; the error still names the key.
TEST(FixtureShapeTest, NumbersTooLargeForADoubleNameTheirKey) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"request": {"task": "t", "token_budget": 1e400}})", "request.token_budget"},
        {R"({"symbols": [{"name": "a"}, {"token_count": -1e400}], "request": {"task": "t"}})", "symbols[1].token_count"},
        {R"({"covering_tests": [{"test": "t", "reaches": {"a.py": 1e999}}], "request": {"task": "t"}})",
         "covering_tests[0].reaches.a.py"},
        {R"([[1, 2, 1e400]])", "[0][2]"},
    };
    for (const auto& [json, key] : cases) {
        try {
            parse_fixture_text(json);
            ADD_FAILURE() << "accepted: " << json;
        } catch (const FixtureError& e) {
            EXPECT_THAT(e.what(), ::testing::HasSubstr(std::string(key) + ": number out of range")) << json;
        }
    }
}

TEST(FixtureShapeTest, DefaultsFillEveryOptionalKey) {
    Fixture f = parse_fixture(Json::parse(R"({"symbols": [{"name": "n", "start_line": 4}], "request": {"task": "t"}})"));
    const Symbol& s = f.symbols.at(0);
    EXPECT_EQ(s.fqn, "n");
    EXPECT_EQ(s.kind, "function");
    EXPECT_EQ(s.end_line, 4);
    EXPECT_FALSE(s.id);
    EXPECT_EQ(s.token_count(), 0);
    EXPECT_EQ(f.request.token_budget, 800);
    EXPECT_TRUE(f.request.source_only);
    EXPECT_FALSE(f.retriever);
    EXPECT_FALSE(f.tokenizer);
}

TEST(FixtureShapeTest, MalformedFixturesAreRejectedNamingTheKey) {
    struct Case {
        const char* json;
        const char* key;
    };
    const Case cases[] = {
        {R"({})", "request"},
        {R"({"request": {}})", "request.task"},
        {R"({"request": {"task": 3}})", "request.task"},
        {R"({"request": {"task": "t", "token_budget": null}})", "request.token_budget"},
        {R"({"request": {"task": "t", "token_budget": 1.5}})", "request.token_budget"},
        {R"({"symbols": [{"fqn": null}], "request": {"task": "t"}})", "symbols[0].fqn"},
        {R"({"symbols": [{"is_export": 1}], "request": {"task": "t"}})", "symbols[0].is_export"},
        {R"({"files": [{"id": 1}], "request": {"task": "t"}})", "files[0].path"},
        {R"({"fan_in": {"x1": 3}, "request": {"task": "t"}})", "fan_in.x1"},
        {R"({"request": {"task": "t", "seed_symbols": [42]}})", "request.seed_symbols[0]"},
        {R"({"request": {"task": "t", "repo_root": "/abs"}})", "request.repo_root"},
        {R"({"source_files": {"../up.py": "x"}, "request": {"task": "t"}})", "source_files.../up.py"},
        {R"({"source_files": {"/etc/x": "x"}, "request": {"task": "t"}})", "source_files./etc/x"},
        {R"({"tokenizer": null, "request": {"task": "t"}})", "tokenizer"},
        {R"({"references": {"f": [{"caller_symbol": {"kind": null}}]}, "request": {"task": "t"}})",
         "references.f[0].caller_symbol.kind"},
        {R"({"fail": {"retrieve": 3}, "request": {"task": "t"}})", "fail.retrieve"},
        {R"([1, 2])", "fixture"},
        // Numbers out of their documented range.
        {R"({"symbols": [{"token_count": -9223372036854775808}], "request": {"task": "t"}})", "symbols[0].token_count"},
        {R"({"symbols": [{"start_line": 18446744073709551615}], "request": {"task": "t"}})", "symbols[0].start_line"},
        {R"({"request": {"task": "t", "token_budget": 9223372036854775807}})", "request.token_budget"},
        {R"({"request": {"task": "t", "token_budget": -1}})", "request.token_budget"},
        {R"({"fan_in": {"1": -3}, "request": {"task": "t"}})", "fan_in.1"},
        {R"({"builder": {"indexing": {"progress": 101}}, "request": {"task": "t"}})", "builder.indexing.progress"},
        {R"({"request": {"task": "t", "repo_root": "a/../../etc"}})", "request.repo_root"},
    };
    for (const auto& c : cases) {
        try {
            parse_fixture(Json::parse(c.json));
            ADD_FAILURE() << "accepted: " << c.json;
        } catch (const FixtureError& e) {
            EXPECT_THAT(e.what(), ::testing::HasSubstr(std::string(c.key) + ":")) << c.json;
            EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos);
        }
    }
}

TEST(FixtureShapeTest, SeedSymbolsTakeIdsOrInlineSymbolsAndSourceFilesTakeBase64) {
    Fixture f = parse_fixture(Json::parse(R"({
      "symbols": [{"id": 7, "name": "a"}, {"id": 7, "name": "b"}],
      "source_files": {"x/a.py": {"base64": "/w0KYQ=="}, "b.py": "caf\u00e9"},
      "request": {"task": "t", "seed_symbols": [7, {"id": 9, "name": "inline"}]}
    })"));
    ASSERT_EQ(f.request.seed_symbols->size(), 2u);
    EXPECT_EQ((*f.request.seed_symbols)[0].name, "a");
    EXPECT_EQ((*f.request.seed_symbols)[1].name, "inline");
    EXPECT_EQ(f.source_files.at("x/a.py"), std::string("\xFF\r\na"));
    EXPECT_EQ(f.source_files.at("b.py"), "caf\xC3\xA9");
}

}  // namespace
}  // namespace orvane_kestrix
