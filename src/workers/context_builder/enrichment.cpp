// Enrichment of a pack's first rows: the other classes and functions of the symbol's file, and
// a short text that shows where the symbol is used.

#include <string>

#include "orvane_kestrix/text/unicode.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace orvane_kestrix {

namespace {

bool is_related_kind(const std::string& kind) { return kind == "class" || kind == "function" || kind == "method"; }

}  // namespace

std::optional<std::vector<RelatedRow>> ContextBuilder::_get_related_symbols(const Symbol& symbol,
                                                                            const std::optional<std::string>& file_path,
                                                                            std::int64_t limit) {
    // The path is only a guard; the query goes by the file's id.
    if (!file_path || file_path->empty() || !symbol.file_id || *symbol.file_id == 0) return std::nullopt;
    const std::vector<Symbol> file_symbols = repository.get_symbols_by_file(*symbol.file_id);

    std::vector<RelatedRow> related;
    for (const auto& other : file_symbols) {
        // Every symbol sharing the fully qualified name (overloads too) is the symbol itself.
        if (other.fqn != symbol.fqn && is_related_kind(other.kind)) related.push_back({other.fqn, other.kind});
    }
    if (limit < 0) {
        // A negative limit leaves out that many from the end.
        const auto drop = static_cast<std::size_t>(-(limit + 1)) + 1;
        related.resize(drop >= related.size() ? 0 : related.size() - drop);
    } else if (static_cast<std::uint64_t>(limit) < related.size()) {
        related.resize(static_cast<std::size_t>(limit));
    }
    if (related.empty()) return std::nullopt;
    return related;
}

std::optional<std::string> ContextBuilder::_get_usage_example(const Symbol& symbol) {
    if (!symbol.id || *symbol.id == 0) return std::nullopt;
    const ReferencesResult result = repository.get_references(symbol.fqn);
    const std::vector<Reference>& refs = result.references;
    if (refs.empty()) return std::nullopt;

    // The first call; failing that, the first use of any kind.
    const Reference* ref = &refs.front();
    for (const auto& candidate : refs) {
        if (candidate.usage_type == "call") {
            ref = &candidate;
            break;
        }
    }

    const bool has_context = ref->context && !ref->context->empty();
    if (!ref->caller_symbol || ref->caller_symbol->empty()) {
        if (!has_context) return std::nullopt;
        return std::string(text::strip(*ref->context));
    }
    const CallerSymbol& caller_symbol = *ref->caller_symbol;

    if (caller_symbol.fqn && !caller_symbol.fqn->empty()) {
        const std::optional<Symbol> caller = repository.get_symbol_by_fqn(*caller_symbol.fqn);
        if (caller && caller->signature && !caller->signature->empty()) return "Used in: " + *caller->signature;
    }

    const std::string caller_kind = caller_symbol.kind.value_or("");
    std::string caller_name;
    if (caller_symbol.name) {
        caller_name = *caller_symbol.name;
    } else if (has_context) {
        caller_name = *ref->context;  // as written, not trimmed
    }

    if (!caller_kind.empty()) return "Called by " + caller_kind + " `" + caller_name + "`";
    if (caller_name.empty()) return std::nullopt;
    return caller_name;
}

}  // namespace orvane_kestrix
