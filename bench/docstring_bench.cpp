// Docstring parsing on hostile 100 KB comments: every case must stay far below 50 ms a call.

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace {

using orvane_kestrix::ContextBuilder;

constexpr std::size_t SIZE = 100 * 1024;
constexpr std::chrono::milliseconds LIMIT{50};

// `unit` repeated until the text holds SIZE bytes.
std::string repeat(const std::string& unit, std::size_t size = SIZE) {
    std::string out;
    out.reserve(size + unit.size());
    while (out.size() < size) out += unit;
    return out;
}

struct HostileCase {
    const char* name;
    std::function<std::string()> make;
};

const std::vector<HostileCase>& cases() {
    static const std::vector<HostileCase> all = {
        {"spaces", [] { return std::string(SIZE, ' '); }},
        {"colons", [] { return std::string(SIZE, ':'); }},
        {"word_run", [] { return std::string(SIZE, 'a'); }},
        {"args_then_word_run_no_colon", [] { return "Args:\n    " + std::string(SIZE, 'a'); }},
        {"args_then_indented_a_no_colon", [] { return "Args:\n" + repeat("    a"); }},
        {"args_then_indented_lines_no_colon", [] { return "Args:\n" + repeat("    a\n"); }},
        {"args_then_spaces_word_colon_at_end", [] { return "Args:\n" + std::string(SIZE / 2, ' ') + std::string(SIZE / 2, 'a') + ":"; }},
        {"args_then_newlines", [] { return "Args:" + std::string(SIZE, '\n') + "x"; }},
        {"args_then_blank_runs", [] { return "Args:" + repeat("\n ") + "x"; }},
        {"args_headers", [] { return repeat("Args:\n"); }},
        {"args_headers_no_newline", [] { return repeat("Args: "); }},
        {"args_block_long", [] { return "Args:\n" + repeat("    name (int): the description\n"); }},
        {"args_line_colons_no_tail", [] { return "Args:\n    a" + std::string(SIZE, ':'); }},
        {"args_line_parens", [] { return "Args:\n    a" + repeat(" (x") + ":"; }},
        {"param_fields", [] { return repeat(":param a: x "); }},
        {"param_no_colon", [] { return repeat(":param aaaa "); }},
        {"param_spaces", [] { return ":param" + std::string(SIZE, ' ') + "a"; }},
        {"type_fields", [] { return repeat(":type a: x "); }},
        {"type_no_colon", [] { return repeat(":type aaaaaaaa "); }},
        {"tags", [] { return repeat("@param a x "); }},
        {"tags_unterminated_brace", [] { return repeat("@param {"); }},
        {"tags_unterminated_brace_late_close", [] { return repeat("@param {a") + "}x"; }},
        {"tag_brace_then_long_type", [] { return "@param {" + std::string(SIZE, 'a'); }},
        {"tags_no_description", [] { return repeat("@param aaaaaaa"); }},
        {"mixed", [] { return repeat("Args:\n    a: b\n:param c: d\n:type c: e\n@param {f} g h\n"); }},
    };
    return all;
}

void BM_ExtractParameters(benchmark::State& state) {
    const HostileCase& hostile = cases()[static_cast<std::size_t>(state.range(0))];
    const std::optional<std::string> text = hostile.make();
    state.SetLabel(hostile.name);
    // One call up front: a case over the limit is reported as an error, not just a slow line.
    const auto start = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(ContextBuilder::_extract_parameters(text));
    if (std::chrono::steady_clock::now() - start > LIMIT) {
        state.SkipWithError("over 50 ms a call");
        return;
    }
    for (auto _ : state) {
        auto rows = ContextBuilder::_extract_parameters(text);
        benchmark::DoNotOptimize(rows);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(text->size()));
}

void register_cases(benchmark::internal::Benchmark* bench) {
    for (std::size_t i = 0; i < cases().size(); ++i) bench->Arg(static_cast<std::int64_t>(i));
}

BENCHMARK(BM_ExtractParameters)->Apply(register_cases)->Unit(benchmark::kMillisecond)->MinTime(0.05);

}  // namespace

BENCHMARK_MAIN();
