#include "orvane_kestrix/storage/sqlite_schema.hpp"

#include <sqlite3.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <optional>
#include <set>
#include <system_error>
#include <vector>

namespace orvane_kestrix::storage {

namespace {

// How long a statement waits for a lock another connection holds.
constexpr int kBusyTimeoutMs = 5000;

// The schema is written once, table by table: a new index is made at the current version
// directly, and a file of an older version is brought forward by the migrations after its own.

// meta, components and files: as the first schema made them.
constexpr const char* kFileTables = R"sql(
CREATE TABLE meta(
  key TEXT PRIMARY KEY,
  value TEXT NOT NULL
) WITHOUT ROWID;

CREATE TABLE components(
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL UNIQUE
);

CREATE TABLE files(
  id INTEGER PRIMARY KEY,
  path TEXT NOT NULL UNIQUE,
  language TEXT NOT NULL,
  is_test INTEGER NOT NULL DEFAULT 0,
  is_source INTEGER NOT NULL DEFAULT 0,
  component_id INTEGER REFERENCES components(id),
  content_hash TEXT NOT NULL,
  size INTEGER NOT NULL DEFAULT 0,
  mtime_ns INTEGER NOT NULL DEFAULT -1,
  module_name TEXT NOT NULL DEFAULT '',
  has_syntax_errors INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX files_by_component ON files(component_id);
)sql";

// The tables of parsed content as the current schema has them.
constexpr const char* kContentTables = R"sql(
CREATE TABLE symbols(
  id INTEGER PRIMARY KEY,
  file_id INTEGER NOT NULL REFERENCES files(id),
  parent_id INTEGER,
  name TEXT NOT NULL,
  fqn TEXT NOT NULL,
  kind TEXT NOT NULL,
  start_line INTEGER NOT NULL,
  end_line INTEGER NOT NULL,
  signature TEXT,
  docstring TEXT,
  docstring_truncated INTEGER NOT NULL DEFAULT 0,
  is_export INTEGER NOT NULL DEFAULT 0,
  token_count INTEGER NOT NULL DEFAULT 0,
  production_fan_in INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX symbols_by_file ON symbols(file_id, start_line);
CREATE INDEX symbols_by_fqn ON symbols(fqn);
CREATE INDEX symbols_by_name ON symbols(name COLLATE NOCASE);

CREATE VIRTUAL TABLE symbol_names USING fts5(
  name, content='symbols', content_rowid='id', tokenize='trigram', detail='none', columnsize=0);

CREATE TABLE refs(
  id INTEGER PRIMARY KEY,
  file_id INTEGER NOT NULL REFERENCES files(id),
  caller_id INTEGER,
  name TEXT NOT NULL,
  qualifier TEXT NOT NULL DEFAULT '',
  usage_type TEXT NOT NULL,
  line INTEGER NOT NULL,
  context TEXT NOT NULL DEFAULT ''
);
CREATE INDEX refs_by_file ON refs(file_id);

CREATE TABLE ref_targets(
  symbol_id INTEGER NOT NULL,
  ref_id INTEGER NOT NULL,
  PRIMARY KEY (symbol_id, ref_id)
) WITHOUT ROWID;
CREATE INDEX ref_targets_by_ref ON ref_targets(ref_id);

CREATE TABLE imports(
  id INTEGER PRIMARY KEY,
  file_id INTEGER NOT NULL REFERENCES files(id),
  module TEXT NOT NULL,
  name TEXT,
  alias TEXT,
  line INTEGER NOT NULL
);
CREATE INDEX imports_by_file ON imports(file_id);

CREATE TABLE covering_tests(
  source_file_id INTEGER NOT NULL,
  test_file_id INTEGER NOT NULL,
  rank REAL NOT NULL,
  used_symbols INTEGER NOT NULL DEFAULT 0,
  PRIMARY KEY (source_file_id, test_file_id)
) WITHOUT ROWID;
CREATE INDEX covering_tests_by_test ON covering_tests(test_file_id);
)sql";

// What a new index starts with in meta: nothing derived yet, no ids given out.
constexpr const char* kNewIndexMeta = R"sql(
INSERT INTO meta(key, value) VALUES ('derived_stale', '1'), ('last_symbol_id', '0'), ('last_ref_id', '0');
)sql";

// Each entry brings the schema from the previous version to `version`: its `sql`, then, when
// it changes the content tables, those tables remade empty at the current schema (their rows
// are parsed again anyway). A new schema version appends an entry; released entries never
// change.
struct Migration {
    int version;
    const char* sql;
    bool remakes_content_tables;
};

// Version 2: symbols and references get their ids from the writer (a high-water mark in meta
// keeps them unique for the life of the file) instead of AUTOINCREMENT, whose bookkeeping
// table is updated on every insert; the full-text table over names, signatures and
// docstrings is gone (nothing read it, and it was a sixth of the cost of a full index). The
// tables of parsed content are remade empty (ids still continue above the old ones) and
// every file is parsed again.
constexpr const char* kSchemaV2 = R"sql(
INSERT OR REPLACE INTO meta(key, value)
  SELECT 'last_symbol_id', max((SELECT coalesce(max(id), 0) FROM symbols),
                               (SELECT coalesce(max(seq), 0) FROM sqlite_sequence WHERE name = 'symbols'));
INSERT OR REPLACE INTO meta(key, value)
  SELECT 'last_ref_id', max((SELECT coalesce(max(id), 0) FROM refs),
                            (SELECT coalesce(max(seq), 0) FROM sqlite_sequence WHERE name = 'refs'));
DROP TABLE symbol_text;
DROP TABLE symbol_names;
DROP TABLE covering_tests;
DROP TABLE imports;
DROP TABLE ref_targets;
DROP TABLE refs;
DROP TABLE symbols;
DELETE FROM sqlite_sequence;
DELETE FROM files;
DELETE FROM components;
DELETE FROM meta WHERE key IN ('parser_revision', 'packages');
INSERT OR REPLACE INTO meta(key, value) VALUES ('derived_stale', '1');
)sql";

