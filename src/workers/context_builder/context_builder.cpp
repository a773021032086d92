#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace orvane_kestrix {

const std::map<std::string, double, std::less<>> ContextBuilder::KIND_WEIGHTS = {
    {"class", 2.5},  {"interface", 2.5}, {"struct", 2.5},   {"trait", 2.2},     {"enum", 2.0},
    {"function", 1.8}, {"method", 1.8},  {"module", 1.5},   {"namespace", 1.5}, {"type", 1.6},
    {"variable", 0.3}, {"constant", 0.35}, {"field", 0.35}, {"property", 0.4},
};

const std::map<std::string, int, std::less<>> ContextBuilder::KIND_PRIORITY = {
    {"class", 100},   {"interface", 100}, {"struct", 100},  {"trait", 90},     {"enum", 85},
    {"function", 80}, {"method", 80},     {"module", 70},   {"namespace", 70}, {"type", 75},
    {"variable", 5},  {"constant", 10},   {"field", 15},    {"property", 20},
};

ContextBuilder::ContextBuilder(Repository& repository, HybridRetriever* retriever, ContextBuilderOptions options)
    : repository(repository),
      retriever(retriever),
      list_tests(options.list_tests),
      tokenizer(options.tokenizer ? *options.tokenizer : default_tokenizer()) {}

void ContextBuilder::set_indexing_status(bool in_progress, std::int64_t progress) {
    _indexing_in_progress = in_progress;
    _indexing_progress = progress;
}

}  // namespace orvane_kestrix
