#include "orvane_kestrix/service/retriever_factory.hpp"

namespace orvane_kestrix::service {

// No retriever is built yet: packs rank keyword candidates only.
std::unique_ptr<HybridRetriever> make_retriever(SqliteRepository&) { return nullptr; }

}  // namespace orvane_kestrix::service
