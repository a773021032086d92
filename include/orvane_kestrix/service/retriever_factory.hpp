#pragma once
// The one place that decides which retriever ranks a task's symbols over an opened index.

#include <filesystem>
#include <memory>

#include "orvane_kestrix/storage/sqlite_repository.hpp"
#include "orvane_kestrix/workers/retrieval.hpp"

namespace orvane_kestrix::postgres {
class PostgresRepository;
}

namespace orvane_kestrix::service {

// The retriever over `repository`'s index, or null when the index offers none (packs are then
// seeded by the task's names alone). The retriever may keep `repository` for its whole life.
// `repo` is the repository the index describes, whose files the retriever may read.
std::unique_ptr<HybridRetriever> make_retriever(SqliteRepository& repository, const std::filesystem::path& repo);

// The retriever over an index on a PostgreSQL server. The server keeps no retriever tables
// yet: it ranks nothing and says so in its note, and packs are seeded by the names the task
// writes, exactly as packs made without a retriever.
std::unique_ptr<HybridRetriever> make_retriever(postgres::PostgresRepository& repository);

}  // namespace orvane_kestrix::service
