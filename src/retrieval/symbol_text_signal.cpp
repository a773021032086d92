#include <algorithm>

#include "orvane_kestrix/retrieval/signals.hpp"
#include "orvane_kestrix/storage/repository_fan_in.hpp"

namespace orvane_kestrix::retrieval {

namespace {

// Best symbols of the whole index, and of the leading files.
constexpr int kSymbols = 300;
constexpr int kFocusSymbols = 200;
constexpr std::size_t kFocusFiles = 8;

// Column weights: name, qualified name, signature, docstring, body, path. A word of the name
// says most about a symbol; the body's words are many and each says little.
#define KESTRIX_SYMBOL_BM25 "bm25(retrieval_symbol_text, 10.0, 3.0, 2.0, 2.0, 1.0, 2.0)"

}  // namespace

SignalScores SymbolTextSignal::score(const RetrievalQuery& query, RetrievalContext& context) {
    SignalScores out;
    if (query.terms.empty()) {
        out.unavailable = "the task has no words the symbols' text holds";
        return out;
    }
    std::unordered_map<std::int64_t, double> relevance;
    storage::Statement all(context.db, "SELECT rowid, -" KESTRIX_SYMBOL_BM25 " AS relevance FROM retrieval_symbol_text "
                                       "WHERE retrieval_symbol_text MATCH ?1 ORDER BY relevance DESC LIMIT ?2");
    all.bind_static(1, query.match).bind(2, kSymbols);
    while (all.step()) relevance[all.column_int64(0)] = all.column_double(1);

    // The files the earlier signals rank highest.
    std::vector<std::pair<double, std::int64_t>> files;
    for (const auto& [file, score] : context.file_fused) files.emplace_back(score, file);
    std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.first > b.first || (a.first == b.first && a.second < b.second); });
    if (files.size() > kFocusFiles) files.resize(kFocusFiles);
    if (!files.empty()) {
        std::vector<std::int64_t> ids;
        for (const auto& [score, file] : files) ids.push_back(file);
        const std::string list = storage::json_array(ids);
        storage::Statement focus(context.db,
                                 "SELECT t.rowid, -" KESTRIX_SYMBOL_BM25 " AS relevance FROM retrieval_symbol_text AS t "
                                 "WHERE retrieval_symbol_text MATCH ?1 AND t.rowid IN (SELECT r.symbol_id FROM "
                                 "json_each(?2) AS j CROSS JOIN retrieval_symbol_rows AS r ON r.file_id = j.value) "
                                 "ORDER BY relevance DESC LIMIT ?3");
        focus.bind_static(1, query.match).bind_static(2, list).bind(3, kFocusSymbols);
        while (focus.step()) relevance[focus.column_int64(0)] = focus.column_double(1);
    }
    double best = 0;
    for (const auto& [id, value] : relevance) best = std::max(best, value);
    if (best <= 0) return out;
    for (const auto& [id, value] : relevance) out.symbols[id] = value / best;
    return out;
}

}  // namespace orvane_kestrix::retrieval
