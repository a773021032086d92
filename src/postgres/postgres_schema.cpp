// The index tables on PostgreSQL: creation, version checks, repository lookup.

#include "orvane_kestrix/postgres/postgres_schema.hpp"

namespace orvane_kestrix::postgres {

namespace {

// An arbitrary key for the advisory lock that serialises table creation between writers.
constexpr const char* kSchemaLockKey = "4923170566123412017";

constexpr const char* kTables = R"sql(
CREATE TABLE kestrix_meta(
  key text COLLATE "C" PRIMARY KEY,
  value text NOT NULL
);
CREATE TABLE repositories(
  id bigserial PRIMARY KEY,
  name text COLLATE "C" NOT NULL UNIQUE,
  schema_version integer NOT NULL,
  indexed_at text,
  published_at timestamptz
);
CREATE TABLE components(
  repo_id bigint NOT NULL,
  id bigint NOT NULL,
  name text COLLATE "C" NOT NULL,
  PRIMARY KEY (repo_id, id),
  UNIQUE (repo_id, name)
);
CREATE TABLE files(
  repo_id bigint NOT NULL,
  id bigint NOT NULL,
  path text COLLATE "C" NOT NULL,
  language text COLLATE "C" NOT NULL,
  is_test boolean NOT NULL,
  is_source boolean NOT NULL,
  component_id bigint,
  content_hash text COLLATE "C" NOT NULL,
  size bigint NOT NULL,
  mtime_ns bigint NOT NULL,
  module_name text COLLATE "C" NOT NULL,
  has_syntax_errors boolean NOT NULL,
  PRIMARY KEY (repo_id, id),
  UNIQUE (repo_id, path)
);
CREATE INDEX files_by_component ON files(repo_id, component_id);
CREATE TABLE symbols(
  repo_id bigint NOT NULL,
  id bigint NOT NULL,
  file_id bigint NOT NULL,
  parent_id bigint,
  name text COLLATE "C" NOT NULL,
  name_folded text COLLATE "C" GENERATED ALWAYS AS (translate(name, 'ABCDEFGHIJKLMNOPQRSTUVWXYZ', 'abcdefghijklmnopqrstuvwxyz')) STORED,
  fqn text COLLATE "C" NOT NULL,
  kind text COLLATE "C" NOT NULL,
  start_line bigint NOT NULL,
  end_line bigint NOT NULL,
  signature text COLLATE "C",
  docstring text COLLATE "C",
  docstring_truncated boolean NOT NULL,
  is_export boolean NOT NULL,
  token_count bigint NOT NULL,
  production_fan_in bigint NOT NULL,
  PRIMARY KEY (repo_id, id)
);
CREATE INDEX symbols_by_file ON symbols(repo_id, file_id, id);
CREATE INDEX symbols_by_fqn ON symbols(repo_id, fqn, id);
CREATE INDEX symbols_by_name ON symbols(repo_id, name_folded, id);
CREATE TABLE refs(
  repo_id bigint NOT NULL,
  id bigint NOT NULL,
  file_id bigint NOT NULL,
  caller_id bigint,
  name text COLLATE "C" NOT NULL,
  qualifier text COLLATE "C" NOT NULL,
  usage_type text COLLATE "C" NOT NULL,
  line bigint NOT NULL,
  context text COLLATE "C" NOT NULL,
  PRIMARY KEY (repo_id, id)
);
CREATE TABLE ref_targets(
  repo_id bigint NOT NULL,
  symbol_id bigint NOT NULL,
  ref_id bigint NOT NULL,
  PRIMARY KEY (repo_id, symbol_id, ref_id)
);
CREATE TABLE covering_tests(
  repo_id bigint NOT NULL,
  source_file_id bigint NOT NULL,
  test_file_id bigint NOT NULL,
  rank double precision NOT NULL,
  used_symbols bigint NOT NULL,
  PRIMARY KEY (repo_id, source_file_id, test_file_id)
);
)sql";

// Substring searches over names; the extension may be refused to a user without the right to
// create it, and searches stay correct without it (a scan of the repository's symbols).
constexpr const char* kTrigramIndex = R"sql(
CREATE EXTENSION IF NOT EXISTS pg_trgm;
CREATE INDEX symbols_by_name_trigram ON symbols USING gin (name_folded gin_trgm_ops);
)sql";

