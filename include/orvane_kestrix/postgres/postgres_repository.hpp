#pragma once
// The index contract over one repository of the index tables on a PostgreSQL server
// (postgres_schema.hpp), answering exactly as the SQLite index of the same repository does.
//
// Every operation is one statement run once, prepared when the connection opens (but for the
// name search, planned per pattern); a list travels as one array parameter (bigint[] or
// text[]), so no statement depends on the list's length. Answers and their order
// are the SQLite index's (sqlite_repository.hpp):
// - search_symbols: SQLite's LIKE (ASCII letters fold, other characters compare exactly, "%"
//   any run, "_" one character, no escape character) by comparing the stored ASCII-folded
//   name with the folded pattern; in id order, cut to the limit (negative: none). A pattern
//   longer than SQLite's LIKE pattern limit matches nothing, as there. Text PostgreSQL cannot
//   hold (NUL bytes, ill-formed UTF-8) matches nothing; names in an index never hold it.
// - find_covering_tests, get_references: ordered by paths in byte order ("C" collation).
// - everything else as the SQLite index answers it, ids included (they are the SQLite ids).
//
// Reads outside a snapshot each see the latest committed state; begin_snapshot() makes every
// read until end_snapshot() see one state (a REPEATABLE READ, READ ONLY transaction), so a
// pack never mixes the state before a publish with the state after it. The connection belongs
// to one thread at a time. Errors are thrown: PostgresError, UnknownRepositoryError,
// SchemaVersionError.

#include <memory>
#include <string>

#include "orvane_kestrix/postgres/connection.hpp"
#include "orvane_kestrix/storage/repository.hpp"

namespace orvane_kestrix::postgres {

class PostgresRepository final : public Repository {
public:
    // Connects to `url` and opens repository `name`.
    PostgresRepository(const std::string& url, std::string name);
    ~PostgresRepository() override;
    PostgresRepository(const PostgresRepository&) = delete;
    PostgresRepository& operator=(const PostgresRepository&) = delete;

    // Starts a read snapshot and finds the repository again in it (it may have been removed
    // or rewritten at another version since the last one).
    void begin_snapshot();
    void end_snapshot();
    // Ends a snapshot without caring how (after a failure); never throws.
    void abandon_snapshot() noexcept;

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

    Connection& connection() { return connection_; }
    const std::string& name() const { return name_; }

private:
    Result run(const char* statement, Parameters parameters);

    Connection connection_;
    std::string name_;
    std::string repo_id_;  // as the statements take it
    bool in_snapshot_ = false;
};

}  // namespace orvane_kestrix::postgres
