#pragma once
// The index's record of one code symbol.

#include <cstdint>
#include <optional>
#include <string>

namespace orvane_kestrix {

struct Symbol {
    std::optional<std::int64_t> id{};  // absent: the symbol has no id in the index
    std::string name{};
    std::string fqn{};
    std::string kind = "function";
    std::optional<std::int64_t> file_id{};
    bool is_export = false;
    std::int64_t start_line = 1;  // 1-based
    std::int64_t end_line = 1;    // 1-based, inclusive
    std::optional<std::string> signature{};
    std::optional<std::string> docstring{};
    bool docstring_truncated = false;
    // The estimated tokens of the symbol's row without its docstring and snippet, as the
    // index stored it; read through token_count().
    std::int64_t stored_token_count = 0;

    std::int64_t token_count() const { return stored_token_count; }
};

}  // namespace orvane_kestrix
