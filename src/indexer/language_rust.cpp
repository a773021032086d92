// Rust: module paths from file paths, impl blocks as scopes, `pub` exports, doc comments above
// attributes, `use` trees.

#include <string>
#include <string_view>
#include <vector>

#include "extract_internal.hpp"
#include "tree_walker.hpp"

namespace orvane_kestrix::indexer::detail {

namespace {

// The name of an impl's type: `Foo`, `Foo<T>`, `a::Foo`, `&Foo` all give Foo.
TSNode type_name_node(TSNode type) {
    for (int guard = 0; guard < 8 && !ts_node_is_null(type); ++guard) {
        std::string_view kind = ts_node_type(type);
        if (kind == "type_identifier" || kind == "primitive_type") return type;
        if (kind == "generic_type") type = child_by_field(type, "type");
        else if (kind == "scoped_type_identifier") type = child_by_field(type, "name");
        else if (kind == "reference_type" || kind == "pointer_type") type = child_by_field(type, "type");
        else break;
    }
    return TSNode{};
}

bool is_pub(const Context& ctx, TSNode item) {
    TSNode visibility = child_of_type(item, "visibility_modifier");
    return !ts_node_is_null(visibility) && node_text(ctx.text, visibility) == "pub";
}

// The item's enclosing block owner: trait_item, impl_item, mod_item... or null at file level.
TSNode block_owner(TSNode item) {
    TSNode list = ts_node_parent(item);
    if (!node_is(list, "declaration_list")) return TSNode{};
    return ts_node_parent(list);
}

// The ids of the node types and fields the walker looks at.
struct RustGrammar {
    TSSymbol function_item, function_signature_item, struct_item, union_item, enum_item, trait_item, type_item,
        mod_item, const_item, static_item, field_declaration, impl_item, call_expression, field_expression,
        scoped_identifier, generic_function, macro_invocation, identifier, field_identifier, type_identifier,
        scoped_type_identifier, generic_type, trait_bounds, token_tree, use_declaration, line_comment, block_comment;
    TSFieldId name, type, function, field, macro, trait, bounds;

    RustGrammar() {
        const TSLanguage* g = grammar(Language::rust);
        function_item = grammar_symbol(g, "function_item");
        function_signature_item = grammar_symbol(g, "function_signature_item");
        struct_item = grammar_symbol(g, "struct_item");
        union_item = grammar_symbol(g, "union_item");
        enum_item = grammar_symbol(g, "enum_item");
        trait_item = grammar_symbol(g, "trait_item");
        type_item = grammar_symbol(g, "type_item");
        mod_item = grammar_symbol(g, "mod_item");
        const_item = grammar_symbol(g, "const_item");
        static_item = grammar_symbol(g, "static_item");
        field_declaration = grammar_symbol(g, "field_declaration");
        impl_item = grammar_symbol(g, "impl_item");
        call_expression = grammar_symbol(g, "call_expression");
        field_expression = grammar_symbol(g, "field_expression");
        scoped_identifier = grammar_symbol(g, "scoped_identifier");
        generic_function = grammar_symbol(g, "generic_function");
        macro_invocation = grammar_symbol(g, "macro_invocation");
        identifier = grammar_symbol(g, "identifier");
        field_identifier = grammar_symbol(g, "field_identifier");
        type_identifier = grammar_symbol(g, "type_identifier");
        scoped_type_identifier = grammar_symbol(g, "scoped_type_identifier");
        generic_type = grammar_symbol(g, "generic_type");
        trait_bounds = grammar_symbol(g, "trait_bounds");
        token_tree = grammar_symbol(g, "token_tree");
        use_declaration = grammar_symbol(g, "use_declaration");
        line_comment = grammar_symbol(g, "line_comment");
        block_comment = grammar_symbol(g, "block_comment");
        name = grammar_field(g, "name");
        type = grammar_field(g, "type");
        function = grammar_field(g, "function");
        field = grammar_field(g, "field");
        macro = grammar_field(g, "macro");
        trait = grammar_field(g, "trait");
        bounds = grammar_field(g, "bounds");
    }
};

// Finds the definitions, references, comments and imports of a Rust tree; macro arguments,
// which the grammar leaves as tokens, go to the rules' token reader.
class RustWalker final : public TreeWalker {
public:
    RustWalker(const RustGrammar& g, const LanguageRules& rules, Context& ctx, Captures& out)
        : TreeWalker(ctx, out), g_(g), rules_(rules) {}

private:
    void named(TSNode node, TSSymbol name_type, Kind kind) {
        TSNode name = field(node, g_.name);
        if (is(name, name_type)) definition(node, name, kind);
    }

