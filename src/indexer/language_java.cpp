// Java: package-qualified names, `public` exports (interface members are public), constants
// (`static final` fields), imports.

#include <string>
#include <string_view>
#include <vector>

#include "extract_internal.hpp"
#include "tree_walker.hpp"

namespace orvane_kestrix::indexer::detail {

namespace {

bool has_modifier(const Context& ctx, TSNode declaration, std::string_view word) {
    TSNode modifiers = child_of_type(declaration, "modifiers");
    if (ts_node_is_null(modifiers)) return false;
    std::uint32_t count = ts_node_child_count(modifiers);
    for (std::uint32_t i = 0; i < count; ++i) {
        TSNode child = ts_node_child(modifiers, i);
        if (!ts_node_is_named(child) && node_text(ctx.text, child) == word) return true;
    }
    return false;
}

// The ids of the node types and fields the walker looks at.
struct JavaGrammar {
    TSSymbol class_declaration, record_declaration, interface_declaration, annotation_type_declaration,
        enum_declaration, method_declaration, field_declaration, constant_declaration, variable_declarator, identifier,
        package_declaration, scoped_identifier, method_invocation, object_creation_expression, type_identifier,
        generic_type, scoped_type_identifier, superclass, super_interfaces, extends_interfaces, type_list,
        marker_annotation, annotation, import_declaration, line_comment, block_comment;
    TSFieldId name, declarator, object, type;

    JavaGrammar() {
        const TSLanguage* g = grammar(Language::java);
        class_declaration = grammar_symbol(g, "class_declaration");
        record_declaration = grammar_symbol(g, "record_declaration");
        interface_declaration = grammar_symbol(g, "interface_declaration");
        annotation_type_declaration = grammar_symbol(g, "annotation_type_declaration");
        enum_declaration = grammar_symbol(g, "enum_declaration");
        method_declaration = grammar_symbol(g, "method_declaration");
        field_declaration = grammar_symbol(g, "field_declaration");
        constant_declaration = grammar_symbol(g, "constant_declaration");
        variable_declarator = grammar_symbol(g, "variable_declarator");
        identifier = grammar_symbol(g, "identifier");
        package_declaration = grammar_symbol(g, "package_declaration");
        scoped_identifier = grammar_symbol(g, "scoped_identifier");
        method_invocation = grammar_symbol(g, "method_invocation");
        object_creation_expression = grammar_symbol(g, "object_creation_expression");
        type_identifier = grammar_symbol(g, "type_identifier");
        generic_type = grammar_symbol(g, "generic_type");
        scoped_type_identifier = grammar_symbol(g, "scoped_type_identifier");
        superclass = grammar_symbol(g, "superclass");
        super_interfaces = grammar_symbol(g, "super_interfaces");
        extends_interfaces = grammar_symbol(g, "extends_interfaces");
        type_list = grammar_symbol(g, "type_list");
        marker_annotation = grammar_symbol(g, "marker_annotation");
        annotation = grammar_symbol(g, "annotation");
        import_declaration = grammar_symbol(g, "import_declaration");
        line_comment = grammar_symbol(g, "line_comment");
        block_comment = grammar_symbol(g, "block_comment");
        name = grammar_field(g, "name");
        declarator = grammar_field(g, "declarator");
        object = grammar_field(g, "object");
        type = grammar_field(g, "type");
    }
};

// Finds the definitions, references, comments, package and imports of a Java tree.
class JavaWalker final : public TreeWalker {
public:
    JavaWalker(const JavaGrammar& g, Context& ctx, Captures& out) : TreeWalker(ctx, out), g_(g) {}

private:
    void named(TSNode node, Kind kind) {
        TSNode name = field(node, g_.name);
        if (is(name, g_.identifier)) definition(node, name, kind);
    }

    // Fields and constants: one definition per declarator.
    void declarators(TSNode node, Kind kind) {
        for (TSNode declarator : field_children(node, g_.declarator)) {
            if (!is(declarator, g_.variable_declarator)) continue;
            TSNode name = field(declarator, g_.name);
            if (is(name, g_.identifier)) definition(node, name, kind);
        }
    }

    // Base types among the children of `node`: `T` or `T<...>`.
    void bases(TSNode node) {
        for (TSNode base : children(node, g_.type_identifier)) reference(base, base, {}, Usage::inherit);
        for (TSNode base : children(node, g_.generic_type)) {
            for (TSNode name : children(base, g_.type_identifier)) reference(base, name, {}, Usage::inherit);
        }
    }

    void creation(TSNode node) {
        TSNode type = field(node, g_.type);
        if (is(type, g_.type_identifier)) {
            reference(node, type, {}, Usage::call);
        } else if (is(type, g_.generic_type)) {
            for (TSNode name : children(type, g_.type_identifier)) reference(node, name, {}, Usage::call);
        } else if (is(type, g_.scoped_type_identifier)) {
            // `new a.b.C()`: the last name.
            const std::uint32_t count = ts_node_named_child_count(type);
            TSNode last = count == 0 ? TSNode{} : ts_node_named_child(type, count - 1);
            if (is(last, g_.type_identifier)) reference(node, last, type, Usage::call);
        }
    }

