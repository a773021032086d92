#pragma once
// The context builder: turns a task into a token-budgeted context pack over a repository's
// index. Each stage is one member operation, implemented in its own source file.

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "orvane_kestrix/models.hpp"
#include "orvane_kestrix/storage/repository.hpp"
#include "orvane_kestrix/workers/context_builder/covering_tests.hpp"
#include "orvane_kestrix/workers/context_builder/pack.hpp"
#include "orvane_kestrix/workers/context_builder/ranked_symbol.hpp"
#include "orvane_kestrix/workers/retrieval.hpp"

namespace orvane_kestrix {

class RootDirectory;

// Per-builder options, given by name: ContextBuilder(repo, retriever, {.list_tests = true}).
struct ContextBuilderOptions {
    bool list_tests = false;
    // The tokenizer; null means default_tokenizer(). Borrowed, not owned.
    Tokenizer* tokenizer = nullptr;
};

// The arguments of build_context_pack, passable by name: build_context_pack({.task = "..."}).
struct PackRequest {
    std::string task{};
    std::int64_t token_budget = 800;
    std::optional<std::string> component_filter{};
    bool include_snippets = false;
    std::optional<std::filesystem::path> repo_root{};
    std::optional<std::vector<std::string>> prefer_kinds{};
    bool source_only = true;
    bool wide_match = false;
    std::optional<std::set<std::string>> deep_fqns{};
    std::optional<std::vector<Symbol>> seed_symbols{};
};

using SeedRank = std::unordered_map<std::int64_t, std::int64_t>;

class ContextBuilder {
public:
    static constexpr double NAME_MATCH_WEIGHT = 0.5;
    static constexpr double EXPORT_WEIGHT = 0.3;
    static constexpr double PREFERRED_KIND_BOOST = 1.5;
    static constexpr std::int64_t COMPONENT_WIDENING = 4;
    static constexpr std::int64_t TESTED_FILES = 5;
    static constexpr std::int64_t TESTS_PER_FILE = 2;
    static constexpr double TESTS_SHARE = 0.15;
    static constexpr double MIN_RELEVANCE_SCORE = 0.3;
    static constexpr std::int64_t MAX_SYMBOLS = 25;
    static constexpr double SEED_BASE_SCORE = 10.0;
    static constexpr double SEED_RANK_STEP = 0.001;
    // Score factor by symbol kind; 1.0 for any other kind.
    static const std::map<std::string, double, std::less<>> KIND_WEIGHTS;
    // Second sort key by symbol kind; 0 for any other kind.
    static const std::map<std::string, int, std::less<>> KIND_PRIORITY;

    explicit ContextBuilder(Repository& repository, HybridRetriever* retriever = nullptr,
                            ContextBuilderOptions options = {});

    void set_indexing_status(bool in_progress, std::int64_t progress = 100);

    ContextPack build_context_pack(const PackRequest& request);

    // The stages. They are public so that each can be exercised alone; callers use
    // build_context_pack.
    std::pair<std::vector<Symbol>, std::optional<std::string>> _retrieved(
        HybridRetriever& retriever, const std::string& task, bool include_tests, std::int64_t limit,
        const std::optional<std::vector<std::string>>& prefer_kinds);
    std::optional<std::unordered_set<std::int64_t>> _component_files(
        const std::optional<std::string>& component_filter);
    std::vector<Symbol> _get_candidate_symbols(const std::vector<std::string>& keywords,
                                               const std::optional<std::string>& component_filter,
                                               bool source_only = true, bool wide_match = false);
    std::vector<RankedSymbol> _rank_symbols(const std::vector<Symbol>& candidates,
                                            const std::vector<std::string>& keywords,
                                            bool include_tests = false,
                                            const std::optional<std::vector<std::string>>& prefer_kinds = std::nullopt,
                                            const std::optional<SeedRank>& seed_rank = std::nullopt);
    double _calculate_relevance_score(const Symbol& symbol, const std::vector<std::string>& keywords,
                                      const std::optional<std::vector<std::string>>& prefer_kinds = std::nullopt) const;
    double _calculate_name_match(const Symbol& symbol, const std::vector<std::string>& keywords) const;
    ContextPack _build_pack(const std::vector<RankedSymbol>& ranked, std::int64_t max_tokens,
                            bool include_snippets = false,
                            const std::optional<std::filesystem::path>& repo_root = std::nullopt,
                            const std::optional<std::set<std::string>>& deep_fqns = std::nullopt,
                            std::int64_t deep_max_lines = 200);
    // With `beneath`, `file_path` is relative to that root and a path that leaves it is refused.
    static std::pair<std::optional<std::string>, std::int64_t> _extract_snippet(
        const std::filesystem::path& file_path, std::int64_t start_line, std::int64_t end_line,
        std::int64_t total_lines_so_far, std::int64_t max_lines = 50, std::int64_t total_cap = 500,
        const RootDirectory* beneath = nullptr);
    std::vector<std::string> _tested_sources(const std::vector<RankedSymbol>& ranked);
    static std::vector<std::pair<TestRow, std::int64_t>> _test_rows(const std::vector<std::string>& sources,
                                                                    CoveringTests& tests);
    static std::optional<std::vector<ParameterRow>> _extract_parameters(const std::optional<std::string>& docstring);
    std::optional<std::vector<RelatedRow>> _get_related_symbols(const Symbol& symbol,
                                                                const std::optional<std::string>& file_path,
                                                                std::int64_t limit = 3);
    std::optional<std::string> _get_usage_example(const Symbol& symbol);
    std::vector<std::string> _generate_recommendations(const std::string& task,
                                                       const std::vector<SymbolRow>& symbols);

    Repository& repository;
    HybridRetriever* retriever;
    bool list_tests;
    Tokenizer& tokenizer;
    bool _indexing_in_progress = false;
    std::int64_t _indexing_progress = 100;
};

}  // namespace orvane_kestrix