// Version 3: ref_targets indexed by reference (a refresh finds the edges of the references it
// resolves again; the retriever walks from a symbol's references to what they mean), the index
// the retriever's tables used to add for themselves.
constexpr const char* kSchemaV3 = R"sql(
DROP INDEX IF EXISTS retrieval_ref_targets_by_ref;
CREATE INDEX IF NOT EXISTS ref_targets_by_ref ON ref_targets(ref_id);
)sql";

constexpr std::array kMigrations = {
    Migration{2, kSchemaV2, true},
    Migration{3, kSchemaV3, false},
};
static_assert(kMigrations.back().version == kIndexSchemaVersion);

std::string sqlite_message(sqlite3* db, int code) {
    if (db != nullptr && sqlite3_extended_errcode(db) == code) return sqlite3_errmsg(db);
    return sqlite3_errstr(code);
}

}  // namespace

SqliteError::SqliteError(int code, const std::string& message)
    : std::runtime_error(message), code_(code) {}

bool SqliteError::is_corruption() const {
    const int primary = code_ & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

IndexFileError::IndexFileError(const std::filesystem::path& path, const std::string& problem)
    : std::runtime_error("index file " + path.string() + ": " + problem +
                         "; run `kestrix index --rebuild` to start a new index") {}

IndexPathIsDirectory::IndexPathIsDirectory(const std::filesystem::path& path)
    : std::runtime_error("index file " + path.string() +
                         ": is a directory, not an index (the index is one file); remove it, or give --db the path "
                         "of a file") {}

// ---- Database ----

Database::Database(const std::filesystem::path& path, int flags) : path_(path) {
    // SQLite's allocation statistics take a process-wide mutex on every allocation, which the
    // index writer pays on each row; nothing here reads them. Only possible before SQLite
    // initialises, so it is set before the first connection (a no-op afterwards).
    static const bool configured = [] {
        sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
        return true;
    }();
    (void)configured;
    const int rc = sqlite3_open_v2(path.c_str(), &db_, flags, nullptr);
    if (rc != SQLITE_OK) {
        std::string message = sqlite_message(db_, rc);
        sqlite3_close(db_);
        db_ = nullptr;
        throw SqliteError(rc, path.string() + ": " + message);
    }
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
}

Database::~Database() {
    if (db_ != nullptr) sqlite3_close_v2(db_);
}

void Database::close() {
    if (db_ == nullptr) return;
    // Fails (and keeps the connection) while a statement is still alive.
    const int code = sqlite3_close(db_);
    if (code != SQLITE_OK) raise(code);
    db_ = nullptr;
}

Database::Database(Database&& other) noexcept : db_(other.db_), path_(std::move(other.path_)) {
    other.db_ = nullptr;
}

Database& Database::operator=(Database&& other) noexcept {
    if (this != &other) {
        if (db_ != nullptr) sqlite3_close_v2(db_);
        db_ = other.db_;
        path_ = std::move(other.path_);
        other.db_ = nullptr;
    }
    return *this;
}

void Database::raise(int code) const { throw SqliteError(code, sqlite_message(db_, code)); }

void Database::exec(std::string_view sql) {
    const std::string text(sql);
    char* error = nullptr;
    const int rc = sqlite3_exec(db_, text.c_str(), nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
        std::string message = error != nullptr ? error : sqlite3_errstr(rc);
        sqlite3_free(error);
        throw SqliteError(sqlite3_extended_errcode(db_), message);
    }
}

Statement Database::prepare(std::string_view sql) { return Statement(*this, sql); }

std::int64_t Database::last_insert_rowid() const { return sqlite3_last_insert_rowid(db_); }

std::int64_t Database::scalar_int(std::string_view sql) {
    Statement statement(*this, sql);
    return statement.step() ? statement.column_int64(0) : 0;
}

// ---- Statement ----

Statement::Statement(const Database& db, std::string_view sql) : db_(&db) {
    const int rc = sqlite3_prepare_v2(db.handle(), sql.data(), static_cast<int>(sql.size()), &stmt_, nullptr);
    if (rc != SQLITE_OK) db.raise(rc);
}

Statement::~Statement() {
    if (stmt_ != nullptr) sqlite3_finalize(stmt_);
}

Statement::Statement(Statement&& other) noexcept : db_(other.db_), stmt_(other.stmt_) {
    other.stmt_ = nullptr;
}

Statement& Statement::operator=(Statement&& other) noexcept {
    if (this != &other) {
        if (stmt_ != nullptr) sqlite3_finalize(stmt_);
        db_ = other.db_;
        stmt_ = other.stmt_;
        other.stmt_ = nullptr;
    }
    return *this;
}

Statement& Statement::bind(int index, std::int64_t value) {
    if (const int rc = sqlite3_bind_int64(stmt_, index, value); rc != SQLITE_OK) db_->raise(rc);
    return *this;
}

Statement& Statement::bind(int index, double value) {
    if (const int rc = sqlite3_bind_double(stmt_, index, value); rc != SQLITE_OK) db_->raise(rc);
    return *this;
}

Statement& Statement::bind(int index, std::string_view value) {
    const int rc = sqlite3_bind_text64(stmt_, index, value.data(), value.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    if (rc != SQLITE_OK) db_->raise(rc);
    return *this;
}

Statement& Statement::bind_static(int index, std::string_view value) {
    const int rc = sqlite3_bind_text64(stmt_, index, value.data(), value.size(), SQLITE_STATIC, SQLITE_UTF8);
    if (rc != SQLITE_OK) db_->raise(rc);
    return *this;
}

Statement& Statement::bind_static(int index, const std::optional<std::string>& value) {
    return value ? bind_static(index, std::string_view(*value)) : bind_null(index);
}

Statement& Statement::bind(int index, const std::optional<std::string>& value) {
    return value ? bind(index, std::string_view(*value)) : bind_null(index);
}

Statement& Statement::bind(int index, std::optional<std::int64_t> value) {
    return value ? bind(index, *value) : bind_null(index);
}

Statement& Statement::bind_null(int index) {
    if (const int rc = sqlite3_bind_null(stmt_, index); rc != SQLITE_OK) db_->raise(rc);
    return *this;
}

bool Statement::step() {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    sqlite3_reset(stmt_);
    db_->raise(rc);
}

void Statement::run() {
    while (step()) {
    }
    reset();
}

void Statement::reset() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
}

int Statement::column_count() const { return sqlite3_column_count(stmt_); }

std::int64_t Statement::column_int64(int index) const { return sqlite3_column_int64(stmt_, index); }

double Statement::column_double(int index) const { return sqlite3_column_double(stmt_, index); }

bool Statement::column_is_null(int index) const { return sqlite3_column_type(stmt_, index) == SQLITE_NULL; }

std::string_view Statement::column_text(int index) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, index));
    if (text == nullptr) return {};
    return {text, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, index))};
}

