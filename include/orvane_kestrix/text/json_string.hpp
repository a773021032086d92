#pragma once

#include <string>
#include <string_view>

namespace orvane_kestrix::text {

// Appends `value` as a JSON string literal, as the JSON writer prints it: quotation mark,
// reverse solidus and control characters escaped, everything else (non-ASCII included)
// written as itself. `value` is valid UTF-8.
void append_json_string(std::string& out, std::string_view value);

}  // namespace orvane_kestrix::text
