// The symbol-body signal over tests/sample_repo: which symbol of a leading file its words pick,
// that a class stands for its own lines only, and that a file edited since it was indexed is
// left out rather than scored by stale line ranges, and that a signal kept across tasks reads a
// file again when it changed.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/retrieval/index_catalog.hpp"
#include "orvane_kestrix/retrieval/signals.hpp"
#include "orvane_kestrix/storage/sqlite_repository.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix;
using namespace orvane_kestrix::retrieval;

class SymbolBodySignalTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/kestrix-bodies-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        repo_ = dir_ / "repo";
        fs::copy(fs::path(KESTRIX_TEST_DATA) / "sample_repo", repo_, fs::copy_options::recursive);
        indexer::IndexOptions options;
        options.repo = repo_;
        options.db = dir_ / "index.db";
        options.use_git = false;
        indexer::IndexBuilder(options).run();
    }
    void TearDown() override {
        std::error_code error;
        fs::remove_all(dir_, error);
    }

    // The signal's symbols, best first, for search words (already stemmed) of equal weight,
    // with cart.py as the one leading file.
    std::vector<std::string> ranked(const std::vector<std::string>& words) {
        SymbolBodySignal signal(repo_);
        return ranked(words, signal);
    }

    // The same with a signal kept across tasks, as a retriever keeps it.
    std::vector<std::string> ranked(const std::vector<std::string>& words, SymbolBodySignal& signal) {
        SqliteRepository repository(dir_ / "index.db");
        storage::Database& db = repository.database();
        IndexCatalog catalog(db);
        RetrievalContext context(db, catalog);
        const std::int64_t cart = db.scalar_int("SELECT id FROM files WHERE path = 'python/shop/cart.py'");
        context.file_fused[cart] = 1.0;
        RetrievalQuery query;
        query.terms = words;
        query.term_idf.assign(words.size(), 1.0);
        const SignalScores scores = signal.score(query, context);
        std::vector<std::pair<double, std::int64_t>> order;
        std::vector<std::int64_t> ids;
        for (const auto& [id, score] : scores.symbols) {
            order.emplace_back(score, id);
            ids.push_back(id);
        }
        context.load(ids);
        std::sort(order.rbegin(), order.rend());
        std::vector<std::string> fqns;
        for (const auto& [score, id] : order) fqns.push_back(context.find(id)->fqn);
        return fqns;
    }

    fs::path dir_, repo_;
};

TEST_F(SymbolBodySignalTest, TheBodyThatUsesTheWordsLeads) {
    struct Case {
        std::vector<std::string> words;
        const char* first;
    };
    // "append" and "debug" occur only in Cart.add's body; "audit" names Cart._audit (counted
    // twice) over its file's other lines; "net" and "round" are total_price's, and "subtotal"
    // is the name of Item.subtotal, counted twice against one call in total_price.
    const std::vector<Case> cases = {
        {{"append", "debug"}, "python.shop.cart.Cart.add"},
        {{"audit"}, "python.shop.cart.Cart._audit"},
        {{"net", "round"}, "python.shop.cart.total_price"},
        {{"subtotal"}, "python.shop.cart.Item.subtotal"},
    };
    for (const auto& c : cases) {
        const auto fqns = ranked(c.words);
        ASSERT_FALSE(fqns.empty()) << c.first;
        EXPECT_EQ(fqns[0], c.first);
    }
}

TEST_F(SymbolBodySignalTest, AClassStandsForItsOwnLinesOnly) {
    // "owner" is written only inside Cart.__init__, a member of Cart.
    const auto fqns = ranked({"owner"});
    ASSERT_FALSE(fqns.empty());
    EXPECT_EQ(fqns[0], "python.shop.cart.Cart.__init__");
    EXPECT_EQ(std::count(fqns.begin(), fqns.end(), "python.shop.cart.Cart"), 0);
}

TEST_F(SymbolBodySignalTest, AFileEditedSinceIndexingIsLeftOut) {
    ASSERT_FALSE(ranked({"append"}).empty());
    std::ofstream(repo_ / "python" / "shop" / "cart.py", std::ios::app) << "\n# edited\n";
    EXPECT_TRUE(ranked({"append"}).empty());
}

TEST_F(SymbolBodySignalTest, ASignalKeptAcrossTasksReadsAnEditOfTheSameSize) {
    SymbolBodySignal signal(repo_);
    const auto before = ranked({"owner"}, signal);
    ASSERT_FALSE(before.empty());
    EXPECT_EQ(before[0], "python.shop.cart.Cart.__init__");
    // Every "owner" becomes a word of the same length: the index still takes the file as it was.
    const fs::path cart = repo_ / "python" / "shop" / "cart.py";
    std::ifstream in(cart);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    in.close();
    for (std::size_t at = text.find("owner"); at != std::string::npos; at = text.find("owner", at)) text.replace(at, 5, "quark");
    const auto written = fs::last_write_time(cart);
    std::ofstream(cart, std::ios::trunc) << text;
    fs::last_write_time(cart, written + std::chrono::seconds(2));
    EXPECT_TRUE(ranked({"owner"}, signal).empty());
    const auto after = ranked({"quark"}, signal);
    ASSERT_FALSE(after.empty());
    EXPECT_EQ(after[0], "python.shop.cart.Cart.__init__");
}

TEST(MinorSymbols, PropertiesWithABodyAreNotMinor) {
    struct Case {
        const char* kind;
        std::int64_t start, end;
        bool minor;
    };
    const std::vector<Case> cases = {
        {"variable", 1, 1, true}, {"constant", 3, 40, true}, {"field", 2, 2, true},
        {"property", 5, 6, true}, {"property", 5, 20, false}, {"method", 1, 1, false},
    };
    for (const auto& c : cases) EXPECT_EQ(is_minor_symbol(c.kind, c.start, c.end), c.minor) << c.kind << " " << c.start << "-" << c.end;
}

}  // namespace