std::optional<std::string> Statement::column_optional_text(int index) const {
    if (column_is_null(index)) return std::nullopt;
    return column_string(index);
}

std::optional<std::int64_t> Statement::column_optional_int64(int index) const {
    if (column_is_null(index)) return std::nullopt;
    return column_int64(index);
}

// ---- Transaction ----

Transaction::Transaction(Database& db) : db_(db), joined_(sqlite3_get_autocommit(db.handle()) == 0) {
    if (!joined_) db_.exec("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    if (open_ && !joined_) sqlite3_exec(db_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit() {
    if (!joined_) db_.exec("COMMIT");
    open_ = false;
}

// ---- Opening the index ----

namespace {

struct FileState {
    std::int64_t application_id = 0;
    std::int64_t user_version = 0;
    std::int64_t tables = 0;
};

FileState read_state(Database& db) {
    FileState state;
    state.application_id = db.scalar_int("PRAGMA application_id");
    state.user_version = db.scalar_int("PRAGMA user_version");
    state.tables = db.scalar_int("SELECT count(*) FROM sqlite_master");
    return state;
}

// Brings an empty file (version 0) or an older index to the current schema.
void migrate(Database& db, std::int64_t from_version) {
    Transaction transaction(db);
    if (from_version == 0) {
        db.exec(kFileTables);
        db.exec(kContentTables);
        db.exec(kNewIndexMeta);
    }
    for (const auto& migration : kMigrations) {
        if (from_version == 0 || migration.version <= from_version) continue;
        db.exec(migration.sql);
        if (migration.remakes_content_tables) db.exec(kContentTables);
    }
    db.exec("PRAGMA application_id = " + std::to_string(kIndexApplicationId));
    db.exec("PRAGMA user_version = " + std::to_string(kIndexSchemaVersion));
    write_meta(db, meta_key::schema_version, std::to_string(kIndexSchemaVersion));
    transaction.commit();
}

// The tables of an index at the current schema, read once from a schema made in memory.
const std::vector<std::string>& current_tables() {
    static const std::vector<std::string> tables = [] {
        Database memory(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX);
        memory.exec(kFileTables);
        memory.exec(kContentTables);
        std::vector<std::string> names;
        Statement statement(memory, "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name");
        while (statement.step()) names.push_back(statement.column_string(0));
        return names;
    }();
    return tables;
}

// The first table of the current schema that the file lacks (dropped by hand or by a tool),
// if any: every query would otherwise fail with SQLite's own "no such table".
std::optional<std::string> missing_table(Database& db) {
    std::set<std::string> present;
    Statement statement(db, "SELECT name FROM sqlite_master WHERE type = 'table'");
    while (statement.step()) present.insert(statement.column_string(0));
    for (const auto& name : current_tables()) {
        if (present.count(name) == 0) return name;
    }
    return std::nullopt;
}

// Errors of a reader that cannot write the files SQLite keeps beside a database.
bool cannot_write_beside(const SqliteError& e) {
    const int primary = e.code() & 0xff;
    return primary == SQLITE_READONLY || primary == SQLITE_CANTOPEN || primary == SQLITE_IOERR ||
           primary == SQLITE_FULL;
}

// The URI that opens `path` as an immutable database (no locks, no shared memory).
std::string immutable_uri(const std::filesystem::path& path) {
    const std::string absolute = std::filesystem::absolute(path).string();
    std::string uri = "file:";
    for (const char c : absolute) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) || c == '/' || c == '-' || c == '.' || c == '_' || c == '~') {
            uri.push_back(c);
        } else {
            constexpr char kHex[] = "0123456789ABCDEF";
            uri += {'%', kHex[byte >> 4], kHex[byte & 15]};
        }
    }
    return uri + "?immutable=1";
}

}  // namespace

