#pragma once
// The index tables on a PostgreSQL server: many repositories in one database.
//
// Every repository is a row of `repositories` (its name, such as ORG/REPO, is how readers and
// writers find it), and every row of the content tables carries that repository's id as the
// first column of its primary key. One set of tables rather than a PostgreSQL schema per
// repository: a reader prepares its statements once whatever repository it reads, no SQL is
// ever built from a repository name, hundreds of repositories do not multiply the catalog,
// and the tables can later be partitioned by repository id without changing a query.
//
// The content tables mirror the SQLite index's (sqlite_schema.hpp) with the same ids, so a
// repository reads back exactly as its SQLite index does: components, files, symbols, refs,
// ref_targets, covering_tests. Text columns use the "C" collation (byte order, which for UTF-8
// is the order SQLite compares text in); booleans are booleans. `symbols.name_folded` is the
// name with ASCII letters lowercased, the form name searches compare (SQLite's LIKE folds
// ASCII letters only); a B-tree on it serves exact names and literal heads, a trigram index
// (pg_trgm, when the database allows the extension) substrings.
//
// Versions: `kestrix_meta` holds the version of these tables ("schema_version"); each
// repository row holds the version its rows were written at. A reader refuses a database or
// a repository of another version, naming the command that brings it forward.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "orvane_kestrix/postgres/connection.hpp"

namespace orvane_kestrix::postgres {

inline constexpr int kServerSchemaVersion = 1;

// The database or the repository is at another schema version than this build reads.
class SchemaVersionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The database holds no repository of that name.
class UnknownRepositoryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct RepositoryRow {
    std::int64_t id = 0;
    int schema_version = 0;
    std::optional<std::string> indexed_at;  // when the published index was built, ISO 8601 UTC
};

// The command that (re)writes repository `name` on the server at `url` (password hidden).
std::string index_command_for(const Connection& connection, const std::string& name);

// Writers of repository `name`: creates the tables when the database has none (serialised
// between writers by an advisory lock); throws SchemaVersionError when they are of another
// version, and PostgresError when the database is not UTF-8.
void ensure_schema(Connection& connection, const std::string& name);

// Readers: the repository `name`, checked. Throws UnknownRepositoryError when the database has
// no index tables or no such repository, SchemaVersionError for another version.
RepositoryRow open_repository_row(Connection& connection, const std::string& name);

}  // namespace orvane_kestrix::postgres
