// Relevance scoring and ranking of candidate symbols.

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <tuple>
#include <unordered_set>

#include "orvane_kestrix/text/unicode.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace orvane_kestrix {

namespace {

constexpr double EXACT_NAME = 1.0;
constexpr double NAME_PREFIX = 0.8;
constexpr double IN_NAME = 0.6;
constexpr double IN_FQN = 0.4;

bool starts_with(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// Best match level of any keyword against the lowercased name and fqn; keywords are lowercased.
double name_match_lowered(const std::string& name, const std::string& fqn, const std::vector<std::string>& keywords) {
    double best = 0.0;
    for (const auto& keyword : keywords) {
        double level = 0.0;
        if (keyword == name) {
            level = EXACT_NAME;
        } else if (starts_with(name, keyword)) {
            level = NAME_PREFIX;
        } else if (name.find(keyword) != std::string::npos) {
            level = IN_NAME;
        } else if (fqn.find(keyword) != std::string::npos) {
            level = IN_FQN;
        }
        best = std::max(best, level);
    }
    return best;
}

std::vector<std::string> lowercased(const std::vector<std::string>& words) {
    std::vector<std::string> out;
    out.reserve(words.size());
    for (const auto& word : words) out.push_back(text::lowercase(word));
    return out;
}

// The score rounded to 4 decimals: the exact binary value rounded, ties to even, as printf does.
double round4(double score) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.4f", score);
    return std::strtod(buffer, nullptr);
}

}  // namespace

double ContextBuilder::_calculate_name_match(const Symbol& symbol, const std::vector<std::string>& keywords) const {
    return name_match_lowered(text::lowercase(symbol.name), text::lowercase(symbol.fqn), lowercased(keywords));
}

namespace {

double relevance(const Symbol& symbol, double name_match, const std::optional<std::vector<std::string>>& prefer_kinds) {
    const double exported = symbol.is_export ? 1.0 : 0.0;
    const double total = name_match * ContextBuilder::NAME_MATCH_WEIGHT + exported * ContextBuilder::EXPORT_WEIGHT;
    auto it = ContextBuilder::KIND_WEIGHTS.find(symbol.kind);
    double weight = it == ContextBuilder::KIND_WEIGHTS.end() ? 1.0 : it->second;
    if (prefer_kinds && std::find(prefer_kinds->begin(), prefer_kinds->end(), symbol.kind) != prefer_kinds->end()) {
        weight *= ContextBuilder::PREFERRED_KIND_BOOST;
    }
    return total * weight;
}

}  // namespace

double ContextBuilder::_calculate_relevance_score(const Symbol& symbol, const std::vector<std::string>& keywords,
                                                  const std::optional<std::vector<std::string>>& prefer_kinds) const {
    return relevance(symbol, _calculate_name_match(symbol, keywords), prefer_kinds);
}

std::vector<RankedSymbol> ContextBuilder::_rank_symbols(const std::vector<Symbol>& candidates,
                                                        const std::vector<std::string>& keywords, bool include_tests,
                                                        const std::optional<std::vector<std::string>>& prefer_kinds,
                                                        const std::optional<SeedRank>& seed_rank) {
    const SymbolPathMap paths = repository.get_file_paths_batch(candidates);
    static const SeedRank no_seeds;
    const SeedRank& seeds = seed_rank ? *seed_rank : no_seeds;

    std::vector<std::int64_t> fan_in_ids;
    for (const auto& symbol : candidates) {
        if (symbol.id && !seeds.count(*symbol.id)) fan_in_ids.push_back(*symbol.id);
    }
    const FanInMap fan_in = fan_in_ids.empty() ? FanInMap{} : repository.production_fan_in(fan_in_ids);

    std::unordered_set<std::string> test_files;
    if (!include_tests) {
        std::vector<std::string> values;
        values.reserve(paths.size());
        for (const auto& [id, path] : paths) values.push_back(path);
        test_files = repository.test_paths(values);
    }

    const std::vector<std::string> lowered_keywords = lowercased(keywords);
    struct Entry {
        RankedSymbol ranked;
        double rounded;
        int priority;
        std::int64_t fan_in;
    };
    std::vector<Entry> entries;
    entries.reserve(candidates.size());
    for (const auto& symbol : candidates) {
        double score = relevance(
            symbol,
            name_match_lowered(text::lowercase(symbol.name), text::lowercase(symbol.fqn), lowered_keywords),
            prefer_kinds);
        std::optional<std::string> file_path;
        if (symbol.id && *symbol.id != 0) {
            if (auto it = paths.find(*symbol.id); it != paths.end()) file_path = it->second;
        }
        if (file_path && test_files.count(*file_path)) continue;
        auto seed = symbol.id ? seeds.find(*symbol.id) : seeds.end();
        if (seed != seeds.end()) {
            score = SEED_BASE_SCORE - static_cast<double>(seed->second) * SEED_RANK_STEP;
        } else if (score < MIN_RELEVANCE_SCORE) {
            continue;
        }
        auto priority = KIND_PRIORITY.find(symbol.kind);
        auto fan = fan_in.find(symbol.id.value_or(0));
        entries.push_back(Entry{RankedSymbol{symbol, score, std::move(file_path)}, round4(score),
                                priority == KIND_PRIORITY.end() ? 0 : priority->second,
                                fan == fan_in.end() ? 0 : fan->second});
    }

    std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        return std::tie(a.rounded, a.priority, a.fan_in) > std::tie(b.rounded, b.priority, b.fan_in);
    });

    std::vector<RankedSymbol> result;
    result.reserve(entries.size());
    for (auto& entry : entries) result.push_back(std::move(entry.ranked));
    return result;
}

}  // namespace orvane_kestrix
