#include "orvane_kestrix/workers/context_builder/token_estimate.hpp"

#include <algorithm>
#include <stdexcept>

#include "orvane_kestrix/text/unicode.hpp"

namespace orvane_kestrix {

std::int64_t estimate_tokens(std::optional<std::string_view> text, double chars_per_token) {
    if (!text || text->empty()) return 0;
    if (chars_per_token == 0.0) throw std::domain_error("estimate_tokens: division by zero (chars_per_token is 0)");
    const double quotient = static_cast<double>(text::code_points(*text)) / chars_per_token;
    return std::max<std::int64_t>(1, static_cast<std::int64_t>(quotient));
}

}  // namespace orvane_kestrix
