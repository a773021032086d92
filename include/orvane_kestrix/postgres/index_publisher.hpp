#pragma once
// Writing a repository to the PostgreSQL index: the indexer builds and refreshes a local SQLite
// index as ever (the staging index), and publishing copies it into the server's tables.
//
// A publish replaces every row of the repository in ONE transaction (DELETE, then COPY of each
// table): a reader sees the repository as it was before or as it is after, never a part, and
// a failed or interrupted publish leaves it as it was. Two publishers of one repository take
// turns on the lock of its `repositories` row. Every row is sent each time; the staging index
// knows which files changed, but sending only those is left for later.

#include <cstdint>
#include <filesystem>
#include <string>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/postgres/connection.hpp"

namespace orvane_kestrix::postgres {

struct PublishOptions {
    // Rewrite a repository whose rows were written at another schema version (otherwise a
    // SchemaVersionError names this option).
    bool rewrite_other_version = false;
};

struct PublishStats {
    std::int64_t rows = 0;  // rows written, all tables together
    double seconds = 0;
};

// Copies the SQLite index at `staging` into repository `name`, creating the tables and the
// repository when missing. Throws PostgresError, SchemaVersionError, storage::IndexFileError
// (no usable staging index), and std::runtime_error for text PostgreSQL cannot hold (a path
// that is not UTF-8), naming the table and row.
PublishStats publish_index(const std::filesystem::path& staging, Connection& connection, const std::string& name,
                           const PublishOptions& options = {});

// Throws what publish_index would before any work is done: a database whose tables or whose
// repository `name` are of another schema version (the latter allowed with
// `rewrite_other_version`), a database that is not UTF-8.
void check_publishable(Connection& connection, const std::string& name, const PublishOptions& options);

struct ServerIndexStats {
    indexer::IndexStats index;  // the run over the staging index
    PublishStats publish;       // nothing when the run was cancelled
};

// The whole write of a repository to a server: connects to `url` and checks that the
// repository can be written, runs the indexer over the staging index `options.db` (default:
// default_staging_index; a rebuild there also allows rewriting a repository of another schema
// version), then publishes it as `name`. A cancelled run publishes nothing.
ServerIndexStats index_to_server(indexer::IndexOptions options, const std::string& url, const std::string& name);

// Where the staging index of repository `name` on the server at `url` lives by default:
// $XDG_CACHE_HOME/kestrix (else ~/.cache/kestrix, else /tmp/kestrix-cache) /
// servers/NAME-HASH.db, HASH telling servers apart by their URL (password left out).
std::filesystem::path default_staging_index(const std::string& url, const std::string& name);

}  // namespace orvane_kestrix::postgres
