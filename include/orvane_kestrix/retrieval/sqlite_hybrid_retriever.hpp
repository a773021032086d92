#pragma once
// The retriever over the SQLite index: ranks a task's symbols by fusing the signals of
// signals.hpp (mentions, file text, symbol text, the leading files' symbol bodies, the reference
// graph, a fan-in prior) with the weights of fusion.hpp, then orders the hits by score with one constraint: a pack holds what
// its budget allows and lists the files of the rows it holds, so the best symbol of each of the
// kLeadingFiles best files (files ranked by their best symbol) must fit within a default
// budget (kAssumedBudget). A hit that would leave too little for the leading files not yet
// represented waits behind their representatives. Larger budgets simply hold more.
//
// Score adjustments before that order: test files rank only when the task is about tests, and
// then below the code they test (kTestFileFactor); kinds that rarely hold the code a task
// changes (variables, constants, fields, one-line properties) count kMinorKindFactor of their
// score; longer definitions a little more (kLengthExponent); a file's other strong symbols
// lend each of its symbols a little (kFileSupport); files outside the production code (documentation,
// examples, benchmarks, scripts, vendored code) kOutsideProductionFactor; a symbol whose pack
// row would take most of a default budget (a long docstring) counts less, so that a cheaper
// symbol of its file represents the file.
// An index without the retriever's tables (written before them), or a task with no words to
// search for, ranks with what remains and says so in the note; nothing here fails a pack for
// that.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "orvane_kestrix/retrieval/fusion.hpp"
#include "orvane_kestrix/retrieval/index_catalog.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"
#include "orvane_kestrix/workers/retrieval.hpp"

namespace orvane_kestrix::retrieval {

class SqliteHybridRetriever final : public HybridRetriever {
public:
    static constexpr double kMinorKindFactor = 0.5;
    // Test files, when the task is about tests: such tasks mostly change the code under test too.
    static constexpr double kTestFileFactor = 0.4;
    // A definition of n lines scores (n + 1)^kLengthExponent times more: a weak prior that
    // longer definitions hold the code a change touches.
    static constexpr double kLengthExponent = 0.1;
    // Support of a file's other symbols: each symbol's score gains kFileSupport times the mean
    // of the next-best kSupportingSymbols scores of its file.
    static constexpr double kFileSupport = 0.15;
    static constexpr std::size_t kSupportingSymbols = 3;
    // Documentation, examples, benchmarks, scripts, vendored code and build configuration.
    static constexpr double kOutsideProductionFactor = 0.3;
    // Files that should each have a row within a default pack (kAssumedBudget tokens, what
    // an 800-token budget packs).
    static constexpr std::size_t kLeadingFiles = 5;
    static constexpr std::int64_t kAssumedBudget = 840;
    // Leading files found by their text alone get their most used symbols as candidates.
    static constexpr std::size_t kRepresentedFiles = 6;

    // Borrows the index connection (and the tokenizer; null: default_tokenizer()), which must
    // outlive the retriever. Reads the index's file list once. `root`, the repository the index
    // describes, lets it read the leading files' text; without it that signal is left out.
    explicit SqliteHybridRetriever(storage::Database& db, std::optional<std::filesystem::path> root = std::nullopt,
                                   Tokenizer* tokenizer = nullptr);

    RetrievalResult retrieve(const std::string& task, std::int64_t limit, bool include_tests) override;

    // Whether the index holds the retriever's tables.
    bool has_tables() const { return has_tables_; }

private:
    storage::Database& db_;
    Tokenizer& tokenizer_;
    bool has_tables_ = false;
    std::int64_t indexed_symbols_ = 0;
    std::int64_t indexed_files_ = 0;
    IndexCatalog catalog_;
    WeightedFusion fusion_;
    storage::Statement word_counts_;  // documents per task word, symbol rows and file rows
};

// The signals and weights the retriever fuses (fusion.hpp).
WeightedFusion default_fusion(std::optional<std::filesystem::path> root);

}  // namespace orvane_kestrix::retrieval
