#pragma once
// The retriever and the tokenizer that the context builder receives from the retrieval module.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "orvane_kestrix/models.hpp"

namespace orvane_kestrix {

struct RetrievalHit {
    double score = 0;  // the fused score
    Symbol symbol;     // at least `id` and `kind` are set
};

struct RetrievalResult {
    std::vector<RetrievalHit> hits;  // best first
    std::optional<std::string> note;  // what the retriever could not do; absent when it ranked fully
};

// Ranks a task's code symbols.
class HybridRetriever {
public:
    virtual ~HybridRetriever() = default;
    virtual RetrievalResult retrieve(const std::string& task, std::int64_t limit, bool include_tests) = 0;
};

// Splits a task into the names it writes and the words it is made of.
class Tokenizer {
public:
    virtual ~Tokenizer() = default;
    // The identifiers the task writes, in order (not lowercased).
    virtual std::vector<std::string> query_names(const std::string& task) = 0;
    // The lowercased words of the task's names and text, in order, common words left out.
    virtual std::vector<std::string> query_terms(const std::string& task) = 0;
    // Whether the terms are those of a task about tests.
    virtual bool is_test_query(const std::vector<std::string>& terms) = 0;
};

// The project's tokenizer for plain-language coding tasks; stateless, safe to share.
class QueryTokenizer final : public Tokenizer {
public:
    std::vector<std::string> query_names(const std::string& task) override;
    std::vector<std::string> query_terms(const std::string& task) override;
    bool is_test_query(const std::vector<std::string>& terms) override;
};

// The tokenizer a builder uses when none is injected.
Tokenizer& default_tokenizer();

}  // namespace orvane_kestrix
