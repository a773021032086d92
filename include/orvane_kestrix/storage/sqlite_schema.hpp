#pragma once
// The SQLite index file: opening it, its schema and schema version, and thin RAII wrappers over
// the SQLite C API shared by the index writer and the index reader.
//
// One database file per repository (by default <root>/.kestrix/index.db), journal mode WAL, so
// readers keep seeing the last committed state while the indexer writes. The file carries
// PRAGMA application_id = kIndexApplicationId and PRAGMA user_version = kIndexSchemaVersion;
// a file with another application id and tables of its own is a foreign file, never touched
// unless the caller asks for a rebuild.
//
// Schema (version 2). Paths are repository-relative, "/"-separated. Booleans are 0/1 integers.
// Lines are 1-based, end lines inclusive.
//
//   meta(key TEXT PRIMARY KEY, value TEXT)
//       "schema_version": the schema version as text (mirrors user_version);
//       "derived_stale": "1" while file data has been written but references, fan-in and
//           covering tests have not yet been recomputed (an interrupted run); the next run
//           recomputes them even when no file changed. "0" otherwise.
//       "indexed_at": the UTC time of the last completed run, ISO 8601.
//       "packages": the Go modules and Rust crates the last refresh resolved imports with;
//           a change makes the next run recompute references.
//       "parser_revision": the parser output revision the files were parsed with; another
//           value makes the next run parse every file again.
//       "generated_files": "indexed" or "skipped": whether the last completed run indexed
//           minified and generated files; absent in indexes that predate the choice (they did).
//       "last_symbol_id", "last_ref_id": the largest symbol and reference ids ever given out;
//           the writer numbers new rows above them, so an id is never given twice.
//
//   components(id INTEGER PRIMARY KEY, name TEXT UNIQUE)
//       A directory holding a package manifest (pyproject.toml, setup.py, package.json, go.mod,
//       Cargo.toml, pom.xml, build.gradle, CMakeLists.txt), or a top-level directory of files
//       under no manifest, or "." for the root. `name` is the directory's repository path.
//       Lookup by name: the UNIQUE index.
//
//   files(id INTEGER PRIMARY KEY, path TEXT UNIQUE, language TEXT, is_test, is_source,
//         component_id, content_hash TEXT, size, mtime_ns, module_name TEXT, has_syntax_errors)
//       One row per indexed file. `language` is language_name() ("python", "markdown", ...);
//       `is_source` marks source code as opposed to documentation and data files (Markdown,
//       JSON, YAML, TOML); `is_test` follows each language's test-file conventions;
//       `component_id` is the file's deepest component (NULL only if none could be given);
//       `content_hash` is the XXH3-128 of the raw bytes in hex; `size`/`mtime_ns` let a later
//       run skip reading unchanged files (mtime_ns is -1 when it was too recent to be trusted);
//       `module_name` is the module name the parser gave the file. File ids are stable while
//       the path stays indexed.
//       Indexes: files_by_component(component_id); the UNIQUE index on path.
//
//   symbols(id INTEGER PRIMARY KEY, file_id, parent_id, name, fqn, kind,
//           start_line, end_line, signature, docstring, docstring_truncated, is_export,
//           token_count, production_fan_in)
//       One row per definition. `parent_id` is the enclosing definition in the same file, or
//       NULL. `signature`/`docstring` are NULL when absent. `token_count` is the stored
//       Symbol::token_count(): SymbolRowHead::estimated_tokens() of the symbol's pack row
//       (fqn, name, kind, file, line = start_line, signature null when absent). `production_fan_in` is the number of references from non-test files resolved
//       to this symbol. Ids are never reused (see last_symbol_id); a re-parsed file gets new ids.
//       Order within a file: by id, which is source order.
//       Indexes: symbols_by_file(file_id, start_line), symbols_by_fqn(fqn),
//       symbols_by_name(name COLLATE NOCASE) (NOCASE folds ASCII only, as LIKE does: exact
//       and literal-head name searches).
//
//   symbol_names: FTS5 table, trigram tokenizer, detail=none, external content = symbols,
//       one column `name`; rowid = symbols.id. It makes LIKE over names use an index even
//       for substring patterns ('%read%'); the trigram LIKE folds case beyond ASCII, so repeat
//       the LIKE on symbols.name for SQLite's own (ASCII case-insensitive) semantics:
//         SELECT s.* FROM symbols s JOIN files f ON f.id = s.file_id
//         WHERE s.id IN (SELECT rowid FROM symbol_names WHERE name LIKE :p)
//           AND s.name LIKE :p [AND f.is_source = 1] ORDER BY s.id LIMIT :limit
//
//       The indexer keeps it in step with `symbols` within each write transaction (bulk
//       inserts per batch rather than triggers, for speed).
//
//   refs(id INTEGER PRIMARY KEY, file_id, caller_id, name, qualifier,
//        usage_type, line, context)
//       One row per use of a name: a call, an import, a type use, an inheritance...
//       (`usage_type` as the parser names it: "call", "import", "type", "inherit", ...).
//       `name` is the used identifier (last component), `qualifier` what precedes it as written
//       ("os.path", "self", "" when bare). `caller_id` is the symbols.id of the enclosing
//       definition in the same file, NULL at module level. `context` is the trimmed source
//       line of the use. Ids are never reused. Index: refs_by_file(file_id).
//
//   ref_targets(symbol_id, ref_id) PRIMARY KEY (symbol_id, ref_id), WITHOUT ROWID
//       The definitions a reference was resolved to (same file first, then the names and
//       modules its file imports, then a name unique in the whole index); a reference may
//       have several targets, or none (calls into libraries outside the repository).
//       References of one symbol, in a stable order:
//         SELECT r.usage_type, c.fqn, c.kind, c.name, r.context
//         FROM symbols t JOIN ref_targets rt ON rt.symbol_id = t.id
//           JOIN refs r ON r.id = rt.ref_id JOIN files f ON f.id = r.file_id
//           LEFT JOIN symbols c ON c.id = r.caller_id
//         WHERE t.fqn = :fqn ORDER BY f.path, r.line, r.id
//       (GROUP BY r.id when several symbols share the fqn.)
//
//   imports(id INTEGER PRIMARY KEY, file_id, module, name, alias, line)
//       One row per imported name (`name` NULL when the module itself is imported);
//       `module` as written ("pkg.mod", "./util", "fmt", "crate::a", "x.h").
//       Index: imports_by_file(file_id).
//
//   covering_tests(source_file_id, test_file_id, rank REAL, used_symbols)
//       PRIMARY KEY (source_file_id, test_file_id), WITHOUT ROWID
//       A test file reaches a source file when it imports it or uses its symbols. Lower rank is
//       better: 0 for the test named after the source file (test_cart.py, cart_test.py,
//       point_test.go, format.test.js, InventoryTest.java...), then 1, 2, ... by how many
//       distinct symbols of the source file the test uses, most first (equal counts share a
//       rank). `used_symbols` is that count.
//       Index: covering_tests_by_test(test_file_id).
//
// Every write happens in the indexer; readers open the file read-only.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace orvane_kestrix::storage {

