#pragma once
// Internals of the extractor shared by its source files: the per-file context, the raw
// definitions a language's walker finds, and the per-language rules that turn those into
// symbols, exports, docstrings and imports.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tree_sitter/api.h>

#include "orvane_kestrix/indexer/extraction.hpp"

namespace orvane_kestrix::indexer::detail {

// ---------------------------------------------------------------------------------------------
// Kinds and usages

enum class Kind : std::uint8_t {
    class_,
    interface,
    struct_,
    trait,
    enum_,
    function,
    method,
    module,
    namespace_,
    type,
    variable,
    constant,
    field,
    property,
    section,
    // Raw C/C++ captures, resolved by the C rules into the kinds above.
    declaration,
    member,
    typedef_,
    // Not a symbol: a scope only (Rust impl blocks, C++ anonymous namespaces).
    frame,
};

std::string_view kind_name(Kind kind);
// Classes and the like: functions directly inside them are methods, and their members'
// exports follow theirs.
bool is_type_like(Kind kind);
bool is_callable(Kind kind);

enum class Usage : std::uint8_t { call, import, type, inherit };
std::string_view usage_name(Usage usage);

// The grammar of a parsed language (null for the others).
const TSLanguage* grammar(Language language);

// ---------------------------------------------------------------------------------------------
// Source text helpers

// Line starts of a text, for 0-based rows.
class LineIndex {
public:
    explicit LineIndex(std::string_view text);
    // The line of `row` without its terminator.
    std::string_view line(std::uint32_t row) const;
    std::uint32_t line_start(std::uint32_t row) const;
    std::uint32_t row_count() const { return static_cast<std::uint32_t>(starts_.size()); }

private:
    std::string_view text_;
    std::vector<std::uint32_t> starts_;
};

inline std::string_view node_text(std::string_view text, TSNode node) {
    std::uint32_t start = ts_node_start_byte(node);
    std::uint32_t end = ts_node_end_byte(node);
    if (start > text.size()) return {};
    if (end > text.size()) end = static_cast<std::uint32_t>(text.size());
    return text.substr(start, end - start);
}

inline bool node_is(TSNode node, std::string_view type) {
    return !ts_node_is_null(node) && std::string_view(ts_node_type(node)) == type;
}

TSNode child_by_field(TSNode node, std::string_view field);
// The first named child of the given type, or a null node.
TSNode child_of_type(TSNode node, std::string_view type);

// The last row a node occupies (a node ending at column 0 ends on the row before).
std::uint32_t last_row(TSNode node);

// White space runs (str.isspace) folded to one space, ends trimmed.
std::string fold_whitespace(std::string_view text);
// The longest prefix of at most `limit` bytes that ends on a UTF-8 boundary.
std::string_view utf8_prefix(std::string_view text, std::size_t limit);
bool starts_with_upper(std::string_view name);  // first code point is an upper-case letter
bool is_upper_snake(std::string_view name);     // UPPER_CASE: no lower-case letters, one letter at least

// Comment text without its markers (`///`, `//!`, `//`, `/** */`, `/* */`, leading ` * `, `#`),
// lines dedented, blank lines at both ends removed.
std::string clean_comment_block(const std::vector<std::string_view>& comments);
// A Python string literal's text without prefix and quotes, cleaned as inspect.cleandoc does.
std::string clean_python_docstring(std::string_view literal);

// The trimmed line of a use, cut around `column` when the line is very long.
std::string context_line(const LineIndex& lines, std::uint32_t row, std::uint32_t column);

// ---------------------------------------------------------------------------------------------
// Per-file state

struct RawDef {
    TSNode node{};       // the definition node (its span decides nesting)
    TSNode outer{};      // the node whose span gives the lines and above which docs sit
    TSNode name_node{};  // may be null when the rules computed the name
    std::string_view name;
    Kind kind = Kind::function;
    std::string scope;  // an explicit qualifier between the enclosing scope and the name
    bool hoisted = false;  // scoped to the class of the enclosing method
    bool internal = false;  // never exported, nor anything inside (static, anonymous namespace)
    bool own_export = false;  // the language's export rule for the definition itself
    bool detached_scope = false;  // `scope` replaces the enclosing scopes (Go receivers)
    bool suppressed = false;  // a repeated instance attribute: not emitted
    bool forms_scope = false;  // qualifies what is inside it though its kind does not (TS object types)
    std::uint32_t start_byte = 0;
    std::uint32_t end_byte = 0;
    // Filled by the engine.
    std::optional<std::size_t> parent;  // index into the sorted definitions
    bool exported = false;
    std::string fqn;
};

struct RawRef {
    TSNode anchor{};     // the use; its row when there is no name node
    TSNode name_node{};
    TSNode callee{};     // the qualifier is the callee's text before the name node
    Usage usage = Usage::call;
    std::optional<std::string> name;       // instead of the name node's text (imports)
    std::optional<std::string> qualifier;  // instead of the callee's text (imports)
};

// The reference an import statement makes to `name` of `qualifier`, anchored at `at`.
inline RawRef import_reference(TSNode at, std::string name, std::string qualifier) {
    RawRef ref;
    ref.anchor = at;
    ref.usage = Usage::import;
    ref.name = std::move(name);
    ref.qualifier = std::move(qualifier);
    return ref;
}

// What a language's walker finds in a tree, before the rules complete it.
struct Captures {
    std::vector<RawDef> defs;  // definitions and scope frames
    std::vector<RawRef> refs;
    std::vector<TSNode> comments;
    std::vector<TSNode> imports;          // import statements, for the rules
    std::vector<std::uint32_t> not_uses;  // start bytes of names that are no uses
};

inline bool stop_requested(const ExtractorOptions& options) {
    return options.cancel != nullptr && options.cancel->load(std::memory_order_relaxed);
}

struct Context {
    Language language;
    std::string_view path;
    std::string_view text;
    const LineIndex& lines;
    ExtractorOptions options;
    FileExtraction& out;
    std::string module_name;
    // Names exported by export clauses (JavaScript) or listed in __all__ (Python).
    std::vector<std::string_view> export_names;
    bool has_export_list = false;
    std::string_view package;  // Go package clause, Java package declaration
    bool is_header = false;    // C/C++ header file
};

// What differs between languages.
class LanguageRules {
public:
    virtual ~LanguageRules() = default;

