// Keyword candidate search: one name search of the index per keyword.

#include <unordered_set>

#include "orvane_kestrix/text/unicode.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace orvane_kestrix {

namespace {

constexpr std::size_t SEARCHED_KEYWORDS = 10;
constexpr std::int64_t HITS_PER_KEYWORD = 50;

// Exact mode hands the keyword to the index as it is (a whole-name match); wide mode wraps it in
// "%" so that it matches anywhere in a name. Keywords of one or two characters stay exact.
std::string search_pattern(const std::string& keyword, bool wide_match) {
    if (!wide_match || text::code_points(keyword) <= 2) return keyword;
    std::string pattern = "%";
    for (char c : keyword) {
        if (c != '%') pattern.push_back(c);
    }
    pattern.push_back('%');
    return pattern;
}

}  // namespace

std::vector<Symbol> ContextBuilder::_get_candidate_symbols(const std::vector<std::string>& keywords,
                                                           const std::optional<std::string>& component_filter,
                                                           bool source_only, bool wide_match) {
    std::vector<Symbol> result;
    std::unordered_set<std::int64_t> seen;
    const std::size_t searched = std::min(keywords.size(), SEARCHED_KEYWORDS);
    for (std::size_t i = 0; i < searched; ++i) {
        auto found = repository.search_symbols(search_pattern(keywords[i], wide_match), HITS_PER_KEYWORD, source_only);
        for (auto& symbol : found.symbols) {
            if (!symbol.id || *symbol.id == 0) continue;
            if (!seen.insert(*symbol.id).second) continue;
            result.push_back(std::move(symbol));
        }
    }

    // Resolved after the searches: an unknown component still fails, but only then.
    auto component_files = _component_files(component_filter);
    if (component_files) {
        std::vector<Symbol> kept;
        for (auto& symbol : result) {
            if (symbol.file_id && component_files->count(*symbol.file_id)) kept.push_back(std::move(symbol));
        }
        result = std::move(kept);
    }
    return result;
}

}  // namespace orvane_kestrix
