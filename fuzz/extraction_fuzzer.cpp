// One language's extraction on any bytes; the build makes one target per language of the
// language table, naming it by KESTRIX_FUZZ_LANGUAGE (a Language enumerator) and giving the
// repository path the input is extracted as by KESTRIX_FUZZ_PATH. Promises checked: every string
// is UTF-8, line numbers lie within the file, a definition ends no earlier than it starts, and
// parents and callers are earlier or enclosing definitions of the same file.

#include <string>

#include "fuzz_target.hpp"
#include "orvane_kestrix/indexer/extraction.hpp"

using namespace orvane_kestrix;
using namespace orvane_kestrix::indexer;

namespace {

std::int64_t line_count(std::string_view content) {
    // Every line end (LF, CR LF, lone CR) starts a line; a final line end leaves an empty last one.
    std::int64_t lines = 1;
    for (std::size_t i = 0; i < content.size(); ++i) {
        if (content[i] == '\n' || (content[i] == '\r' && (i + 1 == content.size() || content[i + 1] != '\n'))) ++lines;
    }
    return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Extractor extractor;
    const std::string_view content = fuzz::as_text(data, size);
    const FileExtraction result = extractor.extract(Language::KESTRIX_FUZZ_LANGUAGE, KESTRIX_FUZZ_PATH, content);
    const std::int64_t lines = line_count(content);
    auto within_file = [lines](std::int64_t line) { return line >= 1 && line <= lines; };

    fuzz::require_utf8(result.module_name, "module name is UTF-8");
    for (std::size_t i = 0; i < result.symbols.size(); ++i) {
        const ExtractedSymbol& symbol = result.symbols[i];
        fuzz::require_utf8(symbol.name, "symbol name is UTF-8");
        fuzz::require_utf8(symbol.fqn, "symbol fqn is UTF-8");
        fuzz::require_utf8(symbol.kind, "symbol kind is UTF-8");
        if (symbol.signature) fuzz::require_utf8(*symbol.signature, "signature is UTF-8");
        if (symbol.docstring) fuzz::require_utf8(*symbol.docstring, "docstring is UTF-8");
        fuzz::require(within_file(symbol.start_line) && within_file(symbol.end_line), "symbol lines within the file");
        fuzz::require(symbol.start_line <= symbol.end_line, "a symbol ends no earlier than it starts");
        if (symbol.parent) fuzz::require(*symbol.parent < result.symbols.size(), "a parent is a symbol of the file");
        fuzz::require(!symbol.parent || *symbol.parent != i, "a symbol is not its own parent");
    }
    for (const ExtractedReference& reference : result.references) {
        fuzz::require_utf8(reference.name, "reference name is UTF-8");
        fuzz::require_utf8(reference.qualifier, "reference qualifier is UTF-8");
        fuzz::require_utf8(reference.usage_type, "reference usage type is UTF-8");
        fuzz::require_utf8(reference.context, "reference context is UTF-8");
        fuzz::require(within_file(reference.line), "reference line within the file");
        if (reference.caller) fuzz::require(*reference.caller < result.symbols.size(), "a caller is a symbol of the file");
    }
    for (const ExtractedImport& import : result.imports) {
        fuzz::require_utf8(import.module, "import module is UTF-8");
        for (const auto& name : import.names) fuzz::require_utf8(name, "imported name is UTF-8");
        if (import.alias) fuzz::require_utf8(*import.alias, "import alias is UTF-8");
        fuzz::require(within_file(import.line), "import line within the file");
    }
    return 0;
}
