// Related symbols of the same file and the usage example of a packed symbol.

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

Symbol sym(std::string fqn, std::string kind, std::optional<std::int64_t> file_id = 7, std::optional<std::int64_t> id = 1) {
    Symbol s;
    s.id = id;
    s.fqn = fqn;
    s.name = std::move(fqn);
    s.kind = std::move(kind);
    s.file_id = file_id;
    return s;
}

class EnrichmentTest : public ::testing::Test {
protected:
    StrictMock<MockRepository> repo;
    MockTokenizer tokenizer;
    ContextBuilder builder{repo, nullptr, {.tokenizer = &tokenizer}};
};

TEST_F(EnrichmentTest, RelatedSymbolsNeedAPathAndAFile) {
    // The strict mock fails on any query.
    EXPECT_EQ(builder._get_related_symbols(sym("m.f", "function"), std::nullopt), std::nullopt);
    EXPECT_EQ(builder._get_related_symbols(sym("m.f", "function"), ""), std::nullopt);
    EXPECT_EQ(builder._get_related_symbols(sym("m.f", "function", std::nullopt), "m.py"), std::nullopt);
    EXPECT_EQ(builder._get_related_symbols(sym("m.f", "function", 0), "m.py"), std::nullopt);
}

TEST_F(EnrichmentTest, RelatedSymbolsAreTheFilesClassesAndFunctions) {
    struct Case {
        const char* what;
        std::vector<Symbol> file;
        std::int64_t limit;
        std::optional<std::vector<RelatedRow>> expected;
    };
    const Case cases[] = {
        {"class, itself, field, four functions",
         {sym("m.C", "class"), sym("m.f", "function"), sym("m.C.x", "field"), sym("m.g", "function"),
          sym("m.h", "function"), sym("m.i", "function"), sym("m.j", "function")},
         3,
         std::vector<RelatedRow>{{"m.C", "class"}, {"m.g", "function"}, {"m.h", "function"}}},
        {"only itself", {sym("m.f", "function")}, 3, std::nullopt},
        {"only variables, constants and other kinds besides it",
         {sym("m.V", "variable"), sym("m.f", "function"), sym("m.K", "constant"), sym("m.I", "interface"),
          sym("m.S", "struct"), sym("m.M", "module")},
         3, std::nullopt},
        {"an overload shares the name and is left out",
         {sym("m.f", "method"), sym("m.f", "function"), sym("m.C.run", "method")},
         3,
         std::vector<RelatedRow>{{"m.C.run", "method"}}},
        {"kinds compared exactly", {sym("m.A", "Class"), sym("m.B", "functions")}, 3, std::nullopt},
        {"larger limit", {sym("m.a", "function"), sym("m.b", "method"), sym("m.c", "class"), sym("m.d", "function")}, 10,
         std::vector<RelatedRow>{{"m.a", "function"}, {"m.b", "method"}, {"m.c", "class"}, {"m.d", "function"}}},
        {"limit zero leaves nothing", {sym("m.a", "function")}, 0, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_CALL(repo, get_symbols_by_file(7)).WillOnce(Return(c.file));
        EXPECT_EQ(builder._get_related_symbols(sym("m.f", "function"), "m.py", c.limit), c.expected);
        ::testing::Mock::VerifyAndClearExpectations(&repo);
    }
}

Reference ref(std::string usage, std::optional<CallerSymbol> caller, std::optional<std::string> context = std::nullopt) {
    return {std::move(usage), std::move(caller), std::move(context)};
}

TEST_F(EnrichmentTest, UsageExampleNeedsAnIdAndReferences) {
    EXPECT_EQ(builder._get_usage_example(sym("m.f", "function", 7, std::nullopt)), std::nullopt);
    EXPECT_EQ(builder._get_usage_example(sym("m.f", "function", 7, 0)), std::nullopt);
    EXPECT_CALL(repo, get_references("m.f")).WillOnce(Return(ReferencesResult{{}, 0}));
    EXPECT_EQ(builder._get_usage_example(sym("m.f", "function")), std::nullopt);
}

TEST_F(EnrichmentTest, UsageExampleForms) {
    const CallerSymbol run_fn{"pkg.run", "function", "run"};
    Symbol with_signature = sym("pkg.run", "function");
    with_signature.signature = "function run(task)";
    Symbol without_signature = sym("pkg.run", "function");
    Symbol empty_signature = sym("pkg.run", "function");
    empty_signature.signature = "";

    struct Case {
        const char* what;
        std::vector<Reference> refs;
        // The caller the index holds for "pkg.run"; not asked when `asks_caller` is false.
        bool asks_caller;
        std::optional<Symbol> caller;
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {"caller with a signature", {ref("call", CallerSymbol{"pkg.run", "method", "other"})}, true, with_signature,
         "Used in: function run(task)"},
        {"caller without a signature", {ref("call", run_fn)}, true, without_signature, "Called by function `run`"},
        {"caller with an empty signature", {ref("call", run_fn)}, true, empty_signature, "Called by function `run`"},
        {"caller unknown to the index", {ref("call", run_fn)}, true, std::nullopt, "Called by function `run`"},
        {"no fqn in the map", {ref("call", CallerSymbol{std::nullopt, "function", "run"})}, false, std::nullopt,
         "Called by function `run`"},
        {"empty fqn is not looked up", {ref("call", CallerSymbol{"", "function", "run"})}, false, std::nullopt,
         "Called by function `run`"},
        {"kind without name takes the context as written",
         {ref("call", CallerSymbol{std::nullopt, "function", std::nullopt}, " run(x)")}, false, std::nullopt,
         "Called by function ` run(x)`"},
        {"kind with neither name nor context", {ref("call", CallerSymbol{std::nullopt, "method", std::nullopt})}, false,
         std::nullopt, "Called by method ``"},
        {"an empty name is still the name", {ref("call", CallerSymbol{std::nullopt, "function", ""}, "ctx")}, false,
         std::nullopt, "Called by function ``"},
        {"name alone without kind", {ref("call", CallerSymbol{std::nullopt, std::nullopt, "run"})}, false, std::nullopt,
         "run"},
        {"unknown fqn only: the untrimmed context",
         {ref("call", CallerSymbol{"pkg.gone", std::nullopt, std::nullopt}, "  run(x)  ")}, true, std::nullopt,
         "  run(x)  "},
        {"unknown fqn only, no context", {ref("call", CallerSymbol{"pkg.gone", std::nullopt, std::nullopt})}, true,
         std::nullopt, std::nullopt},
        {"no caller: the trimmed context", {ref("call", std::nullopt, "  run(x)  ")}, false, std::nullopt, "run(x)"},
        {"empty caller map counts as none", {ref("call", CallerSymbol{}, "\trun(x)\n")}, false, std::nullopt, "run(x)"},
        {"no caller, blank context gives the empty text", {ref("call", std::nullopt, "   ")}, false, std::nullopt, ""},
        {"no caller, no context", {ref("call", std::nullopt)}, false, std::nullopt, std::nullopt},
        {"the first call wins over an earlier import",
         {ref("import", std::nullopt, "import f"), ref("call", std::nullopt, "f()"), ref("call", std::nullopt, "g()")},
         false, std::nullopt, "f()"},
        {"no call: the first reference", {ref("import", std::nullopt, "import f"), ref("type", std::nullopt, "x: f")},
         false, std::nullopt, "import f"},
        {"usage type compared exactly", {ref("Call", std::nullopt, "first"), ref("call ", std::nullopt, "second")},
         false, std::nullopt, "first"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_CALL(repo, get_references("m.f")).WillOnce(Return(ReferencesResult{c.refs, 99}));
        if (c.asks_caller) {
            const std::string fqn = *c.refs.front().caller_symbol->fqn;
            EXPECT_CALL(repo, get_symbol_by_fqn(fqn)).WillOnce(Return(c.caller));
        }
        EXPECT_EQ(builder._get_usage_example(sym("m.f", "function")), c.expected);
        ::testing::Mock::VerifyAndClearExpectations(&repo);
    }
}

}  // namespace
