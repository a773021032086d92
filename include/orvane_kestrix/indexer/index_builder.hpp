#pragma once
// Builds or refreshes the SQLite index of a repository.
//
// A run lists the repository's files, re-parses only those whose content changed (by size and
// modification time first, then by content hash), drops the files that are gone, and
// recomputes what depends on other files: reference targets, production fan-in and covering
// tests. Files are read and parsed on worker threads (one parser each); one thread writes them
// in the order they were handed out, so the same tree gets the same ids whatever the number of
// threads. A new index (or a rebuild) is written to a file beside the index path without a
// journal, one transaction per batch of files, and renamed into place when done; an index in
// place is changed in one transaction, so a reader sees it as it was before the run or as it
// is after, never a part. One run writes an index at a time (storage/index_writer_lock.hpp).
// Bad input never stops a run: a file that cannot be used is skipped and counted by reason.

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orvane_kestrix/indexer/extraction.hpp"
#include "orvane_kestrix/indexer/index_store.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix::indexer {

// Parses one file: (language, repository path, UTF-8 text with LF line ends).
using ExtractFunction = std::function<FileExtraction(Language, std::string_view, std::string_view)>;

struct IndexProgress {
    std::string_view phase;  // "scanning", "parsing", "resolving"
    std::size_t done = 0;
    std::size_t total = 0;
    // The run changes the index: a first build or a rebuild from the start, a refresh from
    // the moment it finds files to parse or drop. A refresh that finds nothing changed never
    // sets it.
    bool updating = false;

    // The run's progress as one percentage: scanning counts as 0, parsing runs to 90,
    // resolving the references of the whole index takes the rest.
    std::int64_t percent() const;
};

// Rows that another module keeps in the index for each parsed file (the retriever's), made
// while the run parses instead of in a pass of their own: the parser thread that parsed a file
// describes it from the text it already holds, and the writing thread writes the description
// right after the file's own rows, so that this work overlaps the parsing of the next files.
// Files this run does not parse are the module's own to bring up to date
// (IndexOptions::refresh_extra_tables, which runs after the parse).
class ParsedFileRows {
public:
    virtual ~ParsedFileRows() = default;
    // On the writing thread, inside a transaction, before the first file: `to_parse` files
    // will be parsed, `indexed` are in the index.
    virtual void begin(storage::Database& db, std::size_t to_parse, std::size_t indexed) = 0;
    // On a parser thread: the description of a parsed file, from its extraction and its bytes
    // as read; null when the module keeps no rows for it.
    virtual std::shared_ptr<void> describe(const ParsedFile& parsed, std::string_view bytes) const = 0;
    // On the writing thread, after the file's rows: its id, and the id of its first symbol
    // (the others follow in extraction order).
    virtual void write(storage::Database& db, std::int64_t file_id, std::int64_t first_symbol_id,
                       std::shared_ptr<void> description) = 0;
    // After the last file of a run that was not stopped, inside a transaction.
    virtual void finish(storage::Database& db) = 0;
};

struct IndexOptions {
    std::filesystem::path repo = ".";
    // The database file; default: <repo>/.kestrix/index.db.
    std::optional<std::filesystem::path> db;
    // Index from scratch, then replace whatever is at the database path (kept as it was if
    // the run is interrupted).
    bool rebuild = false;
    // Parser threads; 0: one per hardware thread.
    unsigned jobs = 0;
    // Larger files are skipped as "too_large".
    std::uint64_t max_file_size = 2 * 1024 * 1024;
    // Index minified and generated files too (generated_file.hpp); otherwise they are skipped
    // as "minified" and "generated". A run whose choice differs from the last completed run's
    // reads every file again, so that the index follows the new choice.
    bool include_generated = false;
    // List the files with git when the repository is in a work tree.
    bool use_git = true;
    // Called on the writing thread as work advances.
    std::function<void(const IndexProgress&)> on_progress;
    // Set from elsewhere (a signal handler) to stop at the next file. A stopped refresh leaves
    // the index as it was, a stopped rebuild the previous index; a stopped first build keeps
    // its completed batches, and the next run goes on from them.
    const std::atomic<bool>* cancel = nullptr;
    // When another run is writing this index: wait for it to end (`on_lock_wait` is told its
    // pid once), or with `wait_for_writer` false throw storage::IndexBusyError at once.
    bool wait_for_writer = true;
    std::function<void(pid_t)> on_lock_wait;
    // Brings tables that another module keeps in the index up to date at the end of each
    // completed run (the retriever's: retrieval::index_options_with_retrieval). Called on the
    // writing connection with the repository root and `jobs`, inside the run's transaction
    // when it has one (which its own transaction joins).
    std::function<void(storage::Database&, const std::filesystem::path&, unsigned)> refresh_extra_tables;
    // Makes, for each run, the rows another module writes for each parsed file (ParsedFileRows).
    std::function<std::unique_ptr<ParsedFileRows>()> make_parsed_file_rows;
    // Makes one parser per worker thread; default: the tree-sitter Extractor.
    std::function<ExtractFunction()> make_extractor;
};

struct IndexStats {
    std::int64_t files = 0;        // files in the index after the run
    std::int64_t parsed = 0;       // new or changed files parsed in this run
    std::int64_t unchanged = 0;    // files whose content had not changed
    std::int64_t removed = 0;      // files dropped from the index
    std::map<std::string, std::int64_t> skipped;  // reason -> files
    std::int64_t symbols = 0;      // in the index after the run
    std::int64_t references = 0;   // in the index after the run
    double seconds = 0;
    bool cancelled = false;
    // Wall seconds per phase, in order: "scan" (listing and comparing files), "parse"
    // (reading, parsing, writing), then, when other files' facts were recomputed, "load",
    // "resolve" and "write" (or "resolve changes" and "write" when only what the changed files
    // can alter was resolved again); then "extra tables" when refresh_extra_tables ran; then "commit"
    // when the run changed an index in place (its one transaction).
    std::vector<std::pair<std::string, double>> timings;

    std::int64_t skipped_total() const;
    // One line: files indexed, skipped by reason, symbols, references, seconds.
    std::string summary() const;
};

// <repo>/.kestrix/index.db
std::filesystem::path default_index_path(const std::filesystem::path& repo);

class IndexBuilder {
public:
    explicit IndexBuilder(IndexOptions options);

    // Runs once. Throws storage::IndexFileError for a database file that is damaged, foreign
    // or of a newer schema (the message names the file and --rebuild), and
    // storage::IndexBusyError when another run writes the index and the options say not to wait.
    IndexStats run();

private:
    IndexOptions options_;
};

}  // namespace orvane_kestrix::indexer