inline constexpr int kIndexSchemaVersion = 3;
// "KSTX": marks a file as an index of this tool.
inline constexpr std::int32_t kIndexApplicationId = 0x4B535458;

// An error reported by SQLite; `code()` is the extended result code.
class SqliteError : public std::runtime_error {
public:
    SqliteError(int code, const std::string& message);
    int code() const { return code_; }
    // Whether the error says the file is damaged or not a database at all.
    bool is_corruption() const;

private:
    int code_;
};

// The index file cannot be used: not a database, damaged, another program's database, or a
// schema this build does not know. what() is one line naming the file and `--rebuild`.
class IndexFileError : public std::runtime_error {
public:
    IndexFileError(const std::filesystem::path& path, const std::string& problem);
};

// The index path names a directory, which --rebuild cannot replace: the message says to give
// a file path instead.
class IndexPathIsDirectory : public std::runtime_error {
public:
    explicit IndexPathIsDirectory(const std::filesystem::path& path);
};

class Statement;

// An open SQLite connection. Movable, not copyable; closes on destruction.
class Database {
public:
    Database() = default;
    Database(const std::filesystem::path& path, int flags);
    ~Database();
    Database(Database&& other) noexcept;
    Database& operator=(Database&& other) noexcept;
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    sqlite3* handle() const { return db_; }
    const std::filesystem::path& path() const { return path_; }
    // Runs one or more statements without results.
    void exec(std::string_view sql);
    Statement prepare(std::string_view sql);
    std::int64_t last_insert_rowid() const;
    std::int64_t scalar_int(std::string_view sql);
    [[noreturn]] void raise(int code) const;
    // Closes now, reporting a failure (a statement still alive) instead of deferring it.
    void close();

private:
    sqlite3* db_ = nullptr;
    std::filesystem::path path_;
};

// A prepared statement. Bind indexes are 1-based, column indexes 0-based.
class Statement {
public:
    Statement() = default;
    Statement(const Database& db, std::string_view sql);
    ~Statement();
    Statement(Statement&& other) noexcept;
    Statement& operator=(Statement&& other) noexcept;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int index, std::int64_t value);
    Statement& bind(int index, int value) { return bind(index, static_cast<std::int64_t>(value)); }
    Statement& bind(int index, bool value) { return bind(index, static_cast<std::int64_t>(value)); }
    Statement& bind(int index, double value);
    // Text is bound as transient (copied by SQLite).
    Statement& bind(int index, std::string_view value);
    Statement& bind(int index, const char* value) { return bind(index, std::string_view(value)); }
    Statement& bind(int index, const std::string& value) { return bind(index, std::string_view(value)); }
    Statement& bind(int index, const std::optional<std::string>& value);
    Statement& bind(int index, std::optional<std::int64_t> value);
    // Text that stays alive and unchanged until the statement is reset: bound without a copy.
    Statement& bind_static(int index, std::string_view value);
    Statement& bind_static(int index, const std::string& value) { return bind_static(index, std::string_view(value)); }
    Statement& bind_static(int index, const std::optional<std::string>& value);
    Statement& bind_null(int index);

    // Advances; true while a row is available.
    bool step();
    // Runs a statement without results to completion and resets it.
    void run();
    void reset();

    int column_count() const;
    std::int64_t column_int64(int index) const;
    double column_double(int index) const;
    bool column_is_null(int index) const;
    // Valid until the next step/reset.
    std::string_view column_text(int index) const;
    std::string column_string(int index) const { return std::string(column_text(index)); }
    std::optional<std::string> column_optional_text(int index) const;
    std::optional<std::int64_t> column_optional_int64(int index) const;

