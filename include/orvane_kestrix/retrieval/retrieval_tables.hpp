#pragma once
// The retriever's tables in the index file, and the refresh that keeps them in step with the
// index's files. They live beside the index's own tables (storage/sqlite_schema.hpp) and belong
// to this module alone: an index written before them simply lacks them until its next
// `kestrix index` run, and readers cope with their absence.
//
//   retrieval_symbol_text: FTS5, contentless, without size records or positions (each word
//       is once per column, so column_bm25() ranks it as term_bm25() would with positions, for
//       a third less space); one row per symbol of a source file, rowid = symbols.id above the
//       row's length (term_bm25.hpp, whose ranking reads it there), negated for a symbol of a test file (a search that leaves tests out
//       reads only the positive rowids, a range FTS5 seeks to). Columns of search words
//       (search_words.hpp), each word once per column: name (split and whole), qualified (the
//       fully qualified name), signature, doc (docstring), body (the
//       identifiers and comment words of its lines; a class-like symbol leaves out its
//       members' lines and their doc comments, which are rows of their own).
//   retrieval_file_text: FTS5, contentless, without size records; one row per source file,
//       rowid = its document number above the row's length, negated for a test file (the
//       state row's doc_id, below): path, body (the words of the whole text, each repeated by the order of
//       magnitude of its count).
//   retrieval_symbol_vocab, retrieval_file_vocab: fts5vocab 'row' tables (documents per word).
//   retrieval_word_counts(word, symbols, files): the same counts, kept as rows are written, for
//       the retriever to read per task word (fts5vocab counts a word's documents by reading
//       its whole posting list: tens of milliseconds for common words of a large index).
//   retrieval_file_state(file_id, doc_id, content_hash, is_test, symbol_rows): which row
//       describes each file and what it was made from; a file whose hash or test flag differs
//       is described again.
//
// An index run writes the rows of each file it parses as it goes (the parser that parsed the
// file describes it from the text it holds); the refresh at the end of the run describes the
// other files whose rows are missing or stale. Until the run has counted the words of the rows
// it wrote, meta "retrieval_counts_pending" is "1" and the tables count as absent: a first
// build stopped between two batches has its tables remade by the next run.
//
// The full-text tables keep no copy of their text (it would double the index), so a changed
// file's old rows cannot be deleted one by one: they stay, unreachable (their symbol ids are
// never given out again, their doc_id has no state row), and are counted in meta
// "retrieval_stale_rows"; once they outnumber a quarter of the live rows the tables are
// rebuilt. Refreshes thus cost in proportion to the change, plus an occasional rebuild.
//   meta "retrieval_revision": the format of these tables; another value remakes them.

#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix::retrieval {

inline constexpr const char* kRetrievalRevisionKey = "retrieval_revision";
inline constexpr const char* kRetrievalRevision = "10";
// The condition a search of either full-text table adds to leave test files' rows out.
inline constexpr const char* kOutsideTests = " AND rowid > 0";

struct RetrievalRefreshStats {
    std::int64_t described = 0;  // files whose rows were (re)written
    std::int64_t dropped = 0;    // files whose rows were deleted without replacement
};

// Creates the tables when missing (or of another revision) and rewrites the rows of the
// source files that are new or changed since their rows were made, and only those; files gone
// from the index lose theirs. Reads each described file from `root` (the text the index was
// made from), on up to `jobs` threads (0: one per hardware thread). Runs in one transaction of
// its own, or inside the caller's when it holds one (an index run's).
RetrievalRefreshStats refresh_retrieval_tables(storage::Database& db, const std::filesystem::path& root,
                                               unsigned jobs = 0);

// The text an index run writes to the full-text tables at a time while it parses: a commit
// flushes what FTS5 holds in memory into a new segment, and many small segments cost more to
// merge than to write.
inline constexpr std::size_t kRowGroupBytes = 24u << 20;

// `options` with the retriever's rows written for each file the run parses (in groups of
// `group_bytes` of text) and the tables brought up to date at the end of each index run.
indexer::IndexOptions index_options_with_retrieval(indexer::IndexOptions options, std::size_t group_bytes = kRowGroupBytes);

// Whether the index holds the retriever's tables, complete and of this revision.
bool has_retrieval_tables(storage::Database& db);

}  // namespace orvane_kestrix::retrieval
