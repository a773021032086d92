// The covering tests of a pack: one batch lookup with a cache, the source files whose tests a
// pack lists, and the test rows with their token costs.

#include "orvane_kestrix/workers/context_builder/covering_tests.hpp"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <exception>
#include <string_view>
#include <unordered_set>

#include "orvane_kestrix/logging.hpp"
#include "orvane_kestrix/text/json_string.hpp"
#include "orvane_kestrix/text/unicode.hpp"
#include "orvane_kestrix/workers/context_builder/constants.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"
#include "orvane_kestrix/workers/context_builder/token_estimate.hpp"

namespace orvane_kestrix {

namespace {

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
    std::string out;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) out += separator;
        out += parts[i];
    }
    return out;
}

// The first `n` items, with a negative `n` leaving out that many from the end.
std::size_t head_length(std::size_t size, std::int64_t n) {
    if (n >= 0) return std::min(size, static_cast<std::size_t>(n));
    const auto drop = static_cast<std::size_t>(-(n + 1)) + 1;
    return drop >= size ? 0 : size - drop;
}

// The row as the caller will see it written: {"file": "...", "for": "..."}.
std::string test_row_text(const TestRow& row) {
    std::string out = "{\"file\": ";
    text::append_json_string(out, row.file);
    out += ", \"for\": ";
    text::append_json_string(out, row.for_source);
    out += '}';
    return out;
}

}  // namespace

void CoveringTests::look_up(const std::vector<std::optional<std::string>>& paths) {
    std::vector<std::string> candidates;
    std::unordered_set<std::string> taken;
    for (const auto& path : paths) {
        if (!path || path->empty() || found.contains(*path)) continue;
        if (taken.insert(*path).second) candidates.push_back(*path);
    }
    if (candidates.empty() || failed) return;

    // A test file has no tests of its own.
    const std::unordered_set<std::string> test_files = repository.test_paths(candidates);
    std::vector<std::string> wanted;
    for (const auto& path : candidates) {
        if (test_files.contains(path)) {
            found.emplace(path, std::vector<std::string>{});
        } else {
            wanted.push_back(path);
        }
    }
    if (wanted.empty()) return;

    std::vector<CoveringTest> tests;
    try {
        tests = repository.find_covering_tests(wanted);
    } catch (...) {
        // The pack stands without its tests; the failure is reported once and nothing more is
        // asked of the index for this pack.
        warn_with_error(*context_logger(), "context: the tests of " + join(candidates, ", ") + " could not be read",
                        std::current_exception());
        failed = true;
        return;
    }

    for (const auto& path : wanted) {
        std::vector<CoveringTestForFile> reaching;
        for (const auto& test : tests) {
            if (auto alone = test.alone(path)) reaching.push_back(std::move(*alone));
        }
        std::stable_sort(reaching.begin(), reaching.end(),
                         [](const CoveringTestForFile& a, const CoveringTestForFile& b) { return a.rank < b.rank; });
        std::vector<std::string> best;
        const std::size_t keep = head_length(reaching.size(), per_file);
        for (std::size_t i = 0; i < keep; ++i) best.push_back(reaching[i].path);
        found.emplace(path, std::move(best));
    }
}

std::vector<std::string> CoveringTests::of(const std::optional<std::string>& path) {
    if (!path || path->empty()) return {};
    look_up({path});
    if (failed) return {};
    auto entry = found.find(*path);
    return entry == found.end() ? std::vector<std::string>{} : entry->second;
}

std::vector<std::string> ContextBuilder::_tested_sources(const std::vector<RankedSymbol>& ranked) {
    std::vector<std::string> paths;
    std::unordered_set<std::string> taken;
    for (const auto& item : ranked) {
        if (!item.file_path || item.file_path->empty()) continue;
        if (taken.insert(*item.file_path).second) paths.push_back(*item.file_path);
    }
    const std::unordered_set<std::string> test_files = repository.test_paths(paths);
    std::vector<std::string> sources;
    for (const auto& path : paths) {
        if (static_cast<std::int64_t>(sources.size()) >= TESTED_FILES) break;
        if (!test_files.contains(path)) sources.push_back(path);
    }
    return sources;
}

std::vector<std::pair<TestRow, std::int64_t>> ContextBuilder::_test_rows(const std::vector<std::string>& sources,
                                                                         CoveringTests& tests) {
    std::vector<std::pair<TestRow, std::int64_t>> rows;
    std::unordered_set<std::string> listed;
    for (const auto& source : sources) {
        for (const auto& test_path : tests.of(source)) {
            if (!listed.insert(test_path).second) continue;  // listed for an earlier source
            TestRow row{test_path, source};
            const std::int64_t cost = estimate_tokens(test_row_text(row));
            rows.emplace_back(std::move(row), cost);
        }
    }
    return rows;
}

}  // namespace orvane_kestrix
