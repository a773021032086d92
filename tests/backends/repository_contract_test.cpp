// The index contract over every backend, one suite: the SQLite index file and the PostgreSQL
// index tables (published from that file to a server this binary starts), both holding
// tests/sample_repo. Expected answers come from reading the sample sources; LIKE searches are
// also checked against the fixture index's reference matcher over every symbol, so each
// lookup route of each backend must agree with a plain scan.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "orvane_kestrix/fixture/fixture_repository.hpp"
#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/postgres/index_publisher.hpp"
#include "orvane_kestrix/postgres/postgres_repository.hpp"
#include "orvane_kestrix/storage/sqlite_repository.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"
#include "support/index_tree.hpp"
#include "support/postgres_server.hpp"
#include "support/scratch_dir.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix;

const fs::path kSample = fs::path(KESTRIX_TEST_DATA) / "sample_repo";

enum class Backend { sqlite, postgres };

fs::path make_temp_dir() {
    char pattern[] = "/tmp/kestrix-contract-XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

// The repository of the SQLite index at `index` on `backend`: the file itself, or what
// publishing it as `name` to the test server wrote.
std::unique_ptr<Repository> open_backend(Backend backend, const fs::path& index, const std::string& name) {
    if (backend == Backend::sqlite) return std::make_unique<SqliteRepository>(index);
    static const std::string url = kestrix_test::PostgresServer::shared().create_database("contract");
    postgres::Connection writer(url);
    postgres::publish_index(index, writer, name);
    return std::make_unique<postgres::PostgresRepository>(url, name);
}

std::vector<std::string> fqns(const std::vector<Symbol>& symbols) {
    std::vector<std::string> out;
    for (const auto& s : symbols) out.push_back(s.fqn);
    return out;
}

std::multiset<std::string> fqn_set(const std::vector<Symbol>& symbols) {
    std::multiset<std::string> out;
    for (const auto& s : symbols) out.insert(s.fqn);
    return out;
}

bool ids_ascending(const std::vector<Symbol>& symbols) {
    return std::is_sorted(symbols.begin(), symbols.end(), [](const Symbol& a, const Symbol& b) { return *a.id < *b.id; });
}

class RepositoryContract : public ::testing::TestWithParam<Backend> {
protected:
    // One index of the sample for the whole binary, and each backend's repository over it.
    static void SetUpTestSuite() {
        dir_ = new kestrix_test::ScratchDir("contract");
        kestrix_test::index_tree(kSample, index_path(), /*retrieval_tables=*/false);
        sqlite_ = new SqliteRepository(index_path());
    }
    static void TearDownTestSuite() {
        repositories_.clear();
        delete sqlite_;
        delete dir_;
    }
    void SetUp() override {
        auto& slot = repositories_[GetParam()];
        if (!slot.repository) {
            slot.repository = open_backend(GetParam(), index_path(), "sample/repo");
            // Every symbol with its file's source flag, read with the repository's own file query.
            slot.all = slot.repository->search_symbols("%", -1, false).symbols;
            for (const auto& s : slot.repository->search_symbols("%", -1, true).symbols) slot.source_ids.insert(*s.id);
        }
        current_ = &slot;
    }

    static fs::path index_path() { return dir_->path() / "index.db"; }
    Repository& repo() { return *current_->repository; }
    const std::vector<Symbol>& all() const { return current_->all; }
    const std::set<std::int64_t>& source_ids() const { return current_->source_ids; }

    Symbol by_fqn(const std::string& fqn) {
        auto s = repo().get_symbol_by_fqn(fqn);
        if (!s) throw std::runtime_error("no symbol " + fqn);
        return *s;
    }
    // Ids are the SQLite index's on every backend.
    static std::int64_t sqlite_file_id(const std::string& path) {
        storage::Statement q = sqlite_->database().prepare("SELECT id FROM files WHERE path = ?1");
        q.bind(1, path);
        if (!q.step()) throw std::runtime_error("no file " + path);
        return q.column_int64(0);
    }

    struct Opened {
        std::unique_ptr<Repository> repository;
        std::vector<Symbol> all;
        std::set<std::int64_t> source_ids;
    };
    static inline kestrix_test::ScratchDir* dir_ = nullptr;
    static inline SqliteRepository* sqlite_ = nullptr;
    static inline std::map<Backend, Opened> repositories_;
    Opened* current_ = nullptr;
};

TEST_P(RepositoryContract, EverySymbolIsListedOnceAndMarkdownSectionsAreNotSource) {
    const std::int64_t count = sqlite_->database().scalar_int("SELECT count(*) FROM symbols");
    ASSERT_EQ(static_cast<std::int64_t>(all().size()), count);
    EXPECT_TRUE(ids_ascending(all()));
    for (const auto& s : all()) {
        const bool source = source_ids().count(*s.id) > 0;
        EXPECT_EQ(source, s.kind != "section") << s.fqn;
    }
}

// Hand-checked answers: the names in the sample sources that each pattern matches.
TEST_P(RepositoryContract, SearchMatchesNamesLikeSqliteLike) {
    struct Case {
        std::string pattern;
        bool source_only;
        std::multiset<std::string> expected;
    };
    const std::vector<Case> cases = {
        {"total_price", true, {"python.shop.cart.total_price"}},
        {"TOTAL_PRICE", true, {"python.shop.cart.total_price"}},  // ASCII letters fold
        {"Total_Price", true, {"python.shop.cart.total_price"}},
        {"total", true, {"python.shop.cart.Cart.total", "Store.Basket.total"}},  // exact: not total_price
        {"ring", true, {"ring"}},
        {"matrix", true, {"sample.linalg.Matrix", "sample.linalg.Matrix.Matrix", "sample.linalg.Matrix.Matrix"}},
        {"at", true, {"sample.linalg.Matrix.at"}},  // two letters, exact
        {"io", true, {}},
        {"_", true, {"geometry.Point.X", "geometry.Point.Y"}},  // one character
        {"__", true, {"sample.linalg.Matrix.at"}},
        {"__", false, {"sample.linalg.Matrix.at", "docs.guide.Developer guide.Building.Go"}},
        {"ring_%", true, {"RING_CAPACITY", "ring_t", "ring_init", "ring_init", "ring_push", "ring_push", "ring_pop", "ring_pop"}},
        {"%format%", true, {"geometry.format", "web.src.format.formatPrice", "web.src.format.Formatter",
                            "web.src.format.Formatter.formatAll"}},
        {"%FORMAT", true, {"geometry.format"}},
        {"building", true, {}},  // a Markdown section
        {"building", false, {"docs.guide.Developer guide.Building"}},
        {"%stock%", true, {"com.example.InventoryTest.addsStock", "com.example.InventoryTest.rejectsTooMuchStock",
                           "com.example.Inventory.MAX_STOCK", "com.example.Inventory.stock"}},
        {"%_price%", true, {"python.shop.cart.total_price", "web.src.format.formatPrice",
                            "python.tests.test_cart.test_total_price_of_nothing"}},
        {"nosuchname", true, {}},
        {"%nosuchname%", true, {}},
    };
    for (const auto& c : cases) {
        const auto result = repo().search_symbols(c.pattern, 50, c.source_only);
        EXPECT_EQ(fqn_set(result.symbols), c.expected) << c.pattern << " source_only=" << c.source_only;
        EXPECT_TRUE(ids_ascending(result.symbols)) << c.pattern;
    }
}

// Every route (exact, trigram, prefix range, scan) against a plain LIKE over all symbols.
TEST_P(RepositoryContract, SearchAgreesWithAPlainScanForEveryRoute) {
    const std::vector<std::string> patterns = {
        "%",     "%%",        "%%%",      "_%",       "%_",       "%a%",       "%io%",     "%at%",   "io%",
        "Ma%",   "mA_rix",    "r%g",      "%ing",     "%ring%",   "%RING%",    "ring_%_",  "p%e",    "%e%e%",
        "%_%_%", "get%",      "%Product%", "Product", "productrow", "%price%", "__init__", "_log",   "%x",
        "X",     "%Test%",    "test_%",   "%a_d%",     "%st_ck%",  "Z%",       "zz%",      "%.%",     "% %",
        "%\"ab%", "%ri\"ng%", "%ring%push%", "%push%ring%", "%Dist%", "%_%ring",
    };
    for (const bool source_only : {true, false}) {
        for (const auto& pattern : patterns) {
            std::vector<std::string> expected;
            for (const auto& s : all()) {
                if (source_only && !source_ids().count(*s.id)) continue;
                if (like_match(pattern, s.name)) expected.push_back(s.fqn);
            }
            const auto result = repo().search_symbols(pattern, -1, source_only);
            EXPECT_EQ(fqns(result.symbols), expected) << pattern << " source_only=" << source_only;
        }
    }
}

TEST_P(RepositoryContract, SearchCutsToTheLimit) {
    const auto all = repo().search_symbols("%", -1, true).symbols.size();
    ASSERT_GT(all, 50u);
    for (const std::string pattern : {"%%", "%", "%e%", "%ing%", "r%"}) {
        const auto every = repo().search_symbols(pattern, -1, true);
        for (const std::int64_t limit : {std::int64_t{0}, std::int64_t{1}, std::int64_t{5}, std::int64_t{50},
                                         std::numeric_limits<std::int64_t>::max()}) {
            const auto cut = repo().search_symbols(pattern, limit, true);
            const auto kept = std::min<std::int64_t>(limit, static_cast<std::int64_t>(every.symbols.size()));
            ASSERT_EQ(static_cast<std::int64_t>(cut.symbols.size()), kept) << pattern << " " << limit;
            for (std::size_t i = 0; i < cut.symbols.size(); ++i) EXPECT_EQ(cut.symbols[i].id, every.symbols[i].id);
        }
    }
    // Markdown sections are the only symbols of files that are not source code.
    EXPECT_EQ(repo().search_symbols("%", -1, false).symbols.size() - all, 8u);
}

TEST_P(RepositoryContract, ComponentsAndTheirFiles) {
    const auto python = repo().get_component_by_name("python");
    ASSERT_TRUE(python && python->id);
    std::set<std::string> paths;
    for (const auto& file : repo().get_files_by_component(*python->id)) paths.insert(file.path);
    EXPECT_EQ(paths, (std::set<std::string>{"python/pyproject.toml", "python/shop/__init__.py", "python/shop/cart.py",
                                            "python/tests/test_cart.py"}));
    const auto root = repo().get_component_by_name(".");
    ASSERT_TRUE(root && root->id);
    std::set<std::string> root_paths;
    for (const auto& file : repo().get_files_by_component(*root->id)) root_paths.insert(file.path);
    EXPECT_EQ(root_paths, std::set<std::string>{"README.md"});

    EXPECT_FALSE(repo().get_component_by_name("no/such/component"));
    EXPECT_FALSE(repo().get_component_by_name("Python"));  // names are exact
    EXPECT_TRUE(repo().get_files_by_component(987654).empty());
}

TEST_P(RepositoryContract, FilePathsOfSymbolsInOneBatch) {
    Symbol cart = by_fqn("python.shop.cart.Cart");
    Symbol point = by_fqn("geometry.Point");
    Symbol no_id = cart;
    no_id.id.reset();
    Symbol no_file = point;
    no_file.id = 424242;
    no_file.file_id.reset();
    Symbol unknown_file = point;
    unknown_file.id = 434343;
    unknown_file.file_id = 987654;
    const auto paths = repo().get_file_paths_batch({cart, point, no_id, no_file, unknown_file, cart});
    EXPECT_EQ(paths, (SymbolPathMap{{*cart.id, "python/shop/cart.py"}, {*point.id, "go/geometry/point.go"}}));
    EXPECT_TRUE(repo().get_file_paths_batch({}).empty());
}

TEST_P(RepositoryContract, ProductionFanInCountsOnlyUsesOutsideTests) {
    // Inventory.count is called by Inventory.add; Inventory.add only by InventoryTest.
    const Symbol count = by_fqn("com.example.Inventory.count");
    const Symbol add = by_fqn("com.example.Inventory.add");
    const Symbol test = by_fqn("com.example.InventoryTest.addsStock");
    const auto fan_in = repo().production_fan_in({*count.id, *add.id, *test.id, 987654, *count.id});
    EXPECT_EQ(fan_in.size(), 3u);
    EXPECT_EQ(fan_in.at(*count.id), 1);
    EXPECT_EQ(fan_in.at(*add.id), 0);
    EXPECT_EQ(fan_in.at(*test.id), 0);
    EXPECT_FALSE(fan_in.count(987654));
}

TEST_P(RepositoryContract, TestPathsKeepsOnlyTestFiles) {
    struct Case {
        std::vector<std::string> paths;
        std::unordered_set<std::string> expected;
    };
    const std::vector<Case> cases = {
        {{"python/tests/test_cart.py", "python/shop/cart.py", "python/tests/test_cart.py", "no/such.py",
          "web/test/format.test.js", "web/src/api.spec.ts", "go/geometry/point_test.go"},
         {"python/tests/test_cart.py", "web/test/format.test.js", "web/src/api.spec.ts", "go/geometry/point_test.go"}},
        {{"python/shop/cart.py", "README.md", "docs/guide.md"}, {}},
        {{"Python/Tests/Test_Cart.py"}, {}},  // paths are exact
        {{}, {}},
    };
    for (const auto& c : cases) EXPECT_EQ(repo().test_paths(c.paths), c.expected);
}

TEST_P(RepositoryContract, SymbolsWithPathsByIdAbsentIdsMatchNothing) {
    EXPECT_TRUE(repo().symbols_with_paths({}).empty());
    EXPECT_TRUE(repo().symbols_with_paths({std::nullopt, 987654}).empty());

    const Symbol total_price = by_fqn("python.shop.cart.total_price");
    const Symbol expr = by_fqn("parser.Expr");
    const auto found = repo().symbols_with_paths({expr.id, std::nullopt, total_price.id, 987654, expr.id});
    ASSERT_EQ(found.size(), 2u);
    const auto& [symbol, path] = found.at(*total_price.id);
    EXPECT_EQ(path, "python/shop/cart.py");
    EXPECT_EQ(symbol.name, "total_price");
    EXPECT_EQ(symbol.kind, "function");
    EXPECT_EQ(symbol.start_line, 69);
    EXPECT_EQ(symbol.end_line, 80);
    EXPECT_EQ(symbol.signature, "def total_price(items: List[Item], tax_rate: float = TAX_RATE) -> int");
    ASSERT_TRUE(symbol.docstring);
    EXPECT_EQ(symbol.docstring->rfind("Sum the subtotals of `items` and add tax.", 0), 0u);
    EXPECT_FALSE(symbol.docstring_truncated);
    EXPECT_GT(symbol.token_count(), 0);
    EXPECT_EQ(found.at(*expr.id).second, "rust/src/parser.rs");
    EXPECT_EQ(found.at(*expr.id).first.kind, "enum");
}

TEST_P(RepositoryContract, CoveringTestsAnswerOnlyForTheAskedPaths) {
    const auto tests = repo().find_covering_tests(
        {"rust/src/parser.rs", "python/shop/cart.py", "rust/src/lib.rs", "docs/guide.md", "no/such.rs"});
    std::vector<std::string> test_paths;
    for (const auto& t : tests) test_paths.push_back(t.path);
    // One record per test file, ordered by the test file's path.
    EXPECT_EQ(test_paths, (std::vector<std::string>{"python/tests/test_cart.py", "rust/tests/parser_test.rs"}));

    const CoveringTest& rust = tests[1];
    // Named after parser.rs: the best rank; it reaches lib.rs only through its imports.
    ASSERT_TRUE(rust.alone("rust/src/parser.rs"));
    ASSERT_TRUE(rust.alone("rust/src/lib.rs"));
    EXPECT_EQ(rust.alone("rust/src/parser.rs")->rank, 0);
    EXPECT_GT(rust.alone("rust/src/lib.rs")->rank, rust.alone("rust/src/parser.rs")->rank);
    EXPECT_EQ(rust.alone("rust/src/lib.rs")->path, "rust/tests/parser_test.rs");
    EXPECT_FALSE(rust.alone("python/shop/cart.py"));
    EXPECT_EQ(tests[0].reaches, (std::vector<std::pair<std::string, double>>{{"python/shop/cart.py", 0.0}}));

    // Asked about lib.rs alone, the record holds lib.rs alone.
    const auto only_lib = repo().find_covering_tests({"rust/src/lib.rs"});
    ASSERT_EQ(only_lib.size(), 1u);
    ASSERT_EQ(only_lib[0].reaches.size(), 1u);
    EXPECT_EQ(only_lib[0].reaches[0].first, "rust/src/lib.rs");
    EXPECT_FALSE(only_lib[0].alone("rust/src/parser.rs"));

    EXPECT_TRUE(repo().find_covering_tests({"docs/guide.md", "README.md"}).empty());
    // Walkable again: the answer is a plain sequence.
    EXPECT_EQ(repo().find_covering_tests({"python/shop/cart.py", "python/shop/cart.py"}).size(), 1u);
}

TEST_P(RepositoryContract, SymbolsOfAFileInSourceOrder) {
    const auto symbols = repo().get_symbols_by_file(sqlite_file_id("python/shop/cart.py"));
    std::vector<std::string> names;
    for (const auto& s : symbols) names.push_back(s.name);
    ASSERT_GE(names.size(), 8u);
    EXPECT_EQ(std::vector<std::string>(names.begin(), names.begin() + 8),
              (std::vector<std::string>{"__all__", "TAX_RATE", "MAX_ITEMS", "_log", "Item", "sku", "price", "quantity"}));
    EXPECT_EQ(names.back(), "_helper");
    EXPECT_TRUE(ids_ascending(symbols));
    for (const auto& s : symbols) EXPECT_EQ(s.file_id, symbols.front().file_id);
    EXPECT_TRUE(repo().get_symbols_by_file(987654).empty());
}

TEST_P(RepositoryContract, ReferencesInPathAndLineOrderWithTheirCallers) {
    struct Expected {
        std::string usage_type;
        std::optional<std::string> caller_fqn, caller_kind, caller_name;
        std::string context;
    };
    const auto refs = repo().get_references("python.shop.cart.total_price");
    const std::vector<Expected> expected = {
        {"import", {}, {}, {}, "from .cart import Cart, Item, total_price"},  // shop/__init__.py:3
        {"call", "python.shop.cart.Cart.total", "method", "total", "return total_price(self.items)"},  // cart.py:60
        {"import", {}, {}, {}, "from shop.cart import Cart, CartError, Item, total_price"},  // test_cart.py:3
        {"call", "python.tests.test_cart.test_total_price_of_nothing", "function", "test_total_price_of_nothing",
         "assert total_price([]) == 0"},  // test_cart.py:13
    };
    ASSERT_EQ(refs.references.size(), expected.size());
    EXPECT_EQ(refs.total, 4);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const Reference& ref = refs.references[i];
        const Expected& want = expected[i];
        EXPECT_EQ(ref.usage_type, want.usage_type) << i;
        EXPECT_EQ(ref.context, want.context) << i;
        if (!want.caller_fqn) {
            EXPECT_FALSE(ref.caller_symbol) << i;
            continue;
        }
        ASSERT_TRUE(ref.caller_symbol) << i;
        EXPECT_EQ(ref.caller_symbol->fqn, want.caller_fqn) << i;
        EXPECT_EQ(ref.caller_symbol->kind, want.caller_kind) << i;
        EXPECT_EQ(ref.caller_symbol->name, want.caller_name) << i;
    }
}

