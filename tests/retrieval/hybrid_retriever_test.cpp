// The hybrid retriever over an index of tests/sample_repo: which symbols lead for tasks whose
// answer is known from the sample sources, what happens without the retriever's tables, and
// that its tables follow the files as they change.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/index_tree.hpp"
#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "orvane_kestrix/retrieval/sqlite_hybrid_retriever.hpp"
#include "orvane_kestrix/storage/sqlite_repository.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix;
using retrieval::SqliteHybridRetriever;

const fs::path kSample = fs::path(KESTRIX_TEST_DATA) / "sample_repo";

class HybridRetrieverTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/kestrix-retriever-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        repo_ = dir_ / "repo";
        db_ = dir_ / "index.db";
        fs::copy(kSample, repo_, fs::copy_options::recursive);
    }
    void TearDown() override {
        std::error_code error;
        fs::remove_all(dir_, error);
    }

    std::vector<std::string> hit_fqns(const std::string& task, bool include_tests = false) {
        SqliteRepository repository(db_);
        SqliteHybridRetriever retriever(repository.database());
        std::vector<std::string> fqns;
        for (const auto& hit : retriever.retrieve(task, 25, include_tests).hits) fqns.push_back(hit.symbol.fqn);
        return fqns;
    }

    // The rows of a full-text table that keeps no size records: the first number (a varint) of
    // its index's totals record.
    static std::int64_t text_rows(storage::Database& db, const std::string& table) {
        storage::Statement totals(db, "SELECT block FROM " + table + "_data WHERE id = 1");
        if (!totals.step()) return -1;
        const std::string block = totals.column_string(0);
        std::int64_t rows = 0;
        for (unsigned char byte : block) {
            rows = (rows << 7) | (byte & 0x7f);
            if ((byte & 0x80) == 0) break;
        }
        return rows;
    }

    // Checks that the tables hold a row for every live symbol and file and that the word counts
    // are those of the full-text index; returns the stale rows counted in meta.
    std::int64_t tables_consistent() {
        storage::Database db = storage::open_index(db_, {.read_only = true});
        EXPECT_EQ(db.scalar_int("SELECT coalesce(sum(symbol_rows), 0) FROM retrieval_file_state"),
                  db.scalar_int("SELECT count(*) FROM symbols s JOIN files f ON f.id = s.file_id WHERE f.is_source = 1"));
        EXPECT_EQ(db.scalar_int("SELECT count(*) FROM retrieval_file_state s JOIN files f ON f.id = s.file_id "
                                "WHERE f.is_source = 1"),
                  db.scalar_int("SELECT count(*) FROM files WHERE is_source = 1"));
        EXPECT_EQ(db.scalar_int("SELECT count(*) FROM retrieval_file_state"), db.scalar_int("SELECT count(*) FROM files WHERE is_source = 1"));
        // Every live symbol and file has its row; the rest are the stale rows counted in meta.
        const auto stale = std::stoll(storage::read_meta(db, "retrieval_stale_rows").value_or("-1"));
        EXPECT_EQ(text_rows(db, "retrieval_symbol_text") + text_rows(db, "retrieval_file_text"),
                  db.scalar_int("SELECT coalesce(sum(symbol_rows + 1), 0) FROM retrieval_file_state") + stale);
        // The word counts kept as rows are written are the counts the full-text index holds.
        EXPECT_EQ(db.scalar_int("SELECT count(*) FROM retrieval_word_counts"),
                  db.scalar_int("SELECT count(*) FROM (SELECT term FROM retrieval_symbol_vocab UNION "
                                "SELECT term FROM retrieval_file_vocab)"));
        EXPECT_EQ(db.scalar_int("SELECT count(*) FROM retrieval_word_counts w "
                                "LEFT JOIN retrieval_symbol_vocab s ON s.term = w.word "
                                "LEFT JOIN retrieval_file_vocab f ON f.term = w.word "
                                "WHERE w.symbols != coalesce(s.doc, 0) OR w.files != coalesce(f.doc, 0)"),
                  0);
        return stale;
    }

    fs::path dir_, repo_, db_;
};

struct DirectionCase {
    const char* what;
    const char* task;
    const char* first;
};