    // `a::b` or `x.f` as a callee: its last name (null when it has none of the expected type).
    TSNode scoped_name(TSNode scoped) const {
        return field_of_type(scoped, g_.name, g_.identifier);
    }
    TSNode field_name(TSNode expression) const {
        return field_of_type(expression, g_.field, g_.field_identifier);
    }

    void call(TSNode node) {
        TSNode function = field(node, g_.function);
        if (is(function, g_.identifier)) {
            reference(node, function, {}, Usage::call);
        } else if (is(function, g_.field_expression)) {
            TSNode name = field_name(function);
            if (!ts_node_is_null(name)) reference(node, name, function, Usage::call);
        } else if (is(function, g_.scoped_identifier)) {
            TSNode name = scoped_name(function);
            if (!ts_node_is_null(name)) reference(node, name, function, Usage::call);
        } else if (is(function, g_.generic_function)) {
            // `f::<T>()`, `a::f::<T>()`, `x.f::<T>()`
            TSNode inner = field(function, g_.function);
            if (is(inner, g_.identifier)) {
                reference(node, inner, {}, Usage::call);
            } else {
                TSNode name = is(inner, g_.scoped_identifier) ? scoped_name(inner)
                              : is(inner, g_.field_expression) ? field_name(inner)
                                                               : TSNode{};
                if (!ts_node_is_null(name)) reference(node, name, inner, Usage::call);
            }
        }
    }

    void impl(TSNode node) {
        TSNode type = field(node, g_.type);
        if (is_named(type)) scope_frame(node, type, false);
        TSNode trait = field(node, g_.trait);
        if (is(trait, g_.type_identifier)) {
            reference(trait, trait, {}, Usage::inherit);
        } else if (is(trait, g_.scoped_type_identifier)) {
            TSNode name = field(trait, g_.name);
            if (is(name, g_.type_identifier)) reference(trait, name, trait, Usage::inherit);
        } else if (is(trait, g_.generic_type)) {
            TSNode name = field(trait, g_.type);
            if (is(name, g_.type_identifier)) reference(trait, name, {}, Usage::inherit);
        }
    }

    void macro(TSNode node) {
        TSNode macro = field(node, g_.macro);
        if (is(macro, g_.identifier)) {
            reference(node, macro, {}, Usage::call);
        } else if (is(macro, g_.scoped_identifier)) {
            TSNode name = scoped_name(macro);
            if (!ts_node_is_null(name)) reference(node, name, macro, Usage::call);
        }
        for (TSNode tokens : children(node, g_.token_tree)) rules_.token_references(ctx_, tokens, out_.refs);
    }

    void visit(TSNode node) override {
        const TSSymbol symbol = ts_node_symbol(node);
        if (symbol == g_.identifier || symbol == g_.field_identifier || symbol == g_.token_tree) {
            // The commonest nodes, none of them of interest.
        } else if (symbol == g_.type_identifier) {
            reference(node, node, {}, Usage::type);
        } else if (symbol == g_.call_expression) {
            call(node);
        } else if (symbol == g_.scoped_type_identifier) {
            TSNode name = field(node, g_.name);
            if (is(name, g_.type_identifier)) reference(node, name, node, Usage::type);
        } else if (symbol == g_.line_comment || symbol == g_.block_comment) {
            out_.comments.push_back(node);
        } else if (symbol == g_.macro_invocation) {
            macro(node);
        } else if (symbol == g_.function_item || symbol == g_.function_signature_item) {
            named(node, g_.identifier, Kind::function);
        } else if (symbol == g_.struct_item || symbol == g_.union_item) {
            named(node, g_.type_identifier, Kind::struct_);
        } else if (symbol == g_.enum_item) {
            named(node, g_.type_identifier, Kind::enum_);
        } else if (symbol == g_.trait_item) {
            named(node, g_.type_identifier, Kind::trait);
            TSNode bounds = field(node, g_.bounds);
            if (is(bounds, g_.trait_bounds)) {
                for (TSNode base : children(bounds, g_.type_identifier)) reference(base, base, {}, Usage::inherit);
            }
        } else if (symbol == g_.type_item) {
            named(node, g_.type_identifier, Kind::type);
        } else if (symbol == g_.mod_item) {
            named(node, g_.identifier, Kind::module);
        } else if (symbol == g_.const_item) {
            named(node, g_.identifier, Kind::constant);
        } else if (symbol == g_.static_item) {
            named(node, g_.identifier, Kind::variable);
        } else if (symbol == g_.field_declaration) {
            named(node, g_.field_identifier, Kind::field);
        } else if (symbol == g_.impl_item) {
            impl(node);
        } else if (symbol == g_.use_declaration) {
            out_.imports.push_back(node);
        }
    }

