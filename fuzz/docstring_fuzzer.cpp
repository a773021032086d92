// The docstring parser on any bytes: it must neither throw nor hang (its patterns run under
// match limits), and what it returns is valid UTF-8, one row per parameter name.

#include <set>
#include <string>

#include "fuzz_target.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

using namespace orvane_kestrix;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto rows = ContextBuilder::_extract_parameters(std::string(fuzz::as_text(data, size)));
    if (!rows) return 0;
    fuzz::require(!rows->empty(), "parameters are absent rather than an empty list");
    std::set<std::string> names;
    for (const ParameterRow& row : *rows) {
        fuzz::require_utf8(row.name, "parameter name is UTF-8");
        fuzz::require_utf8(row.description, "parameter description is UTF-8");
        if (row.type) fuzz::require_utf8(*row.type, "parameter type is UTF-8");
        fuzz::require(names.insert(row.name).second, "each parameter name once");
    }
    return 0;
}
