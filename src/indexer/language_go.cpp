// Go: methods qualified by their receiver type, capitalised exports, package names, imports.

#include <string>
#include <string_view>
#include <vector>

#include "extract_internal.hpp"
#include "tree_walker.hpp"

namespace orvane_kestrix::indexer::detail {

namespace {

// The receiver's type name: `(p Point)`, `(p *Point)`, `(g *Grid[T])` all give the type.
TSNode receiver_type(TSNode method) {
    TSNode receiver = child_by_field(method, "receiver");
    TSNode parameter = child_of_type(receiver, "parameter_declaration");
    TSNode type = child_by_field(parameter, "type");
    for (int guard = 0; guard < 8 && !ts_node_is_null(type); ++guard) {
        std::string_view kind = ts_node_type(type);
        if (kind == "type_identifier") return type;
        if (kind == "pointer_type" || kind == "parenthesized_type") type = ts_node_named_child(type, 0);
        else if (kind == "generic_type") type = child_by_field(type, "type");
        else break;
    }
    return TSNode{};
}

std::string_view unquote(std::string_view s) {
    if (s.size() >= 2 && (s.front() == '"' || s.front() == '`') && s.back() == s.front()) return s.substr(1, s.size() - 2);
    return s;
}

// The ids of the node types and fields the walker looks at.
struct GoGrammar {
    TSSymbol function_declaration, method_declaration, type_spec, type_alias, struct_type, interface_type,
        field_declaration, method_elem, source_file, const_declaration, const_spec, var_declaration, var_spec,
        var_spec_list, package_clause, package_identifier, call_expression, selector_expression, identifier,
        field_identifier, type_identifier, qualified_type, pointer_type, type_elem, import_declaration, comment;
    TSFieldId name, type, function, field;

    GoGrammar() {
        const TSLanguage* g = grammar(Language::go);
        function_declaration = grammar_symbol(g, "function_declaration");
        method_declaration = grammar_symbol(g, "method_declaration");
        type_spec = grammar_symbol(g, "type_spec");
        type_alias = grammar_symbol(g, "type_alias");
        struct_type = grammar_symbol(g, "struct_type");
        interface_type = grammar_symbol(g, "interface_type");
        field_declaration = grammar_symbol(g, "field_declaration");
        method_elem = grammar_symbol(g, "method_elem");
        source_file = grammar_symbol(g, "source_file");
        const_declaration = grammar_symbol(g, "const_declaration");
        const_spec = grammar_symbol(g, "const_spec");
        var_declaration = grammar_symbol(g, "var_declaration");
        var_spec = grammar_symbol(g, "var_spec");
        var_spec_list = grammar_symbol(g, "var_spec_list");
        package_clause = grammar_symbol(g, "package_clause");
        package_identifier = grammar_symbol(g, "package_identifier");
        call_expression = grammar_symbol(g, "call_expression");
        selector_expression = grammar_symbol(g, "selector_expression");
        identifier = grammar_symbol(g, "identifier");
        field_identifier = grammar_symbol(g, "field_identifier");
        type_identifier = grammar_symbol(g, "type_identifier");
        qualified_type = grammar_symbol(g, "qualified_type");
        pointer_type = grammar_symbol(g, "pointer_type");
        type_elem = grammar_symbol(g, "type_elem");
        import_declaration = grammar_symbol(g, "import_declaration");
        comment = grammar_symbol(g, "comment");
        name = grammar_field(g, "name");
        type = grammar_field(g, "type");
        function = grammar_field(g, "function");
        field = grammar_field(g, "field");
    }
};

// Finds the definitions, references, comments, package and imports of a Go tree.
class GoWalker final : public TreeWalker {
public:
    GoWalker(const GoGrammar& g, Context& ctx, Captures& out) : TreeWalker(ctx, out), g_(g) {}

private:
    // Every name of `node` (a declaration may name several) of type `type`, defined as `kind`.
    void names(TSNode node, TSSymbol type, Kind kind) {
        for (TSNode name : field_children(node, g_.name)) {
            if (is(name, type)) definition(node, name, kind);
        }
    }

