// What the languages share: kind and usage names, the default rules, doc comments found by
// position.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "extract_internal.hpp"
#include "orvane_kestrix/text/unicode.hpp"

namespace orvane_kestrix::indexer::detail {

std::string_view kind_name(Kind kind) {
    switch (kind) {
        case Kind::class_: return "class";
        case Kind::interface: return "interface";
        case Kind::struct_: return "struct";
        case Kind::trait: return "trait";
        case Kind::enum_: return "enum";
        case Kind::function: return "function";
        case Kind::method: return "method";
        case Kind::module: return "module";
        case Kind::namespace_: return "namespace";
        case Kind::type: return "type";
        case Kind::variable: return "variable";
        case Kind::constant: return "constant";
        case Kind::field: return "field";
        case Kind::property: return "property";
        case Kind::section: return "section";
        case Kind::declaration:
        case Kind::member:
        case Kind::typedef_:
        case Kind::frame: break;
    }
    return "variable";
}

bool is_type_like(Kind kind) {
    return kind == Kind::class_ || kind == Kind::interface || kind == Kind::struct_ || kind == Kind::trait ||
           kind == Kind::enum_;
}

bool is_callable(Kind kind) {
    return kind == Kind::function || kind == Kind::method;
}

std::string_view usage_name(Usage usage) {
    switch (usage) {
        case Usage::call: return "call";
        case Usage::import: return "import";
        case Usage::type: return "type";
        case Usage::inherit: return "inherit";
    }
    return "call";
}

// ---------------------------------------------------------------------------------------------
// Default rules

void LanguageRules::prepare(Context&, const std::vector<RawDef>&) const {}

void LanguageRules::definitions(Context& ctx, RawDef def, std::vector<RawDef>& out) const {
    if (ts_node_is_null(def.name_node)) {
        if (def.kind != Kind::frame) return;
    } else {
        def.name = node_text(ctx.text, def.name_node);
        if (def.name.empty()) return;
    }
    out.push_back(std::move(def));
}

bool LanguageRules::keep_nested(const RawDef&, const RawDef&) const {
    return true;
}

std::string LanguageRules::module_name(const Context& ctx) const {
    return dotted_path_module(ctx.path, false);
}

bool LanguageRules::member_export(const Context&, const RawDef& def) const {
    return def.own_export;
}

std::optional<std::string> LanguageRules::docstring(const Context& ctx, const RawDef& def,
                                                    const std::vector<TSNode>& comments) const {
    return comment_block_above(ctx, ts_node_start_point(def.outer).row, comments);
}

std::optional<std::string> LanguageRules::signature(const Context& ctx, const RawDef& def) const {
    return head_signature(ctx.text, def.node, def.node);
}

bool LanguageRules::complete_reference(const Context&, RawRef& ref) const {
    return !ts_node_is_null(ref.name_node);
}

void LanguageRules::token_references(const Context&, TSNode, std::vector<RawRef>&) const {}

// ---------------------------------------------------------------------------------------------

std::optional<std::string> comment_block_above(const Context& ctx, std::uint32_t anchor_row,
                                               const std::vector<TSNode>& comments) {
    if (anchor_row == 0 || comments.empty()) return std::nullopt;
    // The definition's column: comments indented deeper belong to the block above it.
    std::string_view anchor_line = ctx.lines.line(anchor_row);
    std::size_t anchor_column = 0;
    while (anchor_column < anchor_line.size() && (anchor_line[anchor_column] == ' ' || anchor_line[anchor_column] == '\t')) {
        ++anchor_column;
    }
    // The last comment that starts before the definition's line.
    std::uint32_t anchor_byte = ctx.lines.line_start(anchor_row);
    auto it = std::lower_bound(comments.begin(), comments.end(), anchor_byte,
                               [](TSNode c, std::uint32_t b) { return ts_node_start_byte(c) < b; });
    std::vector<std::string_view> run;
    std::uint32_t expected_last = anchor_row - 1;
    while (it != comments.begin()) {
        --it;
        TSNode comment = *it;
        std::uint32_t end_row = last_row(comment);
        if (end_row != expected_last) break;
        TSPoint start = ts_node_start_point(comment);
        // Only comments that begin their line: a trailing comment documents its own line.
        std::string_view line = ctx.lines.line(start.row);
        std::string_view before = line.substr(0, std::min<std::size_t>(start.column, line.size()));
        if (!text::strip(before).empty()) break;
        if (start.column > anchor_column) break;
        run.push_back(node_text(ctx.text, comment));
        if (start.row == 0) break;
        expected_last = start.row - 1;
    }
    if (run.empty()) return std::nullopt;
    std::reverse(run.begin(), run.end());
    std::string cleaned = clean_comment_block(run);
    if (cleaned.empty()) return std::nullopt;
    return cleaned;
}

void add_import(Context& ctx, std::string module, std::vector<std::string> names, std::optional<std::string> alias,
                TSNode at) {
    ExtractedImport import;
    import.module = std::move(module);
    import.names = std::move(names);
    import.alias = std::move(alias);
    import.line = ts_node_start_point(at).row + 1;
    ctx.out.imports.push_back(std::move(import));
}

}  // namespace orvane_kestrix::indexer::detail
