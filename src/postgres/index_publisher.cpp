// Publishing a staging SQLite index into the PostgreSQL index tables with COPY.

#include "orvane_kestrix/postgres/index_publisher.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <fmt/format.h>

#include "orvane_kestrix/postgres/postgres_schema.hpp"
#include "orvane_kestrix/storage/index_writer_lock.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix::postgres {

namespace {

struct CopiedTable {
    const char* name;
    const char* columns;  // the same names on both sides
};

// The tables the index contract reads, whole.
constexpr CopiedTable kTables[] = {
    {"components", "id, name"},
    {"files", "id, path, language, is_test, is_source, component_id, content_hash, size, mtime_ns, module_name, "
              "has_syntax_errors"},
    {"symbols", "id, file_id, parent_id, name, fqn, kind, start_line, end_line, signature, docstring, "
                "docstring_truncated, is_export, token_count, production_fan_in"},
    {"refs", "id, file_id, caller_id, name, qualifier, usage_type, line, context"},
    {"ref_targets", "symbol_id, ref_id"},
    {"covering_tests", "source_file_id, test_file_id, rank, used_symbols"},
};

// Rows are sent in chunks of about this many bytes.
constexpr std::size_t kChunkBytes = 1 << 20;

// Sends every row of `table` from the staging index; returns the number of rows. Values go as
// SQLite writes them as text (integers exactly; the only real column, covering_tests.rank,
// holds small whole numbers).
std::int64_t copy_table(storage::Database& staging, Connection& connection, const CopiedTable& table,
                        const std::string& repo_id) {
    storage::Statement rows = staging.prepare(fmt::format("SELECT {} FROM {}", table.columns, table.name));
    std::int64_t count = 0;
    connection.copy_in(fmt::format("COPY {}(repo_id, {}) FROM STDIN", table.name, table.columns),
                       [&](const auto& send) {
                           std::string buffer;
                           const int columns = rows.column_count();
                           while (rows.step()) {
                               buffer += repo_id;
                               for (int c = 0; c < columns; ++c) {
                                   buffer.push_back('\t');
                                   if (rows.column_is_null(c)) {
                                       append_copy_field(buffer, std::nullopt);
                                       continue;
                                   }
                                   const std::string_view value = rows.column_text(c);
                                   if (!storable_text(value)) {
                                       throw std::runtime_error(fmt::format(
                                           "cannot publish: {} row {} holds text that is not UTF-8 or has a NUL byte "
                                           "(PostgreSQL stores UTF-8 text only): {:?}",
                                           table.name, count + 1, std::string(value.substr(0, 200))));
                                   }
                                   append_copy_field(buffer, value);
                               }
                               buffer.push_back('\n');
                               ++count;
                               if (buffer.size() >= kChunkBytes) {
                                   send(buffer);
                                   buffer.clear();
                               }
                           }
                           send(buffer);
                       });
    return count;
}

void check_repository_version(Connection& connection, const std::string& name, std::int64_t version,
                              const PublishOptions& options) {
    if (version == kServerSchemaVersion || options.rewrite_other_version) return;
    throw SchemaVersionError("repository \"" + name + "\" on PostgreSQL at " + connection.display_url() +
                             " was written at schema version " + std::to_string(version) + ", this kestrix writes version " +
                             std::to_string(kServerSchemaVersion) + "; run `" + index_command_for(connection, name) +
                             " --repo DIR --rebuild` to rewrite it");
}

void check_name(const std::string& name) {
    if (name.empty() || !storable_text(name)) {
        throw std::runtime_error("a repository name must be non-empty UTF-8 text, such as ORG/REPO");
    }
}

std::string cache_directory() {
    if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg != nullptr && *xdg == '/') return std::string(xdg) + "/kestrix";
    if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') return std::string(home) + "/.cache/kestrix";
    return "/tmp/kestrix-cache";
}

}  // namespace

void check_publishable(Connection& connection, const std::string& name, const PublishOptions& options) {
    check_name(name);
    ensure_schema(connection, name);
    const Result row = connection.query("SELECT schema_version FROM repositories WHERE name = $1", {name},
                                        "look up the repository");
    if (row.rows() > 0) check_repository_version(connection, name, row.int64(0, 0), options);
}

