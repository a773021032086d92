// Pack records, the token estimate and the builder's own state.

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/fixture_harness.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"
#include "orvane_kestrix/workers/context_builder/token_estimate.hpp"

namespace orvane_kestrix {
namespace {

std::vector<std::string> keys_of(const OrderedJson& object) {
    std::vector<std::string> out;
    for (const auto& [key, value] : object.items()) out.push_back(key);
    return out;
}

TEST(ContextPackTest, ToDictWritesSevenKeysWithoutNotesAndEightWithNotesFifth) {
    ContextPack pack;
    const std::vector<std::string> seven = {"symbols", "files", "tests", "recommendations",
                                            "tokens_used", "indexing_in_progress", "progress"};
    EXPECT_EQ(keys_of(pack.to_dict()), seven);
    EXPECT_EQ(pack.to_dict().dump(),
              R"({"symbols":[],"files":[],"tests":[],"recommendations":[],"tokens_used":0,)"
              R"("indexing_in_progress":false,"progress":100})");

    pack.notes.push_back("a note");
    auto eight = seven;
    eight.insert(eight.begin() + 4, "notes");
    EXPECT_EQ(keys_of(pack.to_dict()), eight);

    pack.notes.clear();
    EXPECT_EQ(keys_of(pack.to_dict()), seven);
}

TEST(ContextPackTest, PacksOwnTheirSequences) {
    ContextPack first;
    ContextPack second;
    first.symbols.push_back(SymbolRow{.fqn = "a", .name = "a", .kind = "function"});
    first.files.push_back("a.py");
    first.notes.push_back("n");
    EXPECT_TRUE(second.symbols.empty());
    EXPECT_TRUE(second.files.empty());
    EXPECT_TRUE(second.notes.empty());
}

TEST(ContextPackTest, SymbolRowKeysFollowTheFixedOrderAndOptionalKeysOnlyWhenSet) {
    SymbolRow row{.fqn = "m.f", .name = "f", .kind = "function", .file = "m.py", .line = 3};
    EXPECT_EQ(row.to_json().dump(),
              R"({"fqn":"m.f","name":"f","kind":"function","file":"m.py","line":3,"signature":null,)"
              R"("docstring":null,"docstring_truncated":false})");
    row.parameters = std::vector<ParameterRow>{{"x", "the x", "int"}, {"y", "the y", std::nullopt}};
    row.related = std::vector<RelatedRow>{{"m.g", "function"}};
    row.usage_example = "Called by function `run`";
    row.has_tests = true;
    row.snippet = "def f(): pass";
    EXPECT_EQ(keys_of(row.to_json()),
              (std::vector<std::string>{"fqn", "name", "kind", "file", "line", "signature", "docstring",
                                        "docstring_truncated", "parameters", "related", "usage_example",
                                        "has_tests", "snippet"}));
    EXPECT_EQ(row.to_json()["parameters"].dump(),
              R"([{"name":"x","description":"the x","type":"int"},{"name":"y","description":"the y"}])");
    // Empty optional values are not written.
    row.related = std::vector<RelatedRow>{};
    row.usage_example = "";
    row.snippet = "";
    row.has_tests = false;
    EXPECT_EQ(keys_of(row.to_json()).size(), 9u);
}

TEST(ContextPackTest, TestRowsAreWrittenWithFileThenFor) {
    ContextPack pack;
    pack.tests.push_back(TestRow{"tests/test_a.py", "a.py"});
    EXPECT_EQ(pack.to_dict()["tests"].dump(), R"([{"file":"tests/test_a.py","for":"a.py"}])");
}

// The index stores each symbol's token count from the row head; it must price exactly the
// text the pack's JSON writer prints for those members, whatever the strings hold.
TEST(ContextPackTest, StoredTokenCountPricesTheRowHeadAsTheJsonWriterPrintsIt) {
    const std::string long_fqn(90, 'x');
    const SymbolRow rows[] = {
        {.fqn = "shop.cart.total", .name = "total", .kind = "function", .file = "shop/cart.py", .line = 12,
         .signature = "def total(items) -> int"},
        {.fqn = "a\"quoted\"\\b", .name = "tab\there", .kind = "method", .file = "dir/ünïcödé.py", .line = 1},
        {.fqn = long_fqn, .name = "\x01\x1f", .kind = "class", .file = "x\ny", .line = 123456789,
         .signature = "€ λ 漢字"},
    };
    for (const auto& row : rows) {
        const OrderedJson written = row.to_json();
        OrderedJson head = OrderedJson::object();
        for (const auto& [key, value] : written.items()) {
            if (key == "docstring") break;
            head[key] = value;
        }
        EXPECT_EQ(row.head().estimated_tokens(), estimate_tokens(head.dump())) << head.dump();
    }
}

TEST(EstimateTokensTest, CountsCodePointsTruncatedWithAFloorOfOne) {
    struct Case {
        std::optional<std::string> text;
        double ratio;
        std::int64_t tokens;
    };
    const Case cases[] = {
        {std::nullopt, 4.0, 0},
        {"", 4.0, 0},
        {"abc", 4.0, 1},
        {"abcdefg", 4.0, 1},
        {"abcdefgh", 4.0, 2},
        {"abcdefghi", 4.0, 2},
        {std::string(1000, 'x'), 4.0, 250},
        {"abcdefghij", 3.0, 3},
        // Three characters of two bytes each: one token, not six bytes' worth.
        {"\xC3\xA9\xC3\xA9\xC3\xA9", 4.0, 1},
        // Eight four-byte characters: 2 tokens (32 bytes would give 8).
        {"\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80"
         "\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80",
         4.0, 2},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(estimate_tokens(c.text, c.ratio), c.tokens) << c.text.value_or("<absent>");
    }
}

TEST(EstimateTokensTest, ARatioOfZeroThrows) {
    EXPECT_THROW(estimate_tokens(std::string_view("abc"), 0.0), std::domain_error);
}

struct EmptyIndex : testing::FixtureHarness {
    EmptyIndex() : FixtureHarness(R"({"request": {"task": "t"}})") {}
};

TEST(ContextBuilderTest, ANewBuilderHasNoRetrieverListsNoTestsAndReportsIndexingDone) {
    EmptyIndex index;
    ContextBuilder builder(index.repository);
    EXPECT_EQ(builder.retriever, nullptr);
    EXPECT_FALSE(builder.list_tests);
    EXPECT_FALSE(builder._indexing_in_progress);
    EXPECT_EQ(builder._indexing_progress, 100);
    EXPECT_TRUE(index.log.calls().empty()) << "the constructor touches neither index nor retriever";
    static_assert(!std::is_constructible_v<ContextBuilder, Repository&, HybridRetriever*, bool>,
                  "list_tests is given by name only");
}

TEST(ContextBuilderTest, SetIndexingStatusStoresBothValuesUnchangedAndUncoupled) {
    EmptyIndex index;
    ContextBuilder builder(index.repository);
    struct Case {
        bool in_progress;
        std::optional<std::int64_t> progress;
        bool stored_flag;
        std::int64_t stored_progress;
    };
    const Case cases[] = {
        {true, 40, true, 40},   {false, std::nullopt, false, 100}, {true, 150, true, 150},
        {false, -5, false, -5}, {true, std::nullopt, true, 100},   {false, 0, false, 0},
    };
    for (const auto& c : cases) {
        if (c.progress) {
            builder.set_indexing_status(c.in_progress, *c.progress);
        } else {
            builder.set_indexing_status(c.in_progress);
        }
        EXPECT_EQ(builder._indexing_in_progress, c.stored_flag);
        EXPECT_EQ(builder._indexing_progress, c.stored_progress);
    }
}

TEST(ContextBuilderTest, PacksCarryTheStatusOfTheirBuildAndKeepIt) {
    EmptyIndex index;
    ContextPack before = index.builder->build_context_pack({.task = "t"});
    index.builder->set_indexing_status(true, 40);
    ContextPack during = index.builder->build_context_pack({.task = "t"});
    EXPECT_FALSE(before.indexing_in_progress);
    EXPECT_EQ(before.progress, 100);
    EXPECT_TRUE(during.indexing_in_progress);
    EXPECT_EQ(during.progress, 40);
}

TEST(ContextBuilderTest, KindTablesCoverTheSameFourteenKinds) {
    ASSERT_EQ(ContextBuilder::KIND_WEIGHTS.size(), 14u);
    for (const auto& [kind, weight] : ContextBuilder::KIND_WEIGHTS) {
        EXPECT_TRUE(ContextBuilder::KIND_PRIORITY.count(kind)) << kind;
    }
    EXPECT_EQ(ContextBuilder::KIND_WEIGHTS.at("constant"), 0.35);
    EXPECT_EQ(ContextBuilder::KIND_PRIORITY.at("enum"), 85);
}

}  // namespace
}  // namespace orvane_kestrix
