// The pack's closing hints: what to do when it found little, and what else to look at for a
// task about tests or about an API.

#include <algorithm>
#include <string>

#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace orvane_kestrix {

namespace {

constexpr std::size_t MAX_RECOMMENDATIONS = 3;
constexpr std::size_t FEW_SYMBOLS = 5;

bool is_api_term(const std::string& term) { return term == "endpoints" || term == "endpoint" || term == "api"; }

}  // namespace

std::vector<std::string> ContextBuilder::_generate_recommendations(const std::string& task,
                                                                   const std::vector<SymbolRow>& symbols) {
    const auto functions = std::count_if(symbols.begin(), symbols.end(),
                                         [](const SymbolRow& row) { return row.kind == "function"; });

    std::vector<std::string> recommendations;
    if (symbols.empty()) {
        recommendations.emplace_back("No matching symbols found. Try broader search terms.");
    } else if (symbols.size() < FEW_SYMBOLS) {
        recommendations.emplace_back("Few symbols matched. Consider exploring related components.");
    }

    const std::vector<std::string> terms = tokenizer.query_terms(task);
    if (tokenizer.is_test_query(terms) && functions > 0) {
        recommendations.emplace_back("Found functions - consider their test requirements.");
    }
    if (std::any_of(terms.begin(), terms.end(), is_api_term)) {
        recommendations.emplace_back("Check for related API handlers and middleware.");
    }

    if (recommendations.size() > MAX_RECOMMENDATIONS) recommendations.resize(MAX_RECOMMENDATIONS);
    return recommendations;
}

}  // namespace orvane_kestrix
