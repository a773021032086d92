#pragma once
// Module-wide constants and the module logger of the context builder.

#include <cstdint>
#include <memory>
#include <string_view>

namespace spdlog {
class logger;
}

namespace orvane_kestrix {

// The shortest keyword, in code points.
inline constexpr std::size_t MIN_KEYWORD = 3;
// The note of a pack whose test lookup failed.
inline constexpr std::string_view NO_TESTS = "The tests of the files could not be read (see the log)";
inline constexpr std::int64_t MAX_SNIPPET_LINES_PER_SYMBOL = 50;
inline constexpr std::int64_t MAX_TOTAL_SNIPPET_LINES = 500;
inline constexpr std::int64_t ABS_MAX_TOTAL_SNIPPET_LINES = 2000;
// The largest token budget a caller may ask for: far beyond what 25 symbols can spend, and
// small enough that the budget arithmetic never overflows.
inline constexpr std::int64_t MAX_TOKEN_BUDGET = 1'000'000;

inline constexpr std::string_view CONTEXT_LOGGER_NAME = "orvane_kestrix.workers.context_builder";

// The module logger. The library attaches no sink and sets no level; the application does.
std::shared_ptr<spdlog::logger> context_logger();

}  // namespace orvane_kestrix
