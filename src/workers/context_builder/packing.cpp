// Budgeted packing: the ranking becomes pack rows within the token budget.

#include <algorithm>
#include <cmath>
#include <unordered_set>

#include "orvane_kestrix/beneath_root.hpp"
#include "orvane_kestrix/workers/context_builder/constants.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"
#include "orvane_kestrix/workers/context_builder/token_estimate.hpp"

namespace orvane_kestrix {

namespace {

constexpr std::size_t ENRICHED_ROWS = 5;   // related symbols and the has-tests flag
constexpr std::size_t EXAMPLE_ROWS = 3;    // usage examples

std::int64_t floor_div(std::int64_t a, std::int64_t b) {
    std::int64_t q = a / b;
    if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
    return q;
}

bool non_empty(const std::optional<std::string>& text) { return text && !text->empty(); }

}  // namespace

ContextPack ContextBuilder::_build_pack(const std::vector<RankedSymbol>& ranked_in, std::int64_t max_tokens,
                                        bool include_snippets, const std::optional<std::filesystem::path>& repo_root,
                                        const std::optional<std::set<std::string>>& deep_fqns,
                                        std::int64_t deep_max_lines) {
    ContextPack pack;
    std::unordered_set<std::string> seen_files;
    std::int64_t total_snippet_lines = 0;

    const std::vector<RankedSymbol> ranked(
        ranked_in.begin(), ranked_in.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(ranked_in.size(), MAX_SYMBOLS)));

    CoveringTests tests(repository, TESTS_PER_FILE);
    const std::vector<std::string> tested = _tested_sources(ranked);
    tests.look_up(std::vector<std::optional<std::string>>(tested.begin(), tested.end()));
    const auto test_rows = list_tests ? _test_rows(tested, tests) : std::vector<std::pair<TestRow, std::int64_t>>{};

    // The reserve is taken on the tests of all tested sources, before it is known which of
    // their files will be packed; the symbols cannot spend it.
    std::int64_t kept_for_tests = 0;
    if (!test_rows.empty()) {
        std::int64_t rows_cost = 0;
        for (const auto& [row, cost] : test_rows) rows_cost += cost;
        const double share = static_cast<double>(max_tokens) * TESTS_SHARE;
        kept_for_tests = static_cast<std::int64_t>(std::trunc(std::min(static_cast<double>(rows_cost), share)));
    }
    const std::int64_t total_cap =
        std::min(ABS_MAX_TOTAL_SNIPPET_LINES, std::max(MAX_TOTAL_SNIPPET_LINES, floor_div(max_tokens, 5)));

    // The root, opened once: each snippet is looked up from it, so that no path (a link inside
    // the repository, "..", a link swapped in since indexing) leads a read out of it.
    std::optional<RootDirectory> root;
    if (include_snippets && repo_root) root.emplace(*repo_root);

    for (const auto& item : ranked) {
        const Symbol& symbol = item.symbol;
        std::optional<std::string> snippet;
        std::int64_t snippet_lines = 0;

        if (include_snippets && non_empty(item.file_path) && repo_root) {
            const std::int64_t per_symbol_max =
                (deep_fqns && deep_fqns->count(symbol.fqn)) ? deep_max_lines : MAX_SNIPPET_LINES_PER_SYMBOL;
            std::tie(snippet, snippet_lines) =
                _extract_snippet(*item.file_path, symbol.start_line, symbol.end_line, total_snippet_lines,
                                 per_symbol_max, total_cap, &*root);
        }

        std::int64_t token_cost = symbol.token_count();
        if (non_empty(symbol.docstring)) token_cost += estimate_tokens(*symbol.docstring);
        if (non_empty(snippet)) token_cost += estimate_tokens(*snippet);
        if (pack.tokens_used + token_cost > max_tokens - kept_for_tests) continue;

        SymbolRow row;
        row.fqn = symbol.fqn;
        row.name = symbol.name;
        row.kind = symbol.kind;
        row.file = item.file_path.value_or("");
        row.line = symbol.start_line;
        row.signature = symbol.signature;
        row.docstring = symbol.docstring;
        row.docstring_truncated = symbol.docstring_truncated;
        row.parameters = _extract_parameters(symbol.docstring);
        // Enrichment slots go by rows already packed, not by rank: a skipped symbol takes none.
        if (pack.symbols.size() < ENRICHED_ROWS) row.related = _get_related_symbols(symbol, item.file_path);
        if (pack.symbols.size() < EXAMPLE_ROWS) row.usage_example = _get_usage_example(symbol);
        if (pack.symbols.size() < ENRICHED_ROWS && !tests.of(item.file_path).empty()) row.has_tests = true;
        if (non_empty(snippet)) {
            row.snippet = std::move(snippet);
            total_snippet_lines += snippet_lines;
        }
        pack.symbols.push_back(std::move(row));
        pack.tokens_used += token_cost;

        if (non_empty(item.file_path) && seen_files.insert(*item.file_path).second) pack.files.push_back(*item.file_path);
    }

    // The tests get what the symbols left of the whole budget, the reserve included.
    for (const auto& [row, cost] : test_rows) {
        if (seen_files.count(row.for_source) && pack.tokens_used + cost <= max_tokens) {
            pack.tests.push_back(row);
            pack.tokens_used += cost;
        }
    }
    if (tests.failed) pack.notes.emplace_back(NO_TESTS);
    return pack;
}

}  // namespace orvane_kestrix
