// First cut of the task tokenizer: words of letters, digits and underscores.
#include <cctype>

#include "orvane_kestrix/text/unicode.hpp"
#include "orvane_kestrix/workers/retrieval.hpp"

namespace orvane_kestrix {

namespace {
std::vector<std::string> words(const std::string& task) {
    std::vector<std::string> out;
    std::string current;
    for (char c : task) {
        if (std::isalnum(static_cast<unsigned char>(c)) || c == '_' || static_cast<unsigned char>(c) >= 0x80) {
            current.push_back(c);
        } else if (!current.empty()) {
            out.push_back(std::move(current));
            current.clear();
        }
    }
    if (!current.empty()) out.push_back(std::move(current));
    return out;
}
}  // namespace

std::vector<std::string> QueryTokenizer::query_names(const std::string& task) {
    std::vector<std::string> out;
    for (auto& w : words(task)) {
        if (w.find('_') != std::string::npos) out.push_back(w);
    }
    return out;
}

std::vector<std::string> QueryTokenizer::query_terms(const std::string& task) {
    std::vector<std::string> out;
    for (auto& w : words(task)) out.push_back(text::lowercase(w));
    return out;
}

bool QueryTokenizer::is_test_query(const std::vector<std::string>& terms) {
    for (const auto& t : terms) {
        if (t == "test" || t == "tests" || t == "testing") return true;
    }
    return false;
}

Tokenizer& default_tokenizer() {
    static QueryTokenizer tokenizer;
    return tokenizer;
}

}  // namespace orvane_kestrix