TEST_P(RepositoryContract, ReferencesToASharedNameAreListedOnce) {
    // ring_push is declared in ring.h and defined in ring.c, one fqn for both; the test calls
    // it once, on one line.
    const auto refs = repo().get_references("ring_push");
    ASSERT_EQ(refs.references.size(), 1u);
    EXPECT_EQ(refs.references[0].usage_type, "call");
    ASSERT_TRUE(refs.references[0].caller_symbol);
    EXPECT_EQ(refs.references[0].caller_symbol->fqn, "test_push_pop");
    EXPECT_EQ(refs.references[0].context, "assert(ring_push(&r, 7) == 1);");

    for (const std::string fqn : {"python.shop.cart._helper", "no.such.symbol", ""}) {
        const auto none = repo().get_references(fqn);
        EXPECT_TRUE(none.references.empty()) << fqn;
        EXPECT_EQ(none.total, 0) << fqn;
    }
}

TEST_P(RepositoryContract, SymbolByFqnTakesTheFirstIndexed) {
    const auto cart = repo().get_symbol_by_fqn("python.shop.cart.Cart");
    ASSERT_TRUE(cart);
    EXPECT_EQ(cart->kind, "class");
    EXPECT_EQ(cart->start_line, 37);
    EXPECT_EQ(cart->docstring, "A collection of items.");
    EXPECT_EQ(cart->file_id, sqlite_file_id("python/shop/cart.py"));

    // Declared in matrix.hpp and defined in matrix.cpp: the lower id of the two.
    const auto identities = repo().search_symbols("identity", 50, true).symbols;
    ASSERT_EQ(identities.size(), 2u);
    EXPECT_EQ(repo().get_symbol_by_fqn("sample.linalg.identity")->id, identities.front().id);

    EXPECT_FALSE(repo().get_symbol_by_fqn("python.shop.cart.cart"));  // exact case
    EXPECT_FALSE(repo().get_symbol_by_fqn("no.such.symbol"));
}

