#include "orvane_kestrix/retrieval/sqlite_hybrid_retriever.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <unordered_map>
#include <unordered_set>

#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "orvane_kestrix/retrieval/term_bm25.hpp"
#include "orvane_kestrix/retrieval/signals.hpp"
#include "orvane_kestrix/retrieval/task_query.hpp"

namespace orvane_kestrix::retrieval {

namespace {

constexpr const char* kNoTablesNote =
    "The index has no retriever tables yet (run `kestrix index`): symbols were found by the names the task writes";
constexpr const char* kNoWordsNote = "The task has no words or names to search the index for";

// Code that ships beside a project rather than in it: documentation, examples, benchmarks,
// scripts, vendored and generated copies, build configuration. A task is rarely about it.
bool outside_production(std::string_view path) {
    static const std::unordered_set<std::string_view> directories = {
        "docs", "doc", "examples", "example", "benchmarks", "benchmark", "bench", "scripts", "vendor", "vendored",
        "_vendor", "third_party", "node_modules", "dist", "build", "site-packages"};
    std::size_t start = 0;
    for (std::size_t slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/', start)) {
        if (directories.contains(path.substr(start, slash - start))) return true;
        start = slash + 1;
    }
    const std::string_view name = path.substr(start);
    return name == "setup.py" || name == "conftest.py" || name == "noxfile.py" || name.ends_with(".d.ts") ||
           name.find(".config.") != std::string_view::npos;
}

}  // namespace


WeightedFusion default_fusion(std::optional<std::filesystem::path> root) {
    WeightedFusion fusion;
    fusion.add(std::make_unique<MentionSignal>(), 1.2);
    fusion.add(std::make_unique<FileTextSignal>(), 0.7);
    fusion.add(std::make_unique<SymbolTextSignal>(), 1.0);
    if (root) fusion.add(std::make_unique<SymbolBodySignal>(std::move(root)), 0.5);
    fusion.add(std::make_unique<ReferenceGraphSignal>(), 0.25);
    fusion.add(std::make_unique<FanInPrior>(), 0.05);
    return fusion;
}

SqliteHybridRetriever::SqliteHybridRetriever(storage::Database& db, std::optional<std::filesystem::path> root,
                                             Tokenizer* tokenizer)
    : db_(db), tokenizer_(tokenizer != nullptr ? *tokenizer : default_tokenizer()), fusion_(default_fusion(std::move(root))) {
    has_tables_ = has_retrieval_tables(db_);
    if (!has_tables_) return;
    register_term_bm25(db_);
    catalog_ = IndexCatalog(db_);
    indexed_symbols_ = db_.scalar_int("SELECT coalesce(sum(symbol_rows), 0) FROM retrieval_file_state");
    indexed_files_ = db_.scalar_int("SELECT count(*) FROM retrieval_file_state");
    word_counts_ = db_.prepare("SELECT symbols, files FROM retrieval_word_counts WHERE word = ?1");
}

RetrievalResult SqliteHybridRetriever::retrieve(const std::string& task, std::int64_t limit, bool include_tests) {
    RetrievalResult result;
    if (!has_tables_) {
        result.note = kNoTablesNote;
        return result;
    }
    auto frequency = [&](const std::string& word) {
        WordFrequency df;
        word_counts_.bind_static(1, word);
        if (word_counts_.step()) df = {word_counts_.column_int64(0), word_counts_.column_int64(1)};
        word_counts_.reset();
        return df;
    };
    const RetrievalQuery query = make_task_query(task, include_tests, tokenizer_, frequency, indexed_symbols_, indexed_files_);
    if (query.terms.empty() && query.names.empty() && query.mentions.frames.empty() && query.mentions.files.empty() &&
        query.mentions.dotted.empty()) {
        result.note = kNoWordsNote;
        return result;
    }

    RetrievalContext context(db_, catalog_);
    const FusionOutcome outcome = fusion_.run(query, context);

    // Files found by their text alone, whose symbols no signal scored, are represented by
    // their most used symbols.
    std::unordered_map<std::int64_t, double> fused = outcome.scores;
    {
        std::unordered_map<std::int64_t, double> best_in_file;
        for (const auto& [id, score] : fused) {
            if (const CandidateSymbol* symbol = context.find(id)) {
                double& best = best_in_file[symbol->file_id];
                best = std::max(best, score);
            }
        }
        std::vector<std::pair<double, std::int64_t>> files;
        for (const auto& [file, score] : context.file_fused) files.emplace_back(std::max(score, best_in_file[file]), file);
        std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.first > b.first || (a.first == b.first && a.second < b.second); });
        const auto represented = kRepresentedFiles;
        if (files.size() > represented) files.resize(represented);
        storage::Statement most_used(db_, "SELECT id FROM symbols WHERE file_id = ?1 "
                                          "ORDER BY production_fan_in DESC, id LIMIT 2");
        std::vector<std::int64_t> added;
        for (const auto& [score, file] : files) {
            if (best_in_file[file] > 0) continue;
            most_used.bind(1, file);
            while (most_used.step()) {
                added.push_back(most_used.column_int64(0));
                fused[added.back()] = score;
            }
            most_used.reset();
        }
        context.load(added);
    }

    struct Ranked {
        double score;
        const CandidateSymbol* symbol;
    };
    std::vector<Ranked> ranked;
    for (const auto& [id, score] : fused) {
        const CandidateSymbol* symbol = context.find(id);
        if (symbol == nullptr) continue;
        const CatalogFile* file = catalog_.file(symbol->file_id);
        if (file == nullptr || !file->is_source || (file->is_test && !include_tests)) continue;
        double adjusted = is_minor_symbol(symbol->kind, symbol->start_line, symbol->end_line) ? score * kMinorKindFactor : score;
        if (outside_production(file->path)) adjusted *= kOutsideProductionFactor;
        if (file->is_test) adjusted *= kTestFileFactor;
        // Longer definitions hold more of the code a change touches.
        adjusted *= std::pow(static_cast<double>(symbol->end_line - symbol->start_line + 2), kLengthExponent);
        // A pack row that costs most of a default budget crowds out the rest, or does not fit
        // at all; a cheaper symbol of the same file then represents it better.
        if (symbol->cost > kAssumedBudget * 5 / 7) {
            adjusted *= 0.3;
        } else if (symbol->cost > kAssumedBudget * 5 / 14) {
            adjusted *= 0.7;
        }
        ranked.push_back({adjusted, symbol});
    }
    // A file with several strong symbols is more likely the one a change touches than a file
    // with one: each symbol gets a share of the mean of its file's next-best three.
    {
        std::unordered_map<std::int64_t, std::vector<double>> by_file;
        for (const Ranked& r : ranked) by_file[r.symbol->file_id].push_back(r.score);
        std::unordered_map<std::int64_t, double> support;
        for (auto& [file, scores] : by_file) {
            const std::size_t top = std::min<std::size_t>(scores.size(), kSupportingSymbols + 1);
            std::partial_sort(scores.begin(), scores.begin() + static_cast<std::ptrdiff_t>(top), scores.end(), std::greater<>());
            double sum = 0;
            for (std::size_t i = 1; i < top; ++i) sum += scores[i];
            support[file] = sum / static_cast<double>(kSupportingSymbols);
        }
        for (Ranked& r : ranked) r.score += kFileSupport * support[r.symbol->file_id];
    }
    std::sort(ranked.begin(), ranked.end(), [](const Ranked& a, const Ranked& b) {
        return a.score > b.score || (a.score == b.score && a.symbol->id < b.symbol->id);
    });

    const auto wanted = static_cast<std::size_t>(std::max<std::int64_t>(limit, 0));
    std::vector<bool> taken(ranked.size(), false);
    auto emit = [&](std::size_t i, double score) {
        taken[i] = true;
        const CandidateSymbol& candidate = *ranked[i].symbol;
        RetrievalHit hit;
        hit.score = score;
        hit.symbol.id = candidate.id;
        hit.symbol.name = candidate.name;
        hit.symbol.fqn = candidate.fqn;
        hit.symbol.kind = candidate.kind;
        hit.symbol.file_id = candidate.file_id;
        hit.symbol.start_line = candidate.start_line;
        hit.symbol.end_line = candidate.end_line;
        result.hits.push_back(std::move(hit));
    };

    // The leading files, in the order of their best symbols, and the symbol that represents
    // each (its best). The pack lists the files of the rows it holds, in order: every leading
    // file should have a row before a default budget runs out.
    const auto leading_count = kLeadingFiles;
    std::vector<std::int64_t> leading;
    std::unordered_map<std::int64_t, std::size_t> representative;
    for (std::size_t i = 0; i < ranked.size() && leading.size() < leading_count; ++i) {
        const std::int64_t file = ranked[i].symbol->file_id;
        if (representative.try_emplace(file, i).second) leading.push_back(file);
    }
    std::unordered_set<std::int64_t> covered;
    const auto budget = kAssumedBudget;
    std::int64_t spent = 0;
    auto reserve_without = [&](std::int64_t file) {
        std::int64_t reserve = 0;
        for (std::int64_t f : leading) {
            if (f != file && !covered.contains(f)) reserve += ranked[representative[f]].symbol->cost;
        }
        return reserve;
    };
    // By score, as long as what is left of the budget still holds the uncovered leading files'
    // representatives; otherwise the best of those representatives. Only the leading part of
    // the ranking can be picked; bounding it keeps the loop short.
    const std::size_t window = std::min(ranked.size(), wanted * 8);
    while (result.hits.size() < wanted) {
        std::size_t best = window;
        double best_score = 0;
        for (std::size_t i = 0; i < window; ++i) {
            if (taken[i]) continue;
            const CandidateSymbol& symbol = *ranked[i].symbol;
            if (spent + symbol.cost + reserve_without(symbol.file_id) > budget) continue;
            const double score = ranked[i].score;
            if (best == window || score > best_score) {
                best = i;
                best_score = score;
            }
        }
        if (best == window) {
            for (std::int64_t f : leading) {
                if (!covered.contains(f) && !taken[representative[f]]) {
                    best = representative[f];
                    best_score = ranked[best].score;
                    break;
                }
            }
        }
        if (best == window) {
            // Nothing fits the assumed budget any more: the rest by score, for larger budgets.
            for (std::size_t i = 0; i < window; ++i) {
                if (!taken[i]) {
                    best = i;
                    best_score = ranked[i].score;
                    break;
                }
            }
        }
        if (best == window) break;
        const CandidateSymbol& symbol = *ranked[best].symbol;
        if (spent + symbol.cost <= budget) {
            spent += symbol.cost;
            covered.insert(symbol.file_id);
        }
        emit(best, best_score);
    }

    if (!outcome.unavailable.empty()) {
        std::string note = "Ranked without";
        for (std::size_t i = 0; i < outcome.unavailable.size(); ++i) note += (i == 0 ? " " : "; ") + outcome.unavailable[i];
        result.note = std::move(note);
    }
    return result;
}

}  // namespace orvane_kestrix::retrieval
