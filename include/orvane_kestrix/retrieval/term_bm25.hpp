#pragma once
// BM25 over the retriever's full-text tables, reading each row's length from its rowid.
//
// FTS5's own bm25() reads a row's length from the table's size records, one B-tree lookup per
// matching row: most of the cost of ranking a task's symbols on a large index. The tables keep
// no size records; a row's rowid carries its length instead, in its low 7 bits (text_rowid),
// and term_bm25() computes bm25()'s score from it: the same k1 = 1.2 and
// b = 0.75, the same idf and its floor, the same column weights and grouping of terms, so that a
// row of fewer than 64 tokens scores exactly as bm25() would score it, a longer one within the
// rounding of its length to an eighth of an octave. It also takes the number of rows that hold
// each term from the caller, where bm25() counts them by reading each term's posting list again.
//
//   term_bm25(table, 'n1 n2 ...', w1, w2, ...)
//
// 'n1 n2 ...' are the rows holding each phrase of the MATCH expression, in its order; w1, ... the
// column weights (1 when left out). Like bm25(), it returns the score negated (lower is better).
//
//   column_bm25(table, 'n1 n2 ...', w1, w2, ...)
//
// The same for a table that keeps no positions (detail = column): a phrase counts once in each
// column that holds it, as term_bm25() counts it when no column repeats a word.

#include <cstdint>

#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix::retrieval {

inline constexpr int kLengthBits = 7;

// The rowid of the row of `id` (a symbol's id, a file's document number) that is `tokens` long
// in all its columns: the id above the length's code. Lengths up to 63 are kept exactly,
// longer ones on a log scale up to about 15,000.
std::int64_t text_rowid(std::int64_t id, std::int64_t tokens);
// The id and the length a rowid (or its negation) carries.
inline std::int64_t id_of_rowid(std::int64_t rowid) { return (rowid < 0 ? -rowid : rowid) >> kLengthBits; }
double row_length_of_rowid(std::int64_t rowid);

// Makes term_bm25() and column_bm25() available on `db`'s connection; calling it again does
// nothing more.
void register_term_bm25(storage::Database& db);

}  // namespace orvane_kestrix::retrieval