bool has_index_tables(Connection& connection) {
    return !connection.query("SELECT to_regclass('kestrix_meta') IS NULL", {}, "look for the index tables").boolean(0, 0);
}

int tables_version(Connection& connection) {
    const Result r = connection.query("SELECT value FROM kestrix_meta WHERE key = 'schema_version'", {},
                                      "read the index tables' version");
    if (r.rows() == 0) return 0;
    return static_cast<int>(r.int64(0, 0));
}

void check_tables_version(Connection& connection, int version, const std::string& name) {
    if (version == kServerSchemaVersion) return;
    if (version > kServerSchemaVersion) {
        throw SchemaVersionError("PostgreSQL at " + connection.display_url() + " holds index tables of schema version " +
                                 std::to_string(version) + ", newer than this kestrix reads (" +
                                 std::to_string(kServerSchemaVersion) + "); upgrade kestrix");
    }
    throw SchemaVersionError("PostgreSQL at " + connection.display_url() + " holds index tables of schema version " +
                             std::to_string(version) + ", older than this kestrix reads (" +
                             std::to_string(kServerSchemaVersion) + "); run `" + index_command_for(connection, name) +
                             " --rebuild` to migrate them");
}

}  // namespace

std::string index_command_for(const Connection& connection, const std::string& name) {
    return "kestrix index --db " + connection.display_url() + " --name " + name;
}

void ensure_schema(Connection& connection, const std::string& name) {
    const Result encoding = connection.query("SHOW server_encoding", {}, "read the database encoding");
    if (encoding.text(0, 0) != "UTF8") {
        throw PostgresError("PostgreSQL at " + connection.display_url() + ": the database's encoding is " +
                            encoding.string(0, 0) + "; the index needs a UTF8 database (CREATE DATABASE ... ENCODING 'UTF8')");
    }
    connection.exec("BEGIN", "start creating the index tables");
    try {
        connection.exec(std::string("SELECT pg_advisory_xact_lock(") + kSchemaLockKey + ")", "lock the index tables");
        if (!has_index_tables(connection)) {
            connection.exec(kTables, "create the index tables");
            connection.exec("SAVEPOINT trigram", "create the index tables");
            try {
                connection.exec(kTrigramIndex, "create the trigram index");
                connection.exec("RELEASE SAVEPOINT trigram", "create the index tables");
            } catch (const PostgresError&) {
                connection.exec("ROLLBACK TO SAVEPOINT trigram", "create the index tables");
            }
            connection.query("INSERT INTO kestrix_meta(key, value) VALUES ('schema_version', $1)",
                             {std::to_string(kServerSchemaVersion)}, "record the index tables' version");
        }
        check_tables_version(connection, tables_version(connection), name);
        connection.exec("COMMIT", "create the index tables");
    } catch (...) {
        connection.rollback_quietly();
        throw;
    }
}

RepositoryRow open_repository_row(Connection& connection, const std::string& name) {
    const std::string missing = "PostgreSQL at " + connection.display_url() + " has no repository named \"" + name +
                                "\"; run `" + index_command_for(connection, name) + " --repo DIR` to index it";
    if (!storable_text(name) || !has_index_tables(connection)) throw UnknownRepositoryError(missing);
    check_tables_version(connection, tables_version(connection), name);
    const Result r = connection.query("SELECT id, schema_version, indexed_at FROM repositories WHERE name = $1", {name},
                                      "look up the repository");
    if (r.rows() == 0) throw UnknownRepositoryError(missing);
    RepositoryRow row{r.int64(0, 0), static_cast<int>(r.int64(0, 1)), r.optional_text(0, 2)};
    if (row.schema_version != kServerSchemaVersion) {
        throw SchemaVersionError("repository \"" + name + "\" on PostgreSQL at " + connection.display_url() +
                                 " was written at schema version " + std::to_string(row.schema_version) +
                                 ", this kestrix reads version " + std::to_string(kServerSchemaVersion) + "; run `" +
                                 index_command_for(connection, name) + " --repo DIR --rebuild` to rewrite it");
    }
    return row;
}

}  // namespace orvane_kestrix::postgres