    const RustGrammar& g_;
    const LanguageRules& rules_;
};

class RustRules final : public LanguageRules {
public:
    void walk(Context& ctx, TSNode root, Captures& out) const override {
        static const RustGrammar kGrammar;
        RustWalker(kGrammar, *this, ctx, out).walk(root);
    }

    void definitions(Context& ctx, RawDef def, std::vector<RawDef>& out) const override {
        if (def.kind == Kind::frame) {
            TSNode name = type_name_node(def.name_node);
            if (ts_node_is_null(name)) return;
            def.name = node_text(ctx.text, name);
            def.name_node = TSNode{};  // the type is a use, not a definition
            def.own_export = true;
            out.push_back(std::move(def));
            return;
        }
        if (ts_node_is_null(def.name_node)) return;
        def.name = node_text(ctx.text, def.name_node);
        if (def.name.empty()) return;
        TSNode owner = block_owner(def.node);
        if (node_is(owner, "trait_item")) {
            def.own_export = true;  // as visible as the trait
        } else if (node_is(owner, "impl_item") && !ts_node_is_null(child_by_field(owner, "trait"))) {
            def.own_export = true;  // a trait's method, as visible as the trait
        } else {
            def.own_export = is_pub(ctx, def.node);
        }
        out.push_back(std::move(def));
    }

    // "src/a/b.rs" -> "a.b", "src/a/mod.rs" -> "a", "src/lib.rs" -> "" (the crate root),
    // "tests/x.rs" -> "x" (each integration test is a crate).
    std::string module_name(const Context& ctx) const override {
        std::string_view path = ctx.path;
        std::size_t cut = 0;
        std::size_t pos = 0;
        while (pos < path.size()) {
            std::size_t next = path.find('/', pos);
            if (next == std::string_view::npos) break;
            std::string_view part = path.substr(pos, next - pos);
            if (part == "src" || part == "tests" || part == "benches" || part == "examples") cut = next + 1;
            pos = next + 1;
        }
        if (cut == 0) {
            std::size_t slash = path.find_last_of('/');
            cut = slash == std::string_view::npos ? 0 : slash + 1;
        }
        std::string module = dotted_path_module(path.substr(cut), false);
        for (std::string_view root : {"lib", "main", "mod"}) {
            if (module == root) return {};
            std::string suffix = "." + std::string(root);
            if (module.ends_with(suffix)) {
                module.resize(module.size() - suffix.size());
                break;
            }
        }
        return module;
    }

    std::optional<std::string> docstring(const Context& ctx, const RawDef& def,
                                         const std::vector<TSNode>& comments) const override {
        // Doc comments come before the attributes (`#[derive(...)]`).
        TSNode anchor = def.outer;
        for (TSNode previous = ts_node_prev_named_sibling(anchor);
             node_is(previous, "attribute_item") && last_row(previous) + 1 >= ts_node_start_point(anchor).row;
             previous = ts_node_prev_named_sibling(previous)) {
            anchor = previous;
        }
        return comment_block_above(ctx, ts_node_start_point(anchor).row, comments);
    }

    std::optional<std::string> signature(const Context& ctx, const RawDef& def) const override {
        std::string head = head_signature(ctx.text, def.node, def.node);
        while (!head.empty() && (head.back() == ';' || head.back() == ' ' || head.back() == ',')) head.pop_back();
        return head;
    }

    // `Self` names the type being implemented, which the impl block already records.
    bool complete_reference(const Context& ctx, RawRef& ref) const override {
        return !ts_node_is_null(ref.name_node) &&
               !(ref.usage == Usage::type && node_text(ctx.text, ref.name_node) == "Self");
    }

