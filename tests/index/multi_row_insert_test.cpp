// Rows inserted in groups come out whole and in order, whatever the count's remainder.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "orvane_kestrix/storage/multi_row_insert.hpp"

namespace orvane_kestrix::storage {
namespace {

TEST(MultiRowInsert, EveryRowArrivesWithItsOwnValues) {
    // Counts around the group size of 4: none, a remainder only, exact groups, groups plus rest.
    for (std::size_t count : {0U, 1U, 3U, 4U, 5U, 8U, 11U}) {
        SCOPED_TRACE(count);
        Database db(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
        db.exec("CREATE TABLE t(id INTEGER PRIMARY KEY, label TEXT NOT NULL, note TEXT)");
        MultiRowInsert insert(db, "INSERT INTO t(id, label, note)", 3, 4);
        std::vector<std::string> labels;
        for (std::size_t i = 0; i < count; ++i) labels.push_back("row " + std::to_string(i));
        insert.insert(count, [&](RowBinder& row, std::size_t i) {
            std::optional<std::string> note;
            if (i % 2 == 0) note = "even";
            row.bind(1, static_cast<std::int64_t>(i + 1)).bind_static(2, labels[i]).bind(3, note);
        });
        // A second call reuses the prepared statements.
        insert.insert(1, [&](RowBinder& row, std::size_t) {
            row.bind(1, std::int64_t{1000}).bind(2, "last").bind_null(3);
        });

        Statement rows(db, "SELECT id, label, note FROM t ORDER BY id");
        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_TRUE(rows.step());
            EXPECT_EQ(rows.column_int64(0), static_cast<std::int64_t>(i + 1));
            EXPECT_EQ(rows.column_text(1), labels[i]);
            EXPECT_EQ(rows.column_optional_text(2), i % 2 == 0 ? std::optional<std::string>("even") : std::nullopt);
        }
        ASSERT_TRUE(rows.step());
        EXPECT_EQ(rows.column_int64(0), 1000);
        EXPECT_FALSE(rows.step());
    }
}

TEST(MultiRowInsert, AFailingGroupReportsTheConstraint) {
    Database db(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.exec("CREATE TABLE t(id INTEGER PRIMARY KEY, label TEXT NOT NULL)");
    MultiRowInsert insert(db, "INSERT INTO t(id, label)", 2, 4);
    EXPECT_THROW(insert.insert(3, [](RowBinder& row, std::size_t i) {
        row.bind(1, static_cast<std::int64_t>(i));
        if (i != 1) row.bind(2, "x");  // row 1 leaves its NOT NULL label unbound
    }), SqliteError);
    // The statement was reset: the next insert works.
    insert.insert(3, [](RowBinder& row, std::size_t i) { row.bind(1, static_cast<std::int64_t>(i + 10)).bind(2, "y"); });
    EXPECT_EQ(db.scalar_int("SELECT count(*) FROM t WHERE label = 'y'"), 3);
}

}  // namespace
}  // namespace orvane_kestrix::storage