Database open_index(const std::filesystem::path& path, const IndexOpenOptions& options) {
    std::error_code error;
    if (!options.read_only) {
        if (options.rebuild) remove_index_files(path);
        if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), error);
    } else if (!std::filesystem::exists(path, error)) {
        throw IndexFileError(path, "no index here yet");
    }
    if (std::filesystem::is_directory(path, error)) throw IndexPathIsDirectory(path);

    // A connection belongs to one thread at a time: SQLite's own locking is not needed.
    const int flags = SQLITE_OPEN_NOMUTEX |
                      (options.read_only ? SQLITE_OPEN_READONLY : (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE));
    std::optional<Database> opened;
    FileState state;
    try {
        try {
            opened.emplace(path, flags);
            state = read_state(*opened);
        } catch (const SqliteError& e) {
            if (!options.read_only || !cannot_write_beside(e)) throw;
            // A reader that may not create the shared-memory file beside the index (a read-only
            // directory or medium, a full disk) reads the file as it is: nothing can be
            // writing it there.
            opened.reset();
            opened.emplace(immutable_uri(path), flags | SQLITE_OPEN_URI);
            state = read_state(*opened);
        }
    } catch (const SqliteError& e) {
        if (e.is_corruption()) throw IndexFileError(path, "not a readable SQLite database (" + std::string(e.what()) + ")");
        throw;
    }
    Database db = std::move(*opened);

    const bool empty = state.application_id == 0 && state.tables == 0;
    if (!empty && state.application_id != kIndexApplicationId) {
        throw IndexFileError(path, "another program's SQLite database, not an index");
    }
    if (state.user_version > kIndexSchemaVersion) {
        throw IndexFileError(path, "written by a newer version (schema " + std::to_string(state.user_version) +
                                       ", this build reads up to " + std::to_string(kIndexSchemaVersion) + ")");
    }
    if (!empty && state.user_version < 1) throw IndexFileError(path, "incomplete index (no schema version)");
    if (state.user_version == kIndexSchemaVersion) {
        try {
            if (const auto table = missing_table(db)) throw IndexFileError(path, "incomplete index (table " + *table + " is missing)");
        } catch (const SqliteError& e) {
            throw IndexFileError(path, std::string("damaged (") + e.what() + ")");
        }
    }

    if (options.read_only) {
        if (empty) throw IndexFileError(path, "empty file, no index yet");
        if (state.user_version < kIndexSchemaVersion) {
            throw IndexFileError(path, "older schema " + std::to_string(state.user_version) + " needs migrating");
        }
        return db;
    }

    try {
        if (options.unpublished) {
            db.exec("PRAGMA journal_mode = OFF");
            db.exec("PRAGMA synchronous = OFF");
        } else {
            db.exec("PRAGMA journal_mode = WAL");
            db.exec("PRAGMA synchronous = NORMAL");
        }
    } catch (const SqliteError& e) {
        if (e.is_corruption()) throw IndexFileError(path, std::string("damaged (") + e.what() + ")");
        throw;
    }
    if (state.user_version < kIndexSchemaVersion) {
        try {
            migrate(db, state.user_version);
        } catch (const SqliteError& e) {
            // A file whose tables do not match its version (damaged, or altered by hand): the
            // migration cannot bring it forward, and a new index can.
            const int primary = e.code() & 0xff;
            if (e.is_corruption() || primary == SQLITE_ERROR || primary == SQLITE_CONSTRAINT || primary == SQLITE_MISMATCH) {
                throw IndexFileError(path, "cannot be brought to schema " + std::to_string(kIndexSchemaVersion) + " (" +
                                               e.what() + ")");
            }
            throw;
        }
    }
    return db;
}