TEST_F(HybridRetrieverTest, TracesAndParaphrasesLeadToTheirSymbol) {
    kestrix_test::index_tree(repo_, db_);
    const std::vector<DirectionCase> cases = {
        {"python frame by line",
         "Adding to a full cart crashes:\nTraceback (most recent call last):\n"
         "  File \"/srv/app/main.py\", line 3, in <module>\n"
         "  File \"/srv/app/python/shop/cart.py\", line 55, in add\nshop.cart.CartError: cart is full",
         "python.shop.cart.Cart.add"},
        {"python frame whose line has moved to another function",
         "Traceback (most recent call last):\n  File \"python/shop/cart.py\", line 60, in add\nshop.cart.CartError: cart is full",
         "python.shop.cart.Cart.add"},
        {"javascript frame", "TypeError: x is undefined\n    at round (/srv/web/src/math.js:9:10)\n    at main (/srv/run.js:1:1)",
         "web.src.math.round"},
        {"java frame", "java.lang.IllegalArgumentException: too much stock\n\tat com.example.Inventory.add(Inventory.java:27)",
         "com.example.Inventory.add"},
        {"go frame", "panic: boom\n\ngoroutine 1 [running]:\ngeometry.(*Point).Scale(0xc0000, 0x2)\n\t/src/go/geometry/point.go:32 +0x1d",
         "geometry.Point.Scale"},
        {"docstring paraphrase", "the sum of the subtotals comes out without the tax in cents", "python.shop.cart.total_price"},
        {"docstring paraphrase", "adding decimal literals together gives a bad result", "parser.parse"},
        {"qualified name", "Cart.total should not round twice", "python.shop.cart.Cart.total"},
        {"type named as a plain word", "Item prices look wrong in the summary", "python.shop.cart.Item"},
        {"type named as a plain word", "Point equality ignores the last coordinate", "geometry.Point"},
    };
    for (const auto& c : cases) {
        const auto fqns = hit_fqns(c.task);
        ASSERT_FALSE(fqns.empty()) << c.what;
        EXPECT_EQ(fqns[0], c.first) << c.what << ": " << c.task;
    }
}

TEST_F(HybridRetrieverTest, TestFilesRankOnlyForTasksAboutTests) {
    kestrix_test::index_tree(repo_, db_);
    SqliteRepository repository(db_);
    SqliteHybridRetriever retriever(repository.database());
    const std::set<std::string> test_paths = {"python/tests/test_cart.py", "web/test/format.test.js", "web/src/api.spec.ts",
                                              "java/src/test/java/com/example/InventoryTest.java",
                                              "go/geometry/point_test.go", "rust/tests/parser_test.rs", "native/tests/test_ring.c"};
    auto in_test_file = [&](const std::vector<RetrievalHit>& hits) {
        std::vector<Symbol> symbols;
        for (const auto& hit : hits) symbols.push_back(hit.symbol);
        const auto paths = repository.get_file_paths_batch(symbols);
        std::size_t count = 0;
        for (const auto& [id, path] : paths) count += test_paths.contains(path) ? 1 : 0;
        return count;
    };
    const std::string task = "cart total and inventory stock";
    EXPECT_EQ(in_test_file(retriever.retrieve(task, 25, false).hits), 0u);
    EXPECT_GT(in_test_file(retriever.retrieve(task, 25, true).hits), 0u);

    // Through the builder, which decides from the task's words whether it is about tests.
    ContextBuilder builder(repository, &retriever);
    const ContextPack plain = builder.build_context_pack({.task = "Fix the cart total"});
    const ContextPack about_tests = builder.build_context_pack({.task = "The cart total test fails with a mock repository"});
    for (const auto& file : plain.files) EXPECT_FALSE(test_paths.contains(file)) << file;
    EXPECT_TRUE(std::any_of(about_tests.files.begin(), about_tests.files.end(), [&](const auto& f) { return test_paths.contains(f); }));
}

TEST_F(HybridRetrieverTest, AnIndexWithoutTheTablesGivesTheNoteAndKeywordPacks) {
    kestrix_test::index_tree(repo_, db_, /*retrieval_tables=*/false);
    const std::string task = "Fix total_price rounding of tax";
    {
        SqliteRepository repository(db_);
        SqliteHybridRetriever retriever(repository.database());
        EXPECT_FALSE(retriever.has_tables());
        ContextBuilder with(repository, &retriever);
        ContextBuilder without(repository, nullptr);
        const ContextPack a = with.build_context_pack({.task = task});
        const ContextPack b = without.build_context_pack({.task = task});
        ASSERT_FALSE(a.notes.empty());
        EXPECT_NE(a.notes[0].find("kestrix index"), std::string::npos) << a.notes[0];
        auto dropped_note = a.to_dict();
        dropped_note.erase("notes");
        EXPECT_EQ(dropped_note, b.to_dict());
    }
    // The next index run adds them, with nothing else to do.
    kestrix_test::index_tree(repo_, db_);
    SqliteRepository repository(db_);
    SqliteHybridRetriever retriever(repository.database());
    EXPECT_TRUE(retriever.has_tables());
    const auto result = retriever.retrieve(task, 25, false);
    EXPECT_FALSE(result.note.has_value());
    ASSERT_FALSE(result.hits.empty());
    EXPECT_EQ(result.hits[0].symbol.fqn, "python.shop.cart.total_price");
}

