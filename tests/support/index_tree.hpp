#pragma once
// Indexes a tree for a test as the tool would, without asking git (test trees are no
// repositories) and with two parsers; with the retriever's tables unless told otherwise.

#include <filesystem>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/retrieval/retrieval_tables.hpp"

namespace kestrix_test {

inline void index_tree(const std::filesystem::path& repo, const std::filesystem::path& db, bool retrieval_tables = true) {
    orvane_kestrix::indexer::IndexOptions options;
    options.repo = repo;
    options.db = db;
    options.use_git = false;
    options.jobs = 2;
    orvane_kestrix::indexer::IndexBuilder(retrieval_tables ? orvane_kestrix::retrieval::index_options_with_retrieval(options) : options)
        .run();
}

}  // namespace kestrix_test
