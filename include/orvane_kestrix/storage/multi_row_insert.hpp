#pragma once

// Bulk inserts through statements that carry several rows each. A single-row INSERT pays
// SQLite's per-statement work (cursor opening, program start, reset) once per row; with
// sixteen rows per statement that cost is paid once per sixteen, which roughly halves the
// writer's time on tables of hundreds of thousands of short rows.

#include <algorithm>
#include <cstddef>
#include <map>
#include <string>
#include <utility>

#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix::storage {

// Binds one row's columns (1-based, as in the single-row statement) into a multi-row statement.
class RowBinder {
public:
    RowBinder(Statement& statement, int offset) : statement_(statement), offset_(offset) {}

    template <class Value>
    RowBinder& bind(int column, Value&& value) {
        statement_.bind(offset_ + column, std::forward<Value>(value));
        return *this;
    }
    // Text that stays alive and unchanged until the insert call returns.
    template <class Value>
    RowBinder& bind_static(int column, Value&& value) {
        statement_.bind_static(offset_ + column, std::forward<Value>(value));
        return *this;
    }

    RowBinder& bind_null(int column) {
        statement_.bind_null(offset_ + column);
        return *this;
    }

private:
    Statement& statement_;
    int offset_;
};

class MultiRowInsert {
public:
    // `head` is the statement up to VALUES, e.g. "INSERT INTO t(a, b)"; `columns` the number
    // of values per row.
    MultiRowInsert(const Database& db, std::string head, int columns, std::size_t rows_per_statement = 16);

    // Inserts `count` rows; `bind_row(RowBinder&, i)` binds the values of row i. Full groups
    // go through the widest statement, the rest through one sized to fit (prepared once).
    template <class BindRow>
    void insert(std::size_t count, BindRow&& bind_row) {
        std::size_t i = 0;
        while (i < count) {
            const std::size_t rows = std::min(rows_per_statement_, count - i);
            Statement& statement = statement_for(rows);
            for (std::size_t r = 0; r < rows; ++r, ++i) {
                RowBinder row(statement, static_cast<int>(r) * columns_);
                bind_row(row, i);
            }
            statement.run();
        }
    }

private:
    Statement& statement_for(std::size_t rows);

    const Database& db_;
    std::string head_;
    int columns_;
    std::size_t rows_per_statement_;
    std::map<std::size_t, Statement> statements_;  // by rows per statement
};

}  // namespace orvane_kestrix::storage