    void visit(TSNode node) override {
        const TSSymbol symbol = ts_node_symbol(node);
        if (symbol == g_.identifier) {
            // The commonest node, of no interest.
        } else if (symbol == g_.type_identifier) {
            reference(node, node, {}, Usage::type);
        } else if (symbol == g_.method_invocation) {
            TSNode name = field(node, g_.name);
            if (!is(name, g_.identifier)) return;
            TSNode object = field(node, g_.object);
            if (ts_node_is_null(object)) {
                reference(node, name, {}, Usage::call);
            } else if (ts_node_is_named(object)) {
                reference(node, name, node, Usage::call);
            }
        } else if (symbol == g_.line_comment || symbol == g_.block_comment) {
            out_.comments.push_back(node);
        } else if (symbol == g_.object_creation_expression) {
            creation(node);
        } else if (symbol == g_.marker_annotation || symbol == g_.annotation) {
            TSNode name = field(node, g_.name);
            if (is(name, g_.identifier)) reference(node, name, {}, Usage::type);
        } else if (symbol == g_.class_declaration || symbol == g_.record_declaration) {
            named(node, Kind::class_);
        } else if (symbol == g_.interface_declaration || symbol == g_.annotation_type_declaration) {
            named(node, Kind::interface);
        } else if (symbol == g_.enum_declaration) {
            named(node, Kind::enum_);
        } else if (symbol == g_.method_declaration) {
            named(node, Kind::method);
        } else if (symbol == g_.field_declaration) {
            declarators(node, Kind::field);
        } else if (symbol == g_.constant_declaration) {
            declarators(node, Kind::constant);
        } else if (symbol == g_.superclass) {
            bases(node);
        } else if (symbol == g_.super_interfaces || symbol == g_.extends_interfaces) {
            for (TSNode list : children(node, g_.type_list)) bases(list);
        } else if (symbol == g_.package_declaration) {
            for (TSNode child : all_children(node)) {
                if (is(child, g_.identifier) || is(child, g_.scoped_identifier)) ctx_.package = text(child);
            }
        } else if (symbol == g_.import_declaration) {
            out_.imports.push_back(node);
        }
    }

    const JavaGrammar& g_;
};

class JavaRules final : public LanguageRules {
public:
    void walk(Context& ctx, TSNode root, Captures& out) const override {
        static const JavaGrammar kGrammar;
        JavaWalker(kGrammar, ctx, out).walk(root);
    }

    void definitions(Context& ctx, RawDef def, std::vector<RawDef>& out) const override {
        if (ts_node_is_null(def.name_node)) return;
        def.name = node_text(ctx.text, def.name_node);
        if (def.name.empty()) return;
        if (def.kind == Kind::field && has_modifier(ctx, def.node, "static") && has_modifier(ctx, def.node, "final")) {
            def.kind = Kind::constant;
        }
        TSNode body = ts_node_parent(def.node);
        bool in_interface = node_is(body, "interface_body") || node_is(body, "annotation_type_body");
        def.own_export = has_modifier(ctx, def.node, "public") ||
                         (in_interface && !has_modifier(ctx, def.node, "private"));
        out.push_back(std::move(def));
    }

    std::string module_name(const Context& ctx) const override {
        return fold_whitespace(ctx.package);
    }

    std::optional<std::string> signature(const Context& ctx, const RawDef& def) const override {
        std::string head = head_signature(ctx.text, def.node, def.node);
        while (!head.empty() && (head.back() == ';' || head.back() == ' ')) head.pop_back();
        return head;
    }

    // import a.b.C; import static a.b.C.m; import a.b.*;
    void imports(Context& ctx, TSNode node, std::vector<RawRef>& refs) const override {
        TSNode path{};
        bool wildcard = false;
        std::uint32_t count = ts_node_named_child_count(node);
        for (std::uint32_t i = 0; i < count; ++i) {
            TSNode child = ts_node_named_child(node, i);
            if (node_is(child, "scoped_identifier") || node_is(child, "identifier")) path = child;
            else if (node_is(child, "asterisk")) wildcard = true;
        }
        if (ts_node_is_null(path)) return;
        std::string module = fold_whitespace(node_text(ctx.text, path));
        if (wildcard) {
            add_import(ctx, std::move(module), {"*"}, std::nullopt, node);
            return;
        }
        std::size_t dot = module.find_last_of('.');
        refs.push_back(import_reference(path,
            dot == std::string::npos ? module : module.substr(dot + 1),
            dot == std::string::npos ? std::string() : module.substr(0, dot)));
        add_import(ctx, std::move(module), {}, std::nullopt, node);
    }
};

}  // namespace

const LanguageRules& java_rules() {
    static const JavaRules rules;
    return rules;
}

}  // namespace orvane_kestrix::indexer::detail
