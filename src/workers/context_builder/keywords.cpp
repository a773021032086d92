#include "orvane_kestrix/workers/context_builder/keywords.hpp"

#include <unordered_set>

#include "orvane_kestrix/text/unicode.hpp"
#include "orvane_kestrix/workers/context_builder/constants.hpp"

namespace orvane_kestrix {

std::vector<std::string> task_keywords(const std::string& task, Tokenizer& tokenizer) {
    // Names first (searched before the words they are made of), lowercased whole; then terms
    // as given. The first occurrence of a word keeps its place.
    std::vector<std::string> words;
    for (const auto& name : tokenizer.query_names(task)) words.push_back(text::lowercase(name));
    for (auto& term : tokenizer.query_terms(task)) words.push_back(std::move(term));

    std::vector<std::string> keywords;
    std::unordered_set<std::string> seen;
    for (auto& word : words) {
        if (!seen.insert(word).second) continue;
        if (text::code_points(word) < MIN_KEYWORD) continue;
        keywords.push_back(std::move(word));
    }
    return keywords;
}

}  // namespace orvane_kestrix
