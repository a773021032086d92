#include "orvane_kestrix/service/retriever_factory.hpp"

#include "orvane_kestrix/retrieval/sqlite_hybrid_retriever.hpp"

namespace orvane_kestrix::service {

namespace {

class NoServerTablesRetriever final : public HybridRetriever {
public:
    RetrievalResult retrieve(const std::string&, std::int64_t, bool) override {
        return {{},
                "The index on PostgreSQL has no retriever tables yet: symbols were found by the names the task writes"};
    }
};

}  // namespace

// The hybrid retriever over the index's own tables; on an index built before the retriever
// existed it ranks with what it has and says so in its note.
std::unique_ptr<HybridRetriever> make_retriever(SqliteRepository& repository, const std::filesystem::path& repo) {
    return std::make_unique<retrieval::SqliteHybridRetriever>(repository.database(), repo);
}

std::unique_ptr<HybridRetriever> make_retriever(postgres::PostgresRepository&) {
    return std::make_unique<NoServerTablesRetriever>();
}

}  // namespace orvane_kestrix::service