// LIKE folds ASCII letters only (SQLite's trigram table and PostgreSQL's lower() fold more).
TEST_P(RepositoryContract, NonAsciiLettersCompareExactly) {
    const fs::path dir = make_temp_dir();
    fs::create_directories(dir / "repo");
    std::ofstream(dir / "repo" / "mod.py") << "def größe_messen():\n    pass\n\n\ndef GRÖßE_MESSEN():\n    pass\n\n\n"
                                               "def Größe_Messen():\n    pass\n";
    kestrix_test::index_tree(dir / "repo", dir / "index.db", /*retrieval_tables=*/false);
    {
        const std::unique_ptr<Repository> repository = open_backend(GetParam(), dir / "index.db", "unicode/names");
        Repository& repo = *repository;
        struct Case {
            std::string pattern;
            std::multiset<std::string> names;
        };
        const std::vector<Case> cases = {
            {"%größe%", {"größe_messen", "Größe_Messen"}},  // G folds, ö does not
            {"%GRÖßE%", {"GRÖßE_MESSEN"}},
            {"%grÖße%", {"GRÖßE_MESSEN"}},
            {"größe_messen", {"größe_messen", "Größe_Messen"}},
            {"GRÖßE_MESSEN", {"GRÖßE_MESSEN"}},
            {"GRöße_MESSEN", {"größe_messen", "Größe_Messen"}},
            {"%ö%", {"größe_messen", "Größe_Messen"}},
            {"%Ö%", {"GRÖßE_MESSEN"}},
            {"gr_ße%", {"größe_messen", "Größe_Messen", "GRÖßE_MESSEN"}},  // "_" takes a whole character
        };
        for (const auto& c : cases) {
            std::multiset<std::string> names;
            for (const auto& s : repo.search_symbols(c.pattern, 50, true).symbols) names.insert(s.name);
            EXPECT_EQ(names, c.names) << c.pattern;
        }
    }
    std::error_code error;
    fs::remove_all(dir, error);
}


