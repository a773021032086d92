#include "orvane_kestrix/retrieval/sqlite_hybrid_retriever.hpp"

#include <algorithm>
#include <unordered_map>

#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "orvane_kestrix/retrieval/signals.hpp"
#include "orvane_kestrix/retrieval/task_query.hpp"

namespace orvane_kestrix::retrieval {

namespace {

constexpr const char* kNoTablesNote =
    "The index has no retriever tables yet (run `kestrix index`): symbols were found by the names the task writes";
constexpr const char* kNoWordsNote = "The task has no words or names to search the index for";

bool minor_kind(std::string_view kind) {
    return kind == "variable" || kind == "constant" || kind == "field" || kind == "property";
}

}  // namespace

WeightedFusion default_fusion() {
    WeightedFusion fusion;
    fusion.add(std::make_unique<MentionSignal>(), 1.2);
    fusion.add(std::make_unique<FileTextSignal>(), 0.7);
    fusion.add(std::make_unique<SymbolTextSignal>(), 1.0);
    fusion.add(std::make_unique<ReferenceGraphSignal>(), 0.25);
    fusion.add(std::make_unique<FanInPrior>(), 0.05);
    return fusion;
}

SqliteHybridRetriever::SqliteHybridRetriever(storage::Database& db, Tokenizer* tokenizer)
    : db_(db), tokenizer_(tokenizer != nullptr ? *tokenizer : default_tokenizer()), fusion_(default_fusion()) {
    has_tables_ = has_retrieval_tables(db_);
    if (!has_tables_) return;
    catalog_ = IndexCatalog(db_);
    indexed_symbols_ = db_.scalar_int("SELECT coalesce(sum(symbol_rows), 0) FROM retrieval_file_state");
    symbol_frequency_ = db_.prepare("SELECT doc FROM retrieval_symbol_vocab WHERE term = ?1");
    file_frequency_ = db_.prepare("SELECT doc FROM retrieval_file_vocab WHERE term = ?1");
}

RetrievalResult SqliteHybridRetriever::retrieve(const std::string& task, std::int64_t limit, bool include_tests) {
    RetrievalResult result;
    if (!has_tables_) {
        result.note = kNoTablesNote;
        return result;
    }
    auto frequency = [&](const std::string& word) {
        WordFrequency df;
        symbol_frequency_.bind_static(1, word);
        if (symbol_frequency_.step()) df.symbols = symbol_frequency_.column_int64(0);
        symbol_frequency_.reset();
        file_frequency_.bind_static(1, word);
        if (file_frequency_.step()) df.files = file_frequency_.column_int64(0);
        file_frequency_.reset();
        return df;
    };
    const RetrievalQuery query = make_task_query(task, include_tests, tokenizer_, frequency, indexed_symbols_);
    if (query.terms.empty() && query.names.empty() && query.mentions.frames.empty() && query.mentions.files.empty() &&
        query.mentions.dotted.empty()) {
        result.note = kNoWordsNote;
        return result;
    }

    RetrievalContext context(db_, catalog_);
    const FusionOutcome outcome = fusion_.run(query, context);

    struct Ranked {
        double score;
        const CandidateSymbol* symbol;
    };
    std::vector<Ranked> ranked;
    for (const auto& [id, score] : outcome.scores) {
        const CandidateSymbol* symbol = context.find(id);
        if (symbol == nullptr) continue;
        const CatalogFile* file = catalog_.file(symbol->file_id);
        if (file == nullptr || !file->is_source || (file->is_test && !include_tests)) continue;
        ranked.push_back({minor_kind(symbol->kind) ? score * kMinorKindFactor : score, symbol});
    }
    std::sort(ranked.begin(), ranked.end(), [](const Ranked& a, const Ranked& b) {
        return a.score > b.score || (a.score == b.score && a.symbol->id < b.symbol->id);
    });

    // Greedy pick: each pick lowers the rest of its file's symbols by kSameFileDecay.
    const auto wanted = static_cast<std::size_t>(std::max<std::int64_t>(limit, 0));
    std::unordered_map<std::int64_t, int> picked_in_file;
    std::vector<bool> taken(ranked.size(), false);
    // Only the leading part of the ranking can be picked; bounding it keeps the loop short.
    const std::size_t window = std::min(ranked.size(), wanted * 8);
    while (result.hits.size() < wanted) {
        std::size_t best = window;
        double best_score = 0;
        for (std::size_t i = 0; i < window; ++i) {
            if (taken[i]) continue;
            double score = ranked[i].score;
            for (int k = picked_in_file[ranked[i].symbol->file_id]; k > 0; --k) score *= kSameFileDecay;
            if (best == window || score > best_score) {
                best = i;
                best_score = score;
            }
        }
        if (best == window) break;
        taken[best] = true;
        ++picked_in_file[ranked[best].symbol->file_id];
        const CandidateSymbol& candidate = *ranked[best].symbol;
        RetrievalHit hit;
        hit.score = best_score;
        hit.symbol.id = candidate.id;
        hit.symbol.name = candidate.name;
        hit.symbol.fqn = candidate.fqn;
        hit.symbol.kind = candidate.kind;
        hit.symbol.file_id = candidate.file_id;
        hit.symbol.start_line = candidate.start_line;
        hit.symbol.end_line = candidate.end_line;
        result.hits.push_back(std::move(hit));
    }

    if (!outcome.unavailable.empty()) {
        std::string note = "Ranked without";
        for (std::size_t i = 0; i < outcome.unavailable.size(); ++i) note += (i == 0 ? " " : "; ") + outcome.unavailable[i];
        result.note = std::move(note);
    }
    return result;
}

}  // namespace orvane_kestrix::retrieval