    // Calls inside macro arguments (`assert_eq!(a.len(), 1)`): an identifier followed by a
    // parenthesised group, or by `!` (a nested macro), qualified by the `.`/`::` chain before it.
    void token_references(const Context& ctx, TSNode tokens, std::vector<RawRef>& refs) const override {
        std::vector<TSNode> children;
        std::vector<TSNode> pending{tokens};
        while (!pending.empty()) {
            TSNode tree = pending.back();
            pending.pop_back();
            children.clear();
            std::uint32_t count = ts_node_child_count(tree);
            for (std::uint32_t i = 0; i < count; ++i) children.push_back(ts_node_child(tree, i));
            for (std::size_t i = 0; i < children.size(); ++i) {
                TSNode child = children[i];
                if (node_is(child, "token_tree")) {
                    pending.push_back(child);
                    continue;
                }
                if (!node_is(child, "identifier") || i + 1 >= children.size()) continue;
                TSNode next = children[i + 1];
                bool call = (node_is(next, "token_tree") && node_text(ctx.text, next).starts_with('(')) ||
                            std::string_view(ts_node_type(next)) == "!";
                if (!call) continue;
                // Back over `a.b::` to the start of the chain.
                std::size_t start = i;
                while (start >= 2) {
                    std::string_view separator = ts_node_type(children[start - 1]);
                    TSNode element = children[start - 2];
                    bool chained = node_is(element, "identifier") || node_is(element, "self") ||
                                   node_is(element, "super") || node_is(element, "crate") ||
                                   node_is(element, "token_tree");
                    if ((separator != "." && separator != "::") || !chained) break;
                    start -= 2;
                    // A group is chained only as a call's arguments: `f(x).g()`.
                    if (node_is(element, "token_tree") && start >= 1 && node_is(children[start - 1], "identifier")) {
                        --start;
                    }
                }
                RawRef ref;
                ref.anchor = child;
                ref.name_node = child;
                if (start < i) ref.callee = children[start];
                ref.usage = Usage::call;
                refs.push_back(ref);
            }
        }
    }

    void imports(Context& ctx, TSNode node, std::vector<RawRef>& refs) const override {
        TSNode argument = child_by_field(node, "argument");
        if (ts_node_is_null(argument)) return;
        add_tree(ctx, node, argument, "", refs);
    }

private:
    static std::string join(std::string_view prefix, std::string_view path) {
        if (prefix.empty()) return std::string(path);
        if (path.empty()) return std::string(prefix);
        return std::string(prefix) + "::" + std::string(path);
    }

    static void import_ref(TSNode at, std::string_view path, std::vector<RawRef>& refs) {
        std::size_t sep = path.rfind("::");
        refs.push_back(import_reference(at,
            std::string(sep == std::string_view::npos ? path : path.substr(sep + 2)),
            std::string(sep == std::string_view::npos ? std::string_view{} : path.substr(0, sep))));
    }

    // One `use` tree: a path, `path as alias`, `path::*` or `path::{...}` (nested).
    void add_tree(Context& ctx, TSNode statement, TSNode tree, const std::string& prefix,
                  std::vector<RawRef>& refs) const {
        std::string_view kind = ts_node_type(tree);
        if (kind == "use_as_clause") {
            std::string module = join(prefix, fold_whitespace(node_text(ctx.text, child_by_field(tree, "path"))));
            TSNode alias = child_by_field(tree, "alias");
            import_ref(tree, module, refs);
            add_import(ctx, module, {}, std::string(node_text(ctx.text, alias)), statement);
        } else if (kind == "use_wildcard") {
            TSNode path = ts_node_named_child(tree, 0);
            std::string module = join(prefix, ts_node_is_null(path) ? "" : fold_whitespace(node_text(ctx.text, path)));
            add_import(ctx, module, {"*"}, std::nullopt, statement);
        } else if (kind == "scoped_use_list" || kind == "use_list") {
            std::string module = prefix;
            TSNode list = tree;
            if (kind == "scoped_use_list") {
                TSNode path = child_by_field(tree, "path");
                if (!ts_node_is_null(path)) module = join(prefix, fold_whitespace(node_text(ctx.text, path)));
                list = child_by_field(tree, "list");
            }
            std::vector<std::string> names;
            std::uint32_t count = ts_node_named_child_count(list);
            for (std::uint32_t i = 0; i < count; ++i) {
                TSNode item = ts_node_named_child(list, i);
                std::string_view item_kind = ts_node_type(item);
                if (item_kind == "identifier" || item_kind == "self" || item_kind == "crate" || item_kind == "super") {
                    std::string_view name = node_text(ctx.text, item);
                    names.emplace_back(name);
                    refs.push_back(import_reference(item, std::string(name), module));
                } else if (item_kind == "line_comment" || item_kind == "block_comment") {
                    continue;
                } else {
                    add_tree(ctx, statement, item, module, refs);
                }
            }
            if (!names.empty()) add_import(ctx, module, std::move(names), std::nullopt, statement);
        } else {
            std::string module = join(prefix, fold_whitespace(node_text(ctx.text, tree)));
            import_ref(tree, module, refs);
            add_import(ctx, module, {}, std::nullopt, statement);
        }
    }
};

}  // namespace

const LanguageRules& rust_rules() {
    static const RustRules rules;
    return rules;
}

}  // namespace orvane_kestrix::indexer::detail