    // Finds the captures with a walk of the tree (tree_walker.hpp). It may also set file-level
    // facts in `ctx` (package, export clauses).
    virtual void walk(Context& ctx, TSNode root, Captures& out) const = 0;
    // Before the definitions are built: file-level facts (package, __all__, export clauses).
    virtual void prepare(Context& ctx, const std::vector<RawDef>& defs) const;
    // Completes one captured definition (name, kind, outer node, scope, own export rule), or
    // expands it into several (a C declaration with several declarators). Appends to `out`.
    virtual void definitions(Context& ctx, RawDef def, std::vector<RawDef>& out) const;
    // Whether a definition nested in `parent` is kept (C drops declarations in function bodies).
    virtual bool keep_nested(const RawDef& def, const RawDef& parent) const;
    // The module prefix of fully qualified names.
    virtual std::string module_name(const Context& ctx) const;
    // The export rule for a member of a type-like definition.
    virtual bool member_export(const Context& ctx, const RawDef& def) const;
    virtual std::optional<std::string> docstring(const Context& ctx, const RawDef& def,
                                                 const std::vector<TSNode>& comments) const;
    virtual std::optional<std::string> signature(const Context& ctx, const RawDef& def) const;
    // Adds the imports (and their import references) of one import node.
    virtual void imports(Context& ctx, TSNode node, std::vector<RawRef>& refs) const = 0;
    // Completes a reference (its name node when the walker left it to the rules) or drops it.
    virtual bool complete_reference(const Context& ctx, RawRef& ref) const;
    // Adds the uses found in a run of unparsed tokens.
    virtual void token_references(const Context& ctx, TSNode tokens, std::vector<RawRef>& refs) const;
};

// The rules of a parsed language (languages.cpp).
const LanguageRules& rules_for(Language language);

// Shared building blocks for the rules.

// The comment block right above `anchor_row` (the unbroken run of own-line comments ending
// on the row above), cleaned, or absent.
std::optional<std::string> comment_block_above(const Context& ctx, std::uint32_t anchor_row,
                                               const std::vector<TSNode>& comments);
// The definition's head: its text up to the body (the first child of a body type), folded.
std::string head_signature(std::string_view text, TSNode from, TSNode def);

void add_import(Context& ctx, std::string module, std::vector<std::string> names,
                std::optional<std::string> alias, TSNode at);

// Module names from paths.
std::string dotted_path_module(std::string_view path, bool strip_src_root);

// Markdown headings.
void extract_markdown(std::string_view path, std::string_view text, const ExtractorOptions& options,
                      FileExtraction& out);

}  // namespace orvane_kestrix::indexer::detail
