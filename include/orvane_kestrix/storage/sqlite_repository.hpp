#pragma once
// The index contract over the SQLite index file written by the indexer.
//
// Every list operation is one query (the list is bound as a JSON array, see
// repository_fan_in.hpp); every statement is prepared once, when the repository is made, and
// reused. The connection belongs to one thread at a time. Errors are thrown (SqliteError,
// IndexFileError) and never leave a statement half-run.
//
// Answers and their order:
// - search_symbols: names matched as SQLite's LIKE does (ASCII letters fold, other characters
//   compare exactly, "%" any run, "_" one character, no escape character), in id order (the
//   order of indexing, source order within a file), stopping at the limit (a negative limit
//   is none) instead of counting every match of a common word. How a pattern is looked up
//   depends on its shape: without wildcards, through the NOCASE index on names; with a run of
//   three or more literal characters, through the trigram table symbol_names (every trigram
//   of the runs must occur), rechecked with LIKE; with a literal head, through a range of the
//   NOCASE index; otherwise by a scan in id order.
// - get_file_paths_batch: the path of the file each record's file_id names (the record as
//   the caller holds it; a record without id or file_id, or naming no indexed file, is left out).
// - find_covering_tests: one record per test file, ordered by the test file's path; its
//   `reaches` holds the asked paths it reaches, ordered by path.
// - get_symbols_by_file: by id.
// - get_references: each reference once (also when several symbols share the fqn), ordered by
//   the using file's path, then line, then id; `caller_symbol` present when the use lies
//   inside a definition; an empty context line is absent.
// - get_symbol_by_fqn: the first indexed symbol of that name (lowest id).

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "orvane_kestrix/storage/repository.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix {

class SqliteRepository final : public Repository {
public:
    // Opens the index file read-only (storage::open_index); throws IndexFileError when there is
    // no usable index at `index_path`.
    explicit SqliteRepository(const std::filesystem::path& index_path);
    // Takes over an open index connection.
    explicit SqliteRepository(storage::Database database);
    ~SqliteRepository() override;
    SqliteRepository(const SqliteRepository&) = delete;
    SqliteRepository& operator=(const SqliteRepository&) = delete;

    std::optional<Component> get_component_by_name(const std::string& name) override;
    std::vector<FileRecord> get_files_by_component(std::int64_t component_id) override;
    SymbolSearchResult search_symbols(const std::string& pattern, std::int64_t limit = 50,
                                      bool source_only = true) override;
    SymbolPathMap get_file_paths_batch(const std::vector<Symbol>& symbols) override;
    FanInMap production_fan_in(const std::vector<std::int64_t>& ids) override;
    std::unordered_set<std::string> test_paths(const std::vector<std::string>& paths) override;
    std::unordered_map<std::int64_t, SymbolWithPath> symbols_with_paths(
        const std::vector<std::optional<std::int64_t>>& ids) override;
    std::vector<CoveringTest> find_covering_tests(const std::vector<std::string>& paths) override;
    std::vector<Symbol> get_symbols_by_file(std::int64_t file_id) override;
    ReferencesResult get_references(const std::string& fqn) override;
    std::optional<Symbol> get_symbol_by_fqn(const std::string& fqn) override;

    storage::Database& database() { return db_; }

private:
    struct Statements;

    storage::Database db_;
    std::unique_ptr<Statements> statements_;
};

// How search_symbols looks a LIKE pattern up; exposed for tests and query-plan checks.
enum class NamePatternRoute {
    exact,    // no wildcard: equality under NOCASE
    trigram,  // a literal run of at least three characters: the trigram table
    prefix,   // a literal head shorter than that: a NOCASE range
    scan,     // nothing to narrow by
};

struct NamePatternPlan {
    NamePatternRoute route = NamePatternRoute::scan;
    // For `trigram`: the MATCH expression, the pattern's distinct trigrams ANDed, each quoted.
    std::string match;
    // For `prefix`: the bounds of the range, ASCII-lowercased; every matching name lies in
    // [lower, upper) under NOCASE.
    std::string lower;
    std::string upper;
};

NamePatternPlan plan_name_pattern(std::string_view pattern);

}  // namespace orvane_kestrix