ServerIndexStats index_to_server(indexer::IndexOptions options, const std::string& url, const std::string& name) {
    if (!options.db) options.db = default_staging_index(url, name);
    // One run at a time indexes and publishes a staging index, so that a run can never publish
    // an older state of it over the state a later run has published. (The indexer's own lock
    // is held only while it writes.)
    const std::filesystem::path publish_lock = options.db->string() + ".publish";
    std::optional<storage::IndexWriterLock> lock;
    if (options.wait_for_writer) {
        lock = storage::IndexWriterLock::acquire(publish_lock, options.on_lock_wait, options.cancel);
        if (!lock) {
            ServerIndexStats stopped;
            stopped.index.cancelled = true;
            return stopped;
        }
    } else {
        lock.emplace(storage::IndexWriterLock::try_acquire(publish_lock));
    }
    Connection connection(url);
    const PublishOptions publish{.rewrite_other_version = options.rebuild};
    check_publishable(connection, name, publish);
    ServerIndexStats stats;
    stats.index = indexer::IndexBuilder(options).run();
    if (!stats.index.cancelled) stats.publish = publish_index(*options.db, connection, name, publish);
    return stats;
}

std::filesystem::path default_staging_index(const std::string& url, const std::string& name) {
    const std::string key = redacted_url(url) + '\n' + name;
    const XXH64_hash_t hash = XXH3_64bits(key.data(), key.size());
    std::string readable;
    for (const char c : name) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
        readable.push_back(plain ? c : '_');
        if (readable.size() == 100) break;
    }
    return std::filesystem::path(cache_directory()) / "servers" / fmt::format("{}-{:016x}.db", readable, hash);
}

PublishStats publish_index(const std::filesystem::path& staging_path, Connection& connection, const std::string& name,
                           const PublishOptions& options) {
    const auto started = std::chrono::steady_clock::now();
    check_name(name);
    storage::Database staging = storage::open_index(staging_path, {.read_only = true});
    // One state of the staging index for the whole copy, even if another run refreshes it.
    staging.exec("BEGIN");
    staging.scalar_int("SELECT count(*) FROM meta");
    const std::optional<std::string> indexed_at = storage::read_meta(staging, storage::meta_key::indexed_at);
    if (!indexed_at) {
        throw storage::IndexFileError(staging_path, "the staging index is not complete (an interrupted first run)");
    }

    ensure_schema(connection, name);
    PublishStats stats;
    connection.exec("BEGIN", "start publishing");
    try {
        connection.query("INSERT INTO repositories(name, schema_version) VALUES ($1, $2) ON CONFLICT (name) DO NOTHING",
                         {name, std::to_string(kServerSchemaVersion)}, "add the repository");
        const Result row = connection.query("SELECT id, schema_version FROM repositories WHERE name = $1 FOR UPDATE",
                                            {name}, "lock the repository");
        const std::string repo_id = row.string(0, 0);
        check_repository_version(connection, name, row.int64(0, 1), options);
        for (const auto& table : kTables) {
            connection.query(fmt::format("DELETE FROM {} WHERE repo_id = $1", table.name), {repo_id},
                             "remove the repository's old rows");
        }
        for (const auto& table : kTables) stats.rows += copy_table(staging, connection, table, repo_id);
        connection.query(
            "UPDATE repositories SET schema_version = $2, indexed_at = $3, published_at = now() WHERE id = $1",
            {repo_id, std::to_string(kServerSchemaVersion), *indexed_at}, "record the publish");
        connection.exec("COMMIT", "commit the publish");
    } catch (...) {
        connection.rollback_quietly();
        throw;
    }
    staging.exec("COMMIT");
    // The planner's statistics follow the new rows at once rather than when autovacuum comes
    // by: without them it takes a repository's tables for a few rows and joins by hashing
    // whole tables.
    std::string tables;
    for (const auto& table : kTables) tables += std::string(tables.empty() ? "" : ", ") + table.name;
    connection.exec("ANALYZE " + tables, "update the planner's statistics");
    stats.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return stats;
}

}  // namespace orvane_kestrix::postgres
