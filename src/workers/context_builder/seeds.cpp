// Retriever seeds and the component filter.

#include <algorithm>
#include <stdexcept>

#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace orvane_kestrix {

namespace {

bool contains(const std::vector<std::string>& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

}  // namespace

std::pair<std::vector<Symbol>, std::optional<std::string>> ContextBuilder::_retrieved(
    HybridRetriever& retriever, const std::string& task, bool include_tests, std::int64_t limit,
    const std::optional<std::vector<std::string>>& prefer_kinds) {
    RetrievalResult result = retriever.retrieve(task, limit, include_tests);
    std::vector<RetrievalHit> hits = std::move(result.hits);

    if (prefer_kinds && !prefer_kinds->empty()) {
        // Ascending on the negated boosted score: equal keys keep the retriever's order.
        auto key = [&](const RetrievalHit& hit) {
            double factor = contains(*prefer_kinds, hit.symbol.kind) ? PREFERRED_KIND_BOOST : 1.0;
            return -hit.score * factor;
        };
        std::stable_sort(hits.begin(), hits.end(),
                         [&](const RetrievalHit& a, const RetrievalHit& b) { return key(a) < key(b); });
    }

    std::vector<std::optional<std::int64_t>> ids;
    ids.reserve(hits.size());
    for (const auto& hit : hits) ids.push_back(hit.symbol.id);
    auto found = repository.symbols_with_paths(ids);

    std::vector<Symbol> symbols;
    for (const auto& hit : hits) {
        if (!hit.symbol.id) continue;
        if (auto it = found.find(*hit.symbol.id); it != found.end()) symbols.push_back(it->second.first);
    }
    return {std::move(symbols), std::move(result.note)};
}

std::optional<std::unordered_set<std::int64_t>> ContextBuilder::_component_files(
    const std::optional<std::string>& component_filter) {
    if (!component_filter || component_filter->empty()) return std::nullopt;
    auto component = repository.get_component_by_name(*component_filter);
    if (!component || !component->id || *component->id == 0) {
        throw std::invalid_argument("Unknown component: " + *component_filter);
    }
    std::unordered_set<std::int64_t> ids;
    for (const auto& file : repository.get_files_by_component(*component->id)) {
        if (file.id && *file.id != 0) ids.insert(*file.id);
    }
    return ids;
}

}  // namespace orvane_kestrix
