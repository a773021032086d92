#pragma once
// The retriever's tables in the index file, and the refresh that keeps them in step with the
// index's files. They live beside the index's own tables (storage/sqlite_schema.hpp) and belong
// to this module alone: an index written before them simply lacks them until its next
// `kestrix index` run, and readers cope with their absence.
//
//   retrieval_symbol_text: FTS5, one row per symbol of a source file, rowid = symbols.id.
//       Columns of search words (search_words.hpp): name (split and whole), qualified (the
//       fully qualified name), signature, doc (docstring), body (the identifiers and comment
//       words of its lines; a class-like symbol leaves out its members' lines, which are their
//       own rows), path (its file's path, plus kTestFileMarker for a test file).
//   retrieval_file_text: FTS5, one row per source file, rowid = files.id: path, body (the
//       whole text).
//   retrieval_symbol_vocab: fts5vocab 'row' over retrieval_symbol_text (documents per word).
//   retrieval_file_vocab: the same over retrieval_file_text.
//   retrieval_symbol_rows(file_id, symbol_id): the symbol rows written for each file, so
//       that a changed file's rows can be deleted after its symbols are gone.
//   retrieval_file_state(file_id, content_hash, is_test): what each file's rows were made
//       from; a file whose hash or test flag differs is described again.
//   retrieval_ref_targets_by_ref: an index of ref_targets by reference, so that the symbols a
//       symbol uses can be found from its references (the reference graph signal).
//   meta "retrieval_revision": the format of these tables; another value remakes them.

#include <cstdint>
#include <filesystem>

#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix::retrieval {

inline constexpr const char* kRetrievalRevisionKey = "retrieval_revision";
inline constexpr const char* kRetrievalRevision = "2";
// The word a test file's rows carry in their path column, so that a search can leave them out
// inside the full-text query ("... NOT kxtestfile").
inline constexpr const char* kTestFileMarker = "kxtestfile";

struct RetrievalRefreshStats {
    std::int64_t described = 0;  // files whose rows were (re)written
    std::int64_t dropped = 0;    // files whose rows were deleted without replacement
};

// Creates the tables when missing (or of another revision) and rewrites the rows of the
// source files that are new or changed since their rows were made, and only those; files gone
// from the index lose theirs. Reads each described file from `root` (the text the index was
// made from), on up to `jobs` threads (0: one per hardware thread). Runs in one transaction of
// its own; the caller holds none.
RetrievalRefreshStats refresh_retrieval_tables(storage::Database& db, const std::filesystem::path& root,
                                               unsigned jobs = 0);

// Whether the index holds the retriever's tables, complete and of this revision.
bool has_retrieval_tables(storage::Database& db);

}  // namespace orvane_kestrix::retrieval