void shrink_write_ahead_log(Database& db, std::chrono::milliseconds wait) {
    sqlite3_busy_timeout(db.handle(), static_cast<int>(wait.count()));
    sqlite3_wal_checkpoint_v2(db.handle(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    sqlite3_busy_timeout(db.handle(), kBusyTimeoutMs);
}

void remove_index_files(const std::filesystem::path& path) {
    std::error_code error;
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        std::filesystem::remove(std::filesystem::path(path.string() + suffix), error);
    }
}

void publish_index(Database db, const std::filesystem::path& target) {
    const std::filesystem::path built = db.path();
    db.exec("PRAGMA journal_mode = WAL");
    db.close();
    // Nothing was synced while the file filled: it reaches the disk before it takes its name,
    // so that a crash never leaves a named index with pages missing, and the build pays for
    // its own writes rather than the next refresh's first checkpoint.
    {
        const int fd = ::open(built.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 || ::fsync(fd) != 0) {
            const int error = errno;
            if (fd >= 0) ::close(fd);
            throw std::system_error(error, std::generic_category(), "cannot flush " + built.string());
        }
        ::close(fd);
    }
    std::error_code error;
    for (const char* suffix : {"-wal", "-shm", "-journal"}) {
        std::filesystem::remove(std::filesystem::path(target.string() + suffix), error);
    }
    std::filesystem::rename(built, target);
}

std::filesystem::path index_file_behind_links(const std::filesystem::path& path) {
    // Bounded like the kernel's own resolution, so that a loop of links ends (the open then
    // reports it).
    constexpr int kMaxLinks = 40;
    std::filesystem::path current = path;
    for (int hop = 0; hop < kMaxLinks; ++hop) {
        std::error_code error;
        if (!std::filesystem::is_symlink(std::filesystem::symlink_status(current, error))) return current;
        const std::filesystem::path target = std::filesystem::read_symlink(current, error);
        if (error) return current;
        current = target.is_absolute() ? target : current.parent_path() / target;
    }
    return path;
}

std::filesystem::path unpublished_index_path(const std::filesystem::path& target) {
    return std::filesystem::path(target.string() + ".building-" + std::to_string(::getpid()));
}

void remove_abandoned_builds(const std::filesystem::path& target) {
    std::error_code error;
    const std::filesystem::path dir = target.has_parent_path() ? target.parent_path() : ".";
    const std::string prefix = target.filename().string() + ".building-";
    for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
        const std::string name = entry.path().filename().string();
        if (!name.starts_with(prefix)) continue;
        const std::string rest = name.substr(prefix.size());
        pid_t pid = 0;
        const auto [end, parse_error] = std::from_chars(rest.data(), rest.data() + rest.size(), pid);
        if (parse_error != std::errc() || pid <= 0) continue;
        // "-wal", "-shm" and "-journal" companions go with their database file.
        if (end != rest.data() + rest.size()) continue;
        if (pid == ::getpid() || ::kill(pid, 0) == 0 || errno != ESRCH) continue;
        remove_index_files(entry.path());
    }
}

std::optional<std::string> read_meta(Database& db, std::string_view key) {
    Statement statement(db, "SELECT value FROM meta WHERE key = ?");
    statement.bind(1, key);
    if (!statement.step()) return std::nullopt;
    return statement.column_string(0);
}

void write_meta(Database& db, std::string_view key, std::string_view value) {
    Statement statement(db, "INSERT INTO meta(key, value) VALUES (?, ?) ON CONFLICT(key) DO UPDATE SET value = excluded.value");
    statement.bind(1, key).bind(2, value);
    statement.run();
}

}  // namespace orvane_kestrix::storage
