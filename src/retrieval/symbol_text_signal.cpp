#include <algorithm>

#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "orvane_kestrix/retrieval/signals.hpp"
#include "orvane_kestrix/retrieval/term_bm25.hpp"

namespace orvane_kestrix::retrieval {

namespace {

// Best symbols of the whole index, and of the leading files.
constexpr int kSymbols = 300;
constexpr int kDepth = 3000;
constexpr int kFocusSymbolsPerFile = 30;
constexpr std::size_t kFocusFiles = 8;

// Column weights: name, qualified name, signature, docstring, body. A word of the name says
// most about a symbol; the body's words are many and each says little.
#define KESTRIX_SYMBOL_BM25 "column_bm25(retrieval_symbol_text, ?4, 10.0, 3.0, 2.0, 2.0, 1.0)"

}  // namespace

SignalScores SymbolTextSignal::score(const RetrievalQuery& query, RetrievalContext& context) {
    SignalScores out;
    if (query.symbol_terms.empty()) {
        out.unavailable = "the task has no words the symbols' text holds";
        return out;
    }
    // The files the earlier signals rank highest.
    std::vector<std::pair<double, std::int64_t>> files;
    for (const auto& [file, score] : context.file_fused) files.emplace_back(score, file);
    std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.first > b.first || (a.first == b.first && a.second < b.second); });
    if (files.size() > kFocusFiles) files.resize(kFocusFiles);
    std::unordered_map<std::int64_t, int> focus;
    for (const auto& [score, file] : files) focus[file] = 0;

    // BM25 needs every matching row scored before the best are known, so reading further down
    // the ranking costs little: the leading symbols of the whole index are kept, and further
    // down, those of the focus files. The ranking is cut before the join, which then reads only
    // the rows kept (on a large index, a symbol row looked up for every match cost more than
    // the search); rows of symbols gone from the index drop out in the join, and the cut reads
    // a quarter further to leave room for them.
    // A row's rowid is its symbol's id above its length, negated for a test file's symbol
    // (retrieval_tables.hpp).
    const std::string sql = std::string("SELECT r.id, t.relevance, r.file_id FROM (SELECT rowid AS id, -" KESTRIX_SYMBOL_BM25
                                        " AS relevance FROM retrieval_symbol_text WHERE retrieval_symbol_text MATCH ?1") +
                            (query.include_tests ? "" : kOutsideTests) +
                            " ORDER BY relevance DESC LIMIT ?3) AS t CROSS JOIN symbols AS r ON r.id = abs(t.id) >> " +
                            std::to_string(kLengthBits) + " "
                            "ORDER BY t.relevance DESC LIMIT ?2";
    storage::Statement ranked(context.db, sql);
    ranked.bind_static(1, query.symbol_match).bind(2, kDepth).bind(3, kDepth + kDepth / 4).bind_static(4, query.symbol_term_rows);
    double best = 0;
    int row = 0;
    while (ranked.step()) {
        const double relevance = ranked.column_double(1);
        if (row++ == 0) best = relevance;
        if (best <= 0) break;
        if (row > kSymbols) {
            auto it = focus.find(ranked.column_int64(2));
            if (it == focus.end() || it->second >= kFocusSymbolsPerFile) continue;
            ++it->second;
        }
        out.symbols[ranked.column_int64(0)] = relevance / best;
    }
    return out;
}

}  // namespace orvane_kestrix::retrieval
