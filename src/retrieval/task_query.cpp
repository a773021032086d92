#include "orvane_kestrix/retrieval/task_query.hpp"

#include <algorithm>
#include <cmath>
#include <unordered_map>

#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "orvane_kestrix/retrieval/search_words.hpp"

namespace orvane_kestrix::retrieval {

namespace {
constexpr std::size_t kMaxNames = 48;
}  // namespace

RetrievalQuery make_task_query(const std::string& task, bool include_tests, Tokenizer& tokenizer,
                               const std::function<WordFrequency(const std::string&)>& frequency,
                               std::int64_t indexed_symbols, std::int64_t indexed_files) {
    RetrievalQuery query;
    query.task = task;
    query.include_tests = include_tests;
    query.mentions = parse_task_mentions(task);
    for (auto& name : tokenizer.query_names(task)) {
        if (query.names.size() >= kMaxNames) break;
        query.names.push_back(std::move(name));
    }

    // Distinct words in order of first appearance, with their counts.
    std::vector<std::string> words;
    std::unordered_map<std::string, std::size_t> count;
    for_each_search_word(task, [&](std::string_view word, bool) {
        auto [it, added] = count.try_emplace(std::string(word), 0);
        ++it->second;
        if (added && words.size() < kMaxCandidateWords) words.push_back(it->first);
    });

    struct Candidate {
        std::string word;
        WordFrequency df;
        double idf;
    };
    std::vector<Candidate> candidates;
    const double n = static_cast<double>(std::max<std::int64_t>(indexed_symbols, 1));
    for (const auto& word : words) {
        const WordFrequency df = frequency(word);
        if (df.symbols == 0 && df.files == 0) continue;
        const double idf = std::log((n - static_cast<double>(df.symbols) + 0.5) / (static_cast<double>(df.symbols) + 0.5) + 1.0);
        candidates.push_back({word, df, idf});
    }
    std::stable_sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) { return a.idf > b.idf; });
    std::int64_t postings = 0;
    std::int64_t file_postings = 0;
    std::vector<std::string> file_terms;
    const double files = static_cast<double>(std::max<std::int64_t>(indexed_files, 1));
    for (const auto& candidate : candidates) {
        if (query.terms.size() < kMaxTerms) {
            query.terms.push_back(candidate.word);
            const double df = static_cast<double>(candidate.df.files);
            query.term_idf.push_back(std::log((files - df + 0.5) / (df + 0.5) + 1.0));
            if (file_terms.empty() || file_postings + candidate.df.files <= kMaxFilePostings) {
                file_postings += candidate.df.files;
                file_terms.push_back(candidate.word);
                if (!query.file_term_rows.empty()) query.file_term_rows += ' ';
                query.file_term_rows += std::to_string(candidate.df.files);
            }
        }
        if (candidate.df.symbols == 0 || static_cast<double>(candidate.df.symbols) > kMaxSymbolShare * n) continue;
        if (query.symbol_terms.size() >= kMaxSymbolTerms) continue;
        if (postings + candidate.df.symbols > kMaxPostings && !query.symbol_terms.empty()) continue;
        postings += candidate.df.symbols;
        query.symbol_terms.push_back(candidate.word);
        if (!query.symbol_term_rows.empty()) query.symbol_term_rows += ' ';
        query.symbol_term_rows += std::to_string(candidate.df.symbols);
    }
    auto match_of = [&](const std::vector<std::string>& terms) {
        if (terms.empty()) return std::string();
        std::string match = "(";
        for (std::size_t i = 0; i < terms.size(); ++i) {
            if (i > 0) match += " OR ";
            match += '"' + terms[i] + '"';
        }
        match += ')';
        return match;
    };
    query.file_match = match_of(file_terms);
    query.symbol_match = match_of(query.symbol_terms);
    return query;
}

}  // namespace orvane_kestrix::retrieval
