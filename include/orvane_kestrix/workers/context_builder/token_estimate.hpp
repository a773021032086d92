#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace orvane_kestrix {

// Tokens of a text without a tokenizer: code points / chars_per_token, truncated, at least 1
// for a non-empty text and 0 for an empty or absent one. A ratio of 0 throws std::domain_error.
std::int64_t estimate_tokens(std::optional<std::string_view> text, double chars_per_token = 4.0);

}  // namespace orvane_kestrix
