// The task tokenizer on any text: names and terms are never empty and each comes once, and valid
// UTF-8 in gives valid UTF-8 out.

#include <set>
#include <string>

#include "fuzz_target.hpp"
#include "orvane_kestrix/workers/retrieval.hpp"

using namespace orvane_kestrix;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string task(fuzz::as_text(data, size));
    QueryTokenizer tokenizer;
    const auto names = tokenizer.query_names(task);
    const auto terms = tokenizer.query_terms(task);
    tokenizer.is_test_query(terms);

    const bool valid_input = text::is_valid_utf8(task);
    auto check = [valid_input](const std::vector<std::string>& words) {
        std::set<std::string_view> seen;
        for (const auto& word : words) {
            fuzz::require(!word.empty(), "a name or term is not empty");
            fuzz::require(seen.insert(word).second, "each name and term once");
            if (valid_input) fuzz::require_utf8(word, "a name or term of valid text is UTF-8");
        }
    };
    check(names);
    check(terms);
    return 0;
}
