#pragma once
// The one place that decides which retriever ranks a task's symbols over an opened index.

#include <memory>

#include "orvane_kestrix/storage/sqlite_repository.hpp"
#include "orvane_kestrix/workers/retrieval.hpp"

namespace orvane_kestrix::service {

// The retriever over `repository`'s index, or null when the index offers none (packs are then
// seeded by the task's names alone). The retriever may keep `repository` for its whole life.
std::unique_ptr<HybridRetriever> make_retriever(SqliteRepository& repository);

}  // namespace orvane_kestrix::service