private:
    const Database* db_ = nullptr;
    sqlite3_stmt* stmt_ = nullptr;
};

// Resets a statement when its answer has been read or an error leaves the scope, so that a
// prepared statement kept for reuse never stays half-run.
struct ResetOnExit {
    Statement& statement;
    ~ResetOnExit() { statement.reset(); }
};

// BEGIN IMMEDIATE on construction; rolls back on destruction unless committed. Inside a
// transaction already open on the connection it joins that one instead: its changes are
// committed or rolled back with it. (Not a savepoint: SQLite keeps the pages a savepoint
// changes in a sub-journal whose in-memory form costs every later statement a walk over it,
// which made a large refresh several times slower.)
class Transaction {
public:
    explicit Transaction(Database& db);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

private:
    Database& db_;
    bool joined_;
    bool open_ = true;
};

struct IndexOpenOptions {
    bool read_only = false;  // readers: never creates, migrates or changes the file
    bool rebuild = false;    // writers: delete whatever is at the path and start a new index
    // Writers of a file no one else sees yet (built aside, then published): no journal and no
    // syncs while it fills. publish_index() makes it an ordinary index.
    bool unpublished = false;
};

// Opens the index at `path`, for use by one thread at a time. A writer creates the file (and its directory) when missing,
// initialises an empty database, migrates an older schema, sets WAL. Throws IndexFileError
// for a file that is not a database, is damaged, belongs to another program, has a newer
// schema, lacks a table of its schema, cannot be migrated, or (read-only) does not exist or
// is not initialised; IndexPathIsDirectory for a directory.
Database open_index(const std::filesystem::path& path, const IndexOpenOptions& options = {});

// Deletes the database file and its -wal, -shm and -journal companions, if present.
void remove_index_files(const std::filesystem::path& path);

// Turns an index opened `unpublished` into an ordinary one (WAL), closes it and renames it
// over `target` in one step: readers see the old index or the new one, never a part. The target's
// own -wal and -shm companions go first, so they are never applied to the new file. The new
// file is flushed to disk first, so a crash can neither trade a good index for a torn one nor
// leave a torn first index under the index's name, and the build pays for its own writes
// (otherwise the first refresh's checkpoint did: 0.6 s on a kernel-sized tree).
void publish_index(Database db, const std::filesystem::path& target);

// Copies the write-ahead log into the index file and truncates it, unless a reader still
// reads an older state after `wait` (then it is left as it is: best effort). SQLite otherwise
// keeps the log at its largest size while any connection is open, which after a large
// refresh is about the size of the index.
void shrink_write_ahead_log(Database& db, std::chrono::milliseconds wait);

// The file an index path names: a symbolic link is followed to the path it points at (which
// need not exist yet). A rebuild publishes by renaming onto that path, so a linked index path
// keeps its link and the link's target gets the new index.
std::filesystem::path index_file_behind_links(const std::filesystem::path& path);

// Where an index for `target` is built before publish_index(): next to it, named after it and
// this process.
std::filesystem::path unpublished_index_path(const std::filesystem::path& target);
// Deletes the unpublished builds for `target` whose process is gone (killed half way).
void remove_abandoned_builds(const std::filesystem::path& target);

// The keys of the `meta` table (described at the top of this file).
namespace meta_key {
inline constexpr std::string_view schema_version = "schema_version";
inline constexpr std::string_view derived_stale = "derived_stale";
inline constexpr std::string_view indexed_at = "indexed_at";
inline constexpr std::string_view packages = "packages";
inline constexpr std::string_view parser_revision = "parser_revision";
inline constexpr std::string_view generated_files = "generated_files";
inline constexpr std::string_view last_symbol_id = "last_symbol_id";
inline constexpr std::string_view last_ref_id = "last_ref_id";
inline constexpr std::string_view symbol_count = "symbol_count";
inline constexpr std::string_view reference_count = "reference_count";
}  // namespace meta_key

// Reads and writes the `meta` table.
std::optional<std::string> read_meta(Database& db, std::string_view key);
void write_meta(Database& db, std::string_view key, std::string_view value);

}  // namespace orvane_kestrix::storage
