#include "orvane_kestrix/service/retriever_factory.hpp"

#include "orvane_kestrix/retrieval/sqlite_hybrid_retriever.hpp"

namespace orvane_kestrix::service {

// The hybrid retriever over the index's own tables; on an index built before the retriever
// existed it ranks with what it has and says so in its note.
std::unique_ptr<HybridRetriever> make_retriever(SqliteRepository& repository, const std::filesystem::path& repo) {
    return std::make_unique<retrieval::SqliteHybridRetriever>(repository.database(), repo);
}

}  // namespace orvane_kestrix::service
