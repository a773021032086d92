#pragma once
// The retriever over the SQLite index: ranks a task's symbols by fusing the signals of
// signals.hpp (mentions, file text, symbol text, the reference graph, a fan-in prior) with the
// weights of fusion.hpp, then orders the hits so that the leading files are each represented
// early (a file's second hit counts kSameFileDecay of its score, its third that again, ...): a
// pack holds what its budget allows, and its first files should be the task's best files, not
// one file's many symbols.
//
// Test files rank only when the task is about tests. Kinds that rarely hold the code a task
// changes (variables, constants, fields, properties) count kMinorKindFactor of their score.
// An index without the retriever's tables (written before them), or a task with no words to
// search for, ranks with what remains and says so in the note; nothing here fails a pack for
// that.

#include <cstdint>
#include <memory>
#include <string>

#include "orvane_kestrix/retrieval/fusion.hpp"
#include "orvane_kestrix/retrieval/index_catalog.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"
#include "orvane_kestrix/workers/retrieval.hpp"

namespace orvane_kestrix::retrieval {

class SqliteHybridRetriever final : public HybridRetriever {
public:
    static constexpr double kSameFileDecay = 0.6;
    static constexpr double kMinorKindFactor = 0.5;

    // Borrows the index connection (and the tokenizer; null: default_tokenizer()), which must
    // outlive the retriever. Reads the index's file list once.
    explicit SqliteHybridRetriever(storage::Database& db, Tokenizer* tokenizer = nullptr);

    RetrievalResult retrieve(const std::string& task, std::int64_t limit, bool include_tests) override;

    // Whether the index holds the retriever's tables.
    bool has_tables() const { return has_tables_; }

private:
    storage::Database& db_;
    Tokenizer& tokenizer_;
    bool has_tables_ = false;
    std::int64_t indexed_symbols_ = 0;
    IndexCatalog catalog_;
    WeightedFusion fusion_;
    storage::Statement symbol_frequency_, file_frequency_;
};

// The signals and weights the retriever fuses (fusion.hpp).
WeightedFusion default_fusion();

}  // namespace orvane_kestrix::retrieval