    // Top-level `const` and `var` declarations.
    void source_file(TSNode node) {
        for (TSNode declaration : children(node, g_.const_declaration)) {
            for (TSNode spec : children(declaration, g_.const_spec)) {
                // The names are the direct identifiers (the commas between them share the name field).
                for (TSNode name : children(spec, g_.identifier)) definition(spec, name, Kind::constant);
            }
        }
        for (TSNode declaration : children(node, g_.var_declaration)) {
            for (TSNode spec : children(declaration, g_.var_spec)) names(spec, g_.identifier, Kind::variable);
            for (TSNode list : children(declaration, g_.var_spec_list)) {
                for (TSNode spec : children(list, g_.var_spec)) names(spec, g_.identifier, Kind::variable);
            }
        }
    }

    // A struct field: named fields are definitions, embedded types are inherited.
    void field_declaration(TSNode node) {
        names(node, g_.field_identifier, Kind::field);
        if (!ts_node_is_null(field(node, g_.name))) return;
        for (TSNode type : field_children(node, g_.type)) {
            if (is(type, g_.type_identifier)) {
                reference(node, type, {}, Usage::inherit);
            } else if (is(type, g_.qualified_type)) {
                TSNode name = field(type, g_.name);
                if (is(name, g_.type_identifier)) reference(node, name, type, Usage::inherit);
            } else if (is(type, g_.pointer_type)) {
                // `*T` or `*pkg.T`: the pointer's own child.
                for (TSNode inner : children(type, g_.type_identifier)) reference(node, inner, {}, Usage::inherit);
                for (TSNode inner : children(type, g_.qualified_type)) {
                    TSNode name = field(inner, g_.name);
                    if (is(name, g_.type_identifier)) reference(node, name, type, Usage::inherit);
                }
            }
        }
    }

    void visit(TSNode node) override {
        const TSSymbol symbol = ts_node_symbol(node);
        if (symbol == g_.identifier || symbol == g_.field_identifier) {
            // The commonest nodes, none of them of interest.
        } else if (symbol == g_.type_identifier) {
            reference(node, node, {}, Usage::type);
        } else if (symbol == g_.call_expression) {
            TSNode function = field(node, g_.function);
            if (is(function, g_.identifier)) {
                reference(node, function, {}, Usage::call);
            } else if (is(function, g_.selector_expression)) {
                TSNode name = field(function, g_.field);
                if (is(name, g_.field_identifier)) reference(node, name, function, Usage::call);
            }
        } else if (symbol == g_.qualified_type) {
            TSNode name = field(node, g_.name);
            if (is(name, g_.type_identifier)) reference(node, name, node, Usage::type);
        } else if (symbol == g_.comment) {
            out_.comments.push_back(node);
        } else if (symbol == g_.field_declaration) {
            field_declaration(node);
        } else if (symbol == g_.function_declaration) {
            names(node, g_.identifier, Kind::function);
        } else if (symbol == g_.method_declaration) {
            names(node, g_.field_identifier, Kind::method);
        } else if (symbol == g_.method_elem) {
            names(node, g_.field_identifier, Kind::method);
        } else if (symbol == g_.type_spec) {
            for (TSNode name : field_children(node, g_.name)) {
                if (!is(name, g_.type_identifier)) continue;
                for (TSNode type : field_children(node, g_.type)) {
                    if (is(type, g_.struct_type)) definition(node, name, Kind::struct_);
                    if (is(type, g_.interface_type)) definition(node, name, Kind::interface);
                }
                definition(node, name, Kind::type);
            }
        } else if (symbol == g_.type_alias) {
            names(node, g_.type_identifier, Kind::type);
        } else if (symbol == g_.interface_type) {
            for (TSNode element : children(node, g_.type_elem)) {
                for (TSNode base : children(element, g_.type_identifier)) reference(base, base, {}, Usage::inherit);
            }
        } else if (symbol == g_.source_file) {
            source_file(node);
        } else if (symbol == g_.package_clause) {
            for (TSNode package : children(node, g_.package_identifier)) ctx_.package = text(package);
        } else if (symbol == g_.import_declaration) {
            out_.imports.push_back(node);
        }
    }

