#include <algorithm>
#include <unordered_set>

#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "orvane_kestrix/retrieval/signals.hpp"
#include "orvane_kestrix/retrieval/term_bm25.hpp"
#include "orvane_kestrix/storage/repository_fan_in.hpp"

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
    // down, those of the focus files. The ranking is read without a join (on a large index a
    // symbol row looked up for every match cost more than the search): only the leading rows
    // are checked against the symbols table, where rows of symbols gone from the index drop
    // out, and further down a row counts only when it is one of the focus files' symbols.
    // A row's rowid is its symbol's id above its length, negated for a test file's symbol
    // (retrieval_tables.hpp).
    const std::string sql = std::string("SELECT rowid, -" KESTRIX_SYMBOL_BM25 " AS relevance FROM retrieval_symbol_text "
                                        "WHERE retrieval_symbol_text MATCH ?1") +
                            (query.include_tests ? "" : kOutsideTests);
    storage::Statement ranking(context.db, sql);
    ranking.bind_static(1, query.symbol_match).bind_static(4, query.symbol_term_rows);
    // Every match scored, the best kDepth kept (SQLite's sorter would encode a record for each).
    std::vector<std::pair<std::int64_t, double>> rows;
    while (ranking.step()) rows.emplace_back(ranking.column_int64(0), ranking.column_double(1));
    if (rows.empty()) return out;
    auto better = [](const auto& a, const auto& b) { return a.second > b.second || (a.second == b.second && a.first < b.first); };
    if (rows.size() > static_cast<std::size_t>(kDepth)) {
        std::nth_element(rows.begin(), rows.begin() + kDepth, rows.end(), better);
        rows.resize(kDepth);
    }
    std::sort(rows.begin(), rows.end(), better);
    for (auto& row : rows) row.first = id_of_rowid(row.first);

    // The symbols of the focus files, by id.
    std::unordered_map<std::int64_t, std::int64_t> focus_symbols;
    if (!focus.empty()) {
        std::vector<std::int64_t> focus_files;
        for (const auto& [file, taken] : focus) focus_files.push_back(file);
        storage::Statement in_focus(context.db, "SELECT s.id, s.file_id FROM json_each(?1) AS j CROSS JOIN symbols AS s ON s.file_id = j.value");
        in_focus.bind(1, storage::json_array(focus_files));
        while (in_focus.step()) focus_symbols.emplace(in_focus.column_int64(0), in_focus.column_int64(1));
    }

    // Which of the leading rows' symbols still exist, checked a batch at a time until
    // kSymbols of them are known to.
    storage::Statement existing(context.db, "SELECT s.id FROM json_each(?1) AS j CROSS JOIN symbols AS s ON s.id = j.value");
    std::unordered_set<std::int64_t> live;
    std::size_t checked = 0;
    auto check_more = [&] {
        const std::size_t until = std::min(rows.size(), checked + kSymbols + kSymbols / 4);
        std::vector<std::int64_t> ids;
        for (std::size_t i = checked; i < until; ++i) ids.push_back(rows[i].first);
        checked = until;
        existing.bind(1, storage::json_array(ids));
        while (existing.step()) live.insert(existing.column_int64(0));
        existing.reset();
    };

    double best = 0;
    int leading = 0;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto [id, relevance] = rows[i];
        if (leading < kSymbols) {
            if (i >= checked) check_more();
            if (!live.contains(id)) continue;
            if (leading++ == 0) best = relevance;
            if (best <= 0) break;
        } else {
            auto symbol = focus_symbols.find(id);
            if (symbol == focus_symbols.end()) continue;
            int& taken = focus[symbol->second];
            if (taken >= kFocusSymbolsPerFile) continue;
            ++taken;
        }
        out.symbols[id] = relevance / best;
    }
    return out;
}

}  // namespace orvane_kestrix::retrieval