// Text that COPY, array literals and parameters must carry unchanged: tabs, backslashes, a
// literal \N, carriage returns, quotes, braces and commas (in paths too), non-ASCII. Every
// answer about such a tree equals the SQLite index's own.
TEST_P(RepositoryContract, TextOfAnyKindReadsBackUnchanged) {
    kestrix_test::ScratchDir dir("contract-text");
    const std::string odd_dir = "odd \"dir\", {x}\\y";
    fs::create_directories(dir.path() / "repo" / odd_dir);
    // Docstrings keep newlines and backslashes (tabs are expanded); reference lines keep tabs.
    std::ofstream(dir.path() / "repo" / odd_dir / "m\\N, \"q\" {b}.py")
        << "def tab_and_slash(a):\n"
           "    \"\"\"A backslash: \\\\N and \\\\t; quote \" brace {x}, comma, \u00e9.\n\n    Second line.\"\"\"\n"
           "    return a\n\n\n"
           "def caller():\n"
           "    return tab_and_slash('\\\\t\\\\N\t\\\\\\\\\r')\n";
    std::ofstream(dir.path() / "repo" / odd_dir / "test_m\\N, \"q\" {b}.py")
        << "from m import tab_and_slash\n\n\ndef test_it():\n    assert tab_and_slash(1) == 1\n";
    kestrix_test::index_tree(dir.path() / "repo", dir.path() / "index.db", /*retrieval_tables=*/false);
    SqliteRepository reference(dir.path() / "index.db");
    const std::unique_ptr<Repository> repository = open_backend(GetParam(), dir.path() / "index.db", "text/odd");
    Repository& repo = *repository;

    const auto symbols = reference.search_symbols("%", -1, false).symbols;
    ASSERT_EQ(fqns(repo.search_symbols("%", -1, false).symbols), fqns(symbols));
    std::vector<std::optional<std::int64_t>> ids;
    for (const auto& s : symbols) ids.push_back(s.id);
    const auto expected = reference.symbols_with_paths(ids);
    const auto found = repo.symbols_with_paths(ids);
    ASSERT_EQ(found.size(), expected.size());
    bool has_odd_docstring = false;
    for (const auto& [id, want] : expected) {
        const auto& [symbol, path] = found.at(id);
        EXPECT_EQ(path, want.second);
        EXPECT_EQ(symbol.fqn, want.first.fqn);
        EXPECT_EQ(symbol.signature, want.first.signature);
        EXPECT_EQ(symbol.docstring, want.first.docstring);
        if (symbol.docstring && symbol.docstring->find('\n') != std::string::npos &&
            symbol.docstring->find("\\N") != std::string::npos) {
            has_odd_docstring = true;
        }
    }
    EXPECT_TRUE(has_odd_docstring) << "the tree lost its odd text before the index";

    const std::string source = odd_dir + "/m\\N, \"q\" {b}.py";
    const std::string test = odd_dir + "/test_m\\N, \"q\" {b}.py";
    EXPECT_EQ(repo.test_paths({source, test}), reference.test_paths({source, test}));
    EXPECT_EQ(repo.test_paths({test}).size(), 1u);
    const auto covering = repo.find_covering_tests({source});
    const auto covering_expected = reference.find_covering_tests({source});
    ASSERT_EQ(covering.size(), covering_expected.size());
    for (std::size_t i = 0; i < covering.size(); ++i) {
        EXPECT_EQ(covering[i].path, covering_expected[i].path);
        EXPECT_EQ(covering[i].reaches, covering_expected[i].reaches);
    }
    const auto callee = std::find_if(symbols.begin(), symbols.end(), [](const Symbol& s) { return s.name == "tab_and_slash"; });
    ASSERT_NE(callee, symbols.end());
    const auto refs = repo.get_references(callee->fqn);
    const auto refs_expected = reference.get_references(callee->fqn);
    ASSERT_FALSE(refs_expected.references.empty());
    ASSERT_EQ(refs.references.size(), refs_expected.references.size());
    bool has_odd_context = false;
    for (std::size_t i = 0; i < refs.references.size(); ++i) {
        EXPECT_EQ(refs.references[i].context, refs_expected.references[i].context);
        const std::string context = refs.references[i].context.value_or("");
        if (context.find('\t') != std::string::npos && context.find("\\N") != std::string::npos) has_odd_context = true;
    }
    EXPECT_TRUE(has_odd_context) << "the tree lost its odd text before the index";
    // Names no index can hold match nothing rather than fail.
    for (const std::string& odd : {std::string("a\0b", 3), std::string("\xff\xfe"), std::string("%\xc3%")}) {
        EXPECT_TRUE(repo.search_symbols(odd, 50, false).symbols.empty());
        EXPECT_FALSE(repo.get_symbol_by_fqn(odd));
        EXPECT_TRUE(repo.get_references(odd).references.empty());
        EXPECT_TRUE(repo.test_paths({odd}).empty());
        EXPECT_TRUE(repo.find_covering_tests({odd}).empty());
        EXPECT_FALSE(repo.get_component_by_name(odd));
    }
}

INSTANTIATE_TEST_SUITE_P(Backends, RepositoryContract, ::testing::Values(Backend::sqlite, Backend::postgres),
                         [](const ::testing::TestParamInfo<Backend>& info) {
                             return info.param == Backend::sqlite ? "Sqlite" : "Postgres";
                         });

}  // namespace