    const GoGrammar& g_;
};

class GoRules final : public LanguageRules {
public:
    void walk(Context& ctx, TSNode root, Captures& out) const override {
        static const GoGrammar kGrammar;
        GoWalker(kGrammar, ctx, out).walk(root);
    }

    void definitions(Context& ctx, RawDef def, std::vector<RawDef>& out) const override {
        if (ts_node_is_null(def.name_node)) return;
        def.name = node_text(ctx.text, def.name_node);
        if (def.name.empty()) return;
        std::string_view type = ts_node_type(def.node);
        if (type == "method_declaration") {
            TSNode receiver = receiver_type(def.node);
            if (!ts_node_is_null(receiver)) {
                def.scope = std::string(node_text(ctx.text, receiver));
                def.detached_scope = true;
            }
        } else if (type == "type_spec" || type == "type_alias" || type == "const_spec" || type == "var_spec") {
            // A declaration of one spec is the definition: its doc comment sits above it.
            TSNode declaration = ts_node_parent(def.node);
            if (node_is(declaration, "var_spec_list")) declaration = TSNode{};
            if (!ts_node_is_null(declaration) && ts_node_named_child_count(declaration) == 1) def.outer = declaration;
        }
        def.own_export = starts_with_upper(def.name);
        out.push_back(std::move(def));
    }

    std::string module_name(const Context& ctx) const override {
        if (!ctx.package.empty()) return std::string(ctx.package);
        std::string_view path = ctx.path;
        std::size_t slash = path.find_last_of('/');
        if (slash == std::string_view::npos) return {};
        path = path.substr(0, slash);
        slash = path.find_last_of('/');
        return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
    }

    bool member_export(const Context&, const RawDef& def) const override {
        return starts_with_upper(def.name);
    }

    std::optional<std::string> signature(const Context& ctx, const RawDef& def) const override {
        std::string head = head_signature(ctx.text, def.outer, def.outer);
        if (def.kind == Kind::interface) {
            // Interfaces have no body node: stop at the method list.
            std::size_t brace = head.find(" {");
            if (brace != std::string::npos) head.resize(brace);
        }
        return head;
    }

    void imports(Context& ctx, TSNode node, std::vector<RawRef>& refs) const override {
        auto add_spec = [&](TSNode spec) {
            TSNode path = child_by_field(spec, "path");
            if (ts_node_is_null(path)) return;
            std::string module(unquote(node_text(ctx.text, path)));
            std::optional<std::string> alias;
            TSNode name = child_by_field(spec, "name");
            if (!ts_node_is_null(name)) alias = std::string(node_text(ctx.text, name));
            std::size_t slash = module.find_last_of('/');
            refs.push_back(import_reference(path,
                slash == std::string::npos ? module : module.substr(slash + 1),
                slash == std::string::npos ? std::string() : module.substr(0, slash)));
            add_import(ctx, std::move(module), {}, std::move(alias), spec);
        };
        std::uint32_t count = ts_node_named_child_count(node);
        for (std::uint32_t i = 0; i < count; ++i) {
            TSNode child = ts_node_named_child(node, i);
            if (node_is(child, "import_spec")) {
                add_spec(child);
            } else if (node_is(child, "import_spec_list")) {
                std::uint32_t specs = ts_node_named_child_count(child);
                for (std::uint32_t k = 0; k < specs; ++k) {
                    TSNode spec = ts_node_named_child(child, k);
                    if (node_is(spec, "import_spec")) add_spec(spec);
                }
            }
        }
    }
};

}  // namespace

const LanguageRules& go_rules() {
    static const GoRules rules;
    return rules;
}

}  // namespace orvane_kestrix::indexer::detail
