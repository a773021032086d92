// The pack pipeline: task in, context pack out.

#include <algorithm>
#include <cmath>

#include "orvane_kestrix/workers/context_builder/constants.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"
#include "orvane_kestrix/workers/context_builder/keywords.hpp"

namespace orvane_kestrix {

ContextPack ContextBuilder::build_context_pack(const PackRequest& request) {
    const std::vector<std::string> keywords = task_keywords(request.task, tokenizer);
    const bool include_tests = tokenizer.is_test_query(tokenizer.query_terms(request.task));
    // An unknown component fails here, before the retriever or the keyword search runs.
    const auto component_files = _component_files(request.component_filter);

    std::vector<std::string> notes;
    std::optional<std::vector<Symbol>> seed_symbols = request.seed_symbols;
    // The caller's seeds, even none, win over the retriever.
    if (!seed_symbols && retriever) {
        const std::int64_t widening = component_files ? COMPONENT_WIDENING : 1;
        auto [symbols, note] =
            _retrieved(*retriever, request.task, include_tests, MAX_SYMBOLS * widening, request.prefer_kinds);
        seed_symbols = std::move(symbols);
        if (note && !note->empty()) notes.push_back(std::move(*note));
    }

    // Each seed id once, kept to the component; positions run without gaps.
    SeedRank seed_rank;
    std::vector<Symbol> seeded;
    if (seed_symbols) {
        for (const auto& symbol : *seed_symbols) {
            if (!symbol.id || seed_rank.count(*symbol.id)) continue;
            if (component_files && !(symbol.file_id && component_files->count(*symbol.file_id))) continue;
            seed_rank.emplace(*symbol.id, static_cast<std::int64_t>(seeded.size()));
            seeded.push_back(symbol);
        }
    }

    std::vector<RankedSymbol> ranked = _rank_symbols(seeded, keywords, include_tests, request.prefer_kinds, seed_rank);
    if (ranked.size() < static_cast<std::size_t>(MAX_SYMBOLS)) {
        std::vector<Symbol> candidates = _get_candidate_symbols(keywords, request.component_filter,
                                                                request.source_only, request.wide_match);
        // A seed, even one that ranking dropped, never returns as a keyword hit.
        std::erase_if(candidates, [&](const Symbol& s) { return s.id && seed_rank.count(*s.id); });
        auto keyword_ranked = _rank_symbols(candidates, keywords, include_tests, request.prefer_kinds);
        ranked.insert(ranked.end(), std::make_move_iterator(keyword_ranked.begin()),
                      std::make_move_iterator(keyword_ranked.end()));
    }

    // A budget beyond the largest allowed one packs as that one (the product stays an integer).
    const std::int64_t budget = std::clamp(request.token_budget, -MAX_TOKEN_BUDGET, MAX_TOKEN_BUDGET);
    const auto max_tokens = static_cast<std::int64_t>(std::trunc(static_cast<double>(budget) * 1.05));
    ContextPack pack = _build_pack(ranked, max_tokens, request.include_snippets, request.repo_root, request.deep_fqns);

    pack.notes.insert(pack.notes.begin(), notes.begin(), notes.end());
    pack.recommendations = _generate_recommendations(request.task, pack.symbols);
    pack.indexing_in_progress = _indexing_in_progress;
    pack.progress = _indexing_progress;
    return pack;
}

}  // namespace orvane_kestrix
