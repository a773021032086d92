// term_bm25() against FTS5's own bm25() on a table that keeps its size records: the same score
// for rows under 64 tokens, within the rounding of the length for longer ones, for queries of
// one and of many words, with and without column weights; column_bm25() on a table without
// positions against term_bm25() on one with them; and the rowid's two halves.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cmath>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "orvane_kestrix/retrieval/term_bm25.hpp"

namespace {

using namespace orvane_kestrix;
using retrieval::text_rowid;

TEST(TermBm25, RowidsCarryTheSymbolAndTheLength) {
    for (std::int64_t id : std::vector<std::int64_t>{1, 77, 4'297'771, 1'000'000'000'000}) {
        for (std::int64_t tokens : std::vector<std::int64_t>{0, 1, 63, 64, 65, 300, 5000, 1'000'000}) {
            const std::int64_t rowid = text_rowid(id, tokens);
            EXPECT_EQ(retrieval::id_of_rowid(rowid), id);
            EXPECT_EQ(retrieval::id_of_rowid(-rowid), id);
            const double length = retrieval::row_length_of_rowid(rowid);
            if (tokens < 64) {
                EXPECT_EQ(length, static_cast<double>(tokens));
            } else if (tokens <= 15000) {
                EXPECT_NEAR(length / static_cast<double>(tokens), 1.0, 0.05) << tokens;
            }
        }
    }
}

TEST(TermBm25, ScoresAsFts5Bm25Does) {
    storage::Database db(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.exec("CREATE VIRTUAL TABLE t USING fts5(name, body, tokenize = 'ascii', content = '')");
    retrieval::register_term_bm25(db);
    // Rows of two columns; the last is long enough for its length to be rounded.
    std::vector<std::pair<std::string, std::string>> rows = {
        {"cart total", "price total discount"},  {"apply voucher", "voucher code total cart"},
        {"render html", "template escape html"},  {"client request", "retry timeout request request"},
        {"parse config", "config file section"}, {"cart", "cart cart cart item"},
        {"price", "total"},
    };
    std::string long_body;
    for (int i = 0; i < 300; ++i) long_body += (i % 7 == 0 ? "cart " : "word" + std::to_string(i) + " ");
    rows.emplace_back("checkout", long_body);

    std::map<std::string, std::int64_t> rows_holding;
    storage::Statement insert(db, "INSERT INTO t(rowid, name, body) VALUES (?, ?, ?)");
    for (std::size_t i = 0; i < rows.size(); ++i) {
        std::set<std::string> distinct;
        std::int64_t tokens = 0;
        for (const std::string& column : {rows[i].first, rows[i].second}) {
            std::istringstream words(column);
            for (std::string word; words >> word; ++tokens) distinct.insert(word);
        }
        for (const auto& word : distinct) ++rows_holding[word];
        insert.bind(1, text_rowid(static_cast<std::int64_t>(i) + 1, tokens)).bind(2, rows[i].first).bind(3, rows[i].second);
        insert.run();
    }

    struct Case {
        std::vector<std::string> words;
        std::string weights;
    };
    const std::vector<Case> cases = {
        {{"cart"}, ""},
        {{"cart", "total", "price"}, ", 10.0, 1.0"},
        {{"html", "escape", "template"}, ", 3.0"},
        {{"request", "timeout", "config", "voucher", "cart"}, ", 2.0, 5.0"},
        {{"absent", "total"}, ", 10.0, 1.0"},
    };
    for (const auto& c : cases) {
        std::string match = "(";
        std::string counts;
        for (const auto& word : c.words) {
            if (match.size() > 1) match += " OR ";
            match += '"' + word + '"';
            if (!counts.empty()) counts += ' ';
            counts += std::to_string(rows_holding[word]);
        }
        match += ')';
        storage::Statement both(db, "SELECT rowid, bm25(t" + c.weights + "), term_bm25(t, ?2" + c.weights + ") FROM t WHERE t MATCH ?1");
        both.bind(1, match).bind(2, counts);
        int matched = 0;
        while (both.step()) {
            ++matched;
            const std::int64_t rowid = both.column_int64(0);
            if (retrieval::id_of_rowid(rowid) < static_cast<std::int64_t>(rows.size())) {
                EXPECT_EQ(both.column_double(1), both.column_double(2)) << match << " row " << rowid;
            } else {
                EXPECT_NEAR(both.column_double(2) / both.column_double(1), 1.0, 0.02) << match << " (the long row)";
            }
        }
        EXPECT_GT(matched, 0) << match;
    }
}

TEST(TermBm25, ColumnBm25WithoutPositionsScoresAsTermBm25WithThem) {
    storage::Database db(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.exec("CREATE VIRTUAL TABLE full_rows USING fts5(name, doc, body, tokenize = 'ascii', content = '', columnsize = 0);"
            "CREATE VIRTUAL TABLE column_rows USING fts5(name, doc, body, tokenize = 'ascii', content = '', columnsize = 0, "
            "detail = column)");
    retrieval::register_term_bm25(db);
    // Each word once per column, as the symbols' rows hold them; a word may be in several columns.
    const std::vector<std::vector<std::string>> rows = {
        {"cart total", "the cart total with tax", "price total discount cart"},
        {"apply voucher", "takes a voucher off", "voucher code total"},
        {"render", "", "template escape html render"},
        {"total", "total", "total"},
    };
    for (const char* table : {"full_rows", "column_rows"}) {
        storage::Statement insert(db, std::string("INSERT INTO ") + table + "(rowid, name, doc, body) VALUES (?, ?, ?, ?)");
        for (std::size_t i = 0; i < rows.size(); ++i) {
            std::int64_t tokens = 0;
            for (const auto& column : rows[i]) {
                std::istringstream words(column);
                for (std::string word; words >> word;) ++tokens;
            }
            insert.bind(1, text_rowid(static_cast<std::int64_t>(i) + 1, tokens)).bind(2, rows[i][0]).bind(3, rows[i][1]).bind(4, rows[i][2]);
            insert.run();
        }
    }
    const std::string match = "(\"total\" OR \"voucher\" OR \"render\")";
    const std::string counts = "3 1 1";
    std::map<std::int64_t, double> with_positions;
    storage::Statement full(db, "SELECT rowid, term_bm25(full_rows, ?2, 10.0, 2.0, 1.0) FROM full_rows WHERE full_rows MATCH ?1");
    full.bind(1, match).bind(2, counts);
    while (full.step()) with_positions[full.column_int64(0)] = full.column_double(1);
    storage::Statement by_column(db, "SELECT rowid, column_bm25(column_rows, ?2, 10.0, 2.0, 1.0) FROM column_rows WHERE column_rows MATCH ?1");
    by_column.bind(1, match).bind(2, counts);
    std::size_t matched = 0;
    while (by_column.step()) {
        ++matched;
        EXPECT_EQ(by_column.column_double(1), with_positions.at(by_column.column_int64(0))) << by_column.column_int64(0);
    }
    EXPECT_EQ(matched, rows.size());
}

}  // namespace
