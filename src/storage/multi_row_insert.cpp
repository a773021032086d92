#include "orvane_kestrix/storage/multi_row_insert.hpp"

#include <stdexcept>

namespace orvane_kestrix::storage {

MultiRowInsert::MultiRowInsert(const Database& db, std::string head, int columns, std::size_t rows_per_statement)
    : db_(db), head_(std::move(head)), columns_(columns), rows_per_statement_(rows_per_statement) {
    if (columns_ <= 0 || rows_per_statement_ == 0) throw std::invalid_argument("MultiRowInsert: empty row shape");
}

Statement& MultiRowInsert::statement_for(std::size_t rows) {
    if (auto it = statements_.find(rows); it != statements_.end()) return it->second;
    std::string row = "(";
    for (int c = 0; c < columns_; ++c) row += c == 0 ? "?" : ", ?";
    row += ')';
    std::string sql = head_ + " VALUES ";
    for (std::size_t r = 0; r < rows; ++r) {
        if (r > 0) sql += ", ";
        sql += row;
    }
    return statements_.emplace(rows, Statement(db_, sql)).first->second;
}

}  // namespace orvane_kestrix::storage