TEST_F(HybridRetrieverTest, TasksWithoutWordsGiveANoteAndNoHits) {
    kestrix_test::index_tree(repo_, db_);
    SqliteRepository repository(db_);
    SqliteHybridRetriever retriever(repository.database());
    for (const std::string task : {"", "the and of it", "!!! ??? 42 3.14"}) {
        const auto result = retriever.retrieve(task, 25, false);
        EXPECT_TRUE(result.hits.empty()) << task;
        ASSERT_TRUE(result.note.has_value()) << task;
    }
    // A long pasted log is searched within bounds and still finds the frame it holds.
    std::string log = "Crash after upgrade:\n";
    for (int i = 0; i < 3000; ++i) log += "INFO worker-" + std::to_string(i) + " heartbeat ok latency=" + std::to_string(i % 97) + "ms\n";
    log += "    at round (/srv/web/src/math.js:9:10)\n";
    const auto result = retriever.retrieve(log, 25, false);
    ASSERT_FALSE(result.hits.empty());
    EXPECT_EQ(result.hits[0].symbol.fqn, "web.src.math.round");
}

// The tables hold one row per symbol of every source file, and follow edits, new files and
// deletions without being rebuilt whole.
TEST_F(HybridRetrieverTest, TablesFollowTheFiles) {
    kestrix_test::index_tree(repo_, db_);
    EXPECT_EQ(tables_consistent(), 0);
    const std::string task = "take a voucher discount code off the price";
    EXPECT_TRUE(hit_fqns(task).empty() || hit_fqns(task)[0] != "python.shop.cart.apply_voucher");

    std::ofstream(repo_ / "python" / "shop" / "cart.py", std::ios::app)
        << "\n\ndef apply_voucher(total, code):\n    \"\"\"Takes the discount of a voucher code off a total.\"\"\"\n"
           "    return total - VOUCHERS.get(code, 0)\n";
    kestrix_test::index_tree(repo_, db_);
    const auto stale_after_edit = tables_consistent();
    EXPECT_GT(stale_after_edit, 0);  // the edited file's old rows, left behind
    ASSERT_FALSE(hit_fqns(task).empty());
    EXPECT_EQ(hit_fqns(task)[0], "python.shop.cart.apply_voucher");

    fs::remove(repo_ / "python" / "shop" / "cart.py");
    kestrix_test::index_tree(repo_, db_);
    EXPECT_GT(tables_consistent(), stale_after_edit);
    for (const auto& fqn : hit_fqns(task)) EXPECT_EQ(fqn.find("python.shop.cart."), std::string::npos) << fqn;
}

TEST_F(HybridRetrieverTest, AFirstBuildStoppedBetweenBatchesIsCompletedWithWholeTables) {
    // More files than one batch of a first build: the stop leaves committed rows whose words
    // were not yet counted.
    for (int i = 0; i < 600; ++i) {
        std::ofstream(repo_ / ("ledger_" + std::to_string(i) + ".py"))
            << "def settle_ledger_" << i << "(amount):\n    \"\"\"Settles ledger " << i << ".\"\"\"\n    return amount\n";
    }
    std::ofstream(repo_ / "aviary.py") << "def count_zebrafinch_eggs(nest):\n    return len(nest)\n";
    std::atomic<bool> stop{false};
    indexer::IndexOptions options;
    options.repo = repo_;
    options.db = db_;
    options.use_git = false;
    options.jobs = 2;
    options.cancel = &stop;
    options.on_progress = [&](const indexer::IndexProgress& progress) {
        if (progress.phase == "parsing" && progress.done >= 400) stop = true;
    };
    // Small groups of rows, so that some are written, and committed, before the stop.
    ASSERT_TRUE(indexer::IndexBuilder(retrieval::index_options_with_retrieval(options, 4096)).run().cancelled);
    {
        storage::Database db = storage::open_index(db_, {.read_only = true});
        ASSERT_GT(db.scalar_int("SELECT count(*) FROM retrieval_file_state"), 0);
        EXPECT_FALSE(retrieval::has_retrieval_tables(db));
    }
    kestrix_test::index_tree(repo_, db_);
    EXPECT_EQ(tables_consistent(), 0);
    const auto hits = hit_fqns("count the zebrafinch eggs");
    ASSERT_FALSE(hits.empty());
    EXPECT_EQ(hits[0], "aviary.count_zebrafinch_eggs");
}

TEST_F(HybridRetrieverTest, TablesReadNothingThroughALinkOutOfTheRoot) {
    // Indexed without the tables; then a source file becomes a link to a file outside the
    // root before the tables are made: its words must not reach them.
    kestrix_test::index_tree(repo_, db_, /*retrieval_tables=*/false);
    std::ofstream(dir_ / "outside.py") << "def zebrafinch_secret():\n    return 'quokkaword'\n";
    const fs::path cart = repo_ / "python" / "shop" / "cart.py";
    fs::remove(cart);
    fs::create_symlink(dir_ / "outside.py", cart);
    storage::Database db(db_, SQLITE_OPEN_READWRITE);
    retrieval::refresh_retrieval_tables(db, repo_, 1);
    EXPECT_EQ(db.scalar_int("SELECT count(*) FROM retrieval_file_vocab WHERE term IN ('quokkaword', 'zebrafinch')"), 0);
    EXPECT_GT(db.scalar_int("SELECT count(*) FROM retrieval_file_vocab WHERE term = 'inventory'"), 0);
}

}  // namespace
