// Python: module names from paths, __all__ and underscore exports, body docstrings, imports.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "extract_internal.hpp"
#include "tree_walker.hpp"

namespace orvane_kestrix::indexer::detail {

namespace {

// @property, @cached_property, @x.setter, @x.deleter: the function is an attribute.
bool is_property(const Context& ctx, TSNode decorated) {
    std::uint32_t count = ts_node_named_child_count(decorated);
    for (std::uint32_t i = 0; i < count; ++i) {
        TSNode decorator = ts_node_named_child(decorated, i);
        if (!node_is(decorator, "decorator")) continue;
        std::string_view name = node_text(ctx.text, ts_node_named_child(decorator, 0));
        std::size_t dot = name.find_last_of('.');
        std::string_view last = dot == std::string_view::npos ? name : name.substr(dot + 1);
        if (last == "property" || last == "cached_property" || last == "setter" || last == "deleter" ||
            last == "getter") {
            return true;
        }
    }
    return false;
}

// The grammar's ids of the node types and fields the walker looks at.
struct PythonGrammar {
    TSSymbol module, expression_statement, assignment, class_definition, function_definition, block, parameters,
        argument_list, identifier, attribute, call, decorator, type, generic_type, import_statement,
        import_from_statement, comment;
    TSFieldId name, left, body, superclasses, parameters_field, object, attribute_field, function;

    PythonGrammar() {
        const TSLanguage* g = grammar(Language::python);
        module = grammar_symbol(g, "module");
        expression_statement = grammar_symbol(g, "expression_statement");
        assignment = grammar_symbol(g, "assignment");
        class_definition = grammar_symbol(g, "class_definition");
        function_definition = grammar_symbol(g, "function_definition");
        block = grammar_symbol(g, "block");
        parameters = grammar_symbol(g, "parameters");
        argument_list = grammar_symbol(g, "argument_list");
        identifier = grammar_symbol(g, "identifier");
        attribute = grammar_symbol(g, "attribute");
        call = grammar_symbol(g, "call");
        decorator = grammar_symbol(g, "decorator");
        type = grammar_symbol(g, "type");
        generic_type = grammar_symbol(g, "generic_type");
        import_statement = grammar_symbol(g, "import_statement");
        import_from_statement = grammar_symbol(g, "import_from_statement");
        comment = grammar_symbol(g, "comment");
        name = grammar_field(g, "name");
        left = grammar_field(g, "left");
        body = grammar_field(g, "body");
        superclasses = grammar_field(g, "superclasses");
        parameters_field = grammar_field(g, "parameters");
        object = grammar_field(g, "object");
        attribute_field = grammar_field(g, "attribute");
        function = grammar_field(g, "function");
    }
};

// Finds the definitions, references, comments and imports of a Python tree.
class PythonWalker final : public TreeWalker {
public:
    PythonWalker(const PythonGrammar& g, Context& ctx, Captures& out) : TreeWalker(ctx, out), g_(g) {}

private:
    // `x.name` with an identifier as its attribute: that identifier, else a null node.
    TSNode attribute_name(TSNode attribute) const {
        return field_of_type(attribute, g_.attribute_field, g_.identifier);
    }

    // Assignments to a plain name directly in statements of `statements` (a module or block).
    void name_assignments(TSNode statements, Kind kind) {
        for (TSNode statement : children(statements, g_.expression_statement)) {
            for (TSNode assignment : children(statement, g_.assignment)) {
                TSNode left = field(assignment, g_.left);
                if (is(left, g_.identifier)) definition(assignment, left, kind);
            }
        }
    }

    // `self.name = ...` in the body of __init__: instance attributes of the class.
    void instance_attributes(TSNode function) {
        TSNode parameters = field(function, g_.parameters_field);
        TSNode body = field(function, g_.body);
        if (!is(parameters, g_.parameters) || !is(body, g_.block) || ts_node_named_child_count(parameters) == 0) return;
        TSNode self = ts_node_named_child(parameters, 0);
        if (!is(self, g_.identifier)) return;
        const std::string_view self_name = text(self);
        for (TSNode statement : children(body, g_.expression_statement)) {
            for (TSNode assignment : children(statement, g_.assignment)) {
                TSNode left = field(assignment, g_.left);
                if (!is(left, g_.attribute)) continue;
                TSNode object = field(left, g_.object);
                TSNode name = attribute_name(left);
                if (is(object, g_.identifier) && !ts_node_is_null(name) && text(object) == self_name) {
                    definition(assignment, name, Kind::field, true);
                }
            }
        }
    }

    // Names and dotted names among the children of `node`, used as `usage`; anchored at
    // `anchor`, or at themselves when it is null.
    void name_uses(TSNode node, TSNode anchor, Usage usage, bool dotted = true) {
        for (TSNode child : children(node, g_.identifier)) reference(ts_node_is_null(anchor) ? child : anchor, child, {}, usage);
        if (!dotted) return;
        for (TSNode child : children(node, g_.attribute)) {
            TSNode name = attribute_name(child);
            if (!ts_node_is_null(name)) reference(ts_node_is_null(anchor) ? child : anchor, name, child, usage);
        }
    }

    void visit(TSNode node) override {
        const TSSymbol symbol = ts_node_symbol(node);
        if (symbol == g_.call) {
            TSNode function = field(node, g_.function);
            if (is(function, g_.identifier)) {
                reference(node, function, {}, Usage::call);
            } else if (is(function, g_.attribute)) {
                TSNode name = attribute_name(function);
                if (!ts_node_is_null(name)) reference(node, name, function, Usage::call);
            }
        } else if (symbol == g_.comment) {
            out_.comments.push_back(node);
        } else if (symbol == g_.type) {
            name_uses(node, {}, Usage::type);
        } else if (symbol == g_.generic_type) {
            name_uses(node, {}, Usage::type, false);
        } else if (symbol == g_.decorator) {
            name_uses(node, node, Usage::call);
        } else if (symbol == g_.function_definition) {
            TSNode name = field(node, g_.name);
            if (is(name, g_.identifier)) {
                definition(node, name, Kind::function);
                if (text(name) == "__init__") instance_attributes(node);
            }
        } else if (symbol == g_.class_definition) {
            TSNode name = field(node, g_.name);
            if (is(name, g_.identifier)) definition(node, name, Kind::class_);
            TSNode bases = field(node, g_.superclasses);
            if (is(bases, g_.argument_list)) name_uses(bases, {}, Usage::inherit);
            TSNode body = field(node, g_.body);
            if (is(body, g_.block)) name_assignments(body, Kind::field);
        } else if (symbol == g_.module) {
            name_assignments(node, Kind::variable);
        } else if (symbol == g_.import_statement || symbol == g_.import_from_statement) {
            out_.imports.push_back(node);
        }
    }

    const PythonGrammar& g_;
};

class PythonRules final : public LanguageRules {
public:
    void walk(Context& ctx, TSNode root, Captures& out) const override {
        static const PythonGrammar kGrammar;
        PythonWalker(kGrammar, ctx, out).walk(root);
    }

    // __all__ = [...] / (...) at module level names the exports exactly.
    void prepare(Context& ctx, const std::vector<RawDef>& defs) const override {
        for (const auto& def : defs) {
            if (def.kind != Kind::variable || ts_node_is_null(def.name_node)) continue;
            if (node_text(ctx.text, def.name_node) != "__all__") continue;
            TSNode value = child_by_field(def.node, "right");
            if (!node_is(value, "list") && !node_is(value, "tuple")) continue;
            ctx.has_export_list = true;
            std::uint32_t count = ts_node_named_child_count(value);
            for (std::uint32_t i = 0; i < count; ++i) {
                TSNode item = ts_node_named_child(value, i);
                if (!node_is(item, "string")) continue;
                TSNode content = child_of_type(item, "string_content");
                if (!ts_node_is_null(content)) ctx.export_names.push_back(node_text(ctx.text, content));
            }
        }
    }

    void definitions(Context& ctx, RawDef def, std::vector<RawDef>& out) const override {
        if (ts_node_is_null(def.name_node)) return;
        def.name = node_text(ctx.text, def.name_node);
        if (def.name.empty()) return;
        TSNode parent = ts_node_parent(def.node);
        if (def.kind == Kind::class_ || def.kind == Kind::function) {
            if (node_is(parent, "decorated_definition")) {
                def.outer = parent;
                if (def.kind == Kind::function && is_property(ctx, parent)) def.kind = Kind::property;
            }
        } else if (node_is(parent, "expression_statement")) {
            def.outer = parent;
        }
        if (def.kind == Kind::variable && is_upper_snake(def.name)) def.kind = Kind::constant;
        if (ctx.has_export_list) {
            def.own_export = std::find(ctx.export_names.begin(), ctx.export_names.end(), def.name) !=
                             ctx.export_names.end();
        } else {
            def.own_export = !def.name.starts_with('_');
        }
        out.push_back(std::move(def));
    }

    // "pkg/mod.py" -> "pkg.mod"; a package's __init__.py is the package itself.
    std::string module_name(const Context& ctx) const override {
        std::string module = dotted_path_module(ctx.path, true);
        if (module == "__init__") return {};
        if (module.ends_with(".__init__")) module.resize(module.size() - 9);
        return module;
    }

    bool member_export(const Context&, const RawDef& def) const override {
        return !def.name.starts_with('_');
    }

    std::optional<std::string> docstring(const Context& ctx, const RawDef& def,
                                         const std::vector<TSNode>& comments) const override {
        if (node_is(def.node, "class_definition") || node_is(def.node, "function_definition")) {
            TSNode body = child_by_field(def.node, "body");
            if (!ts_node_is_null(body) && ts_node_named_child_count(body) > 0) {
                TSNode first = ts_node_named_child(body, 0);
                if (node_is(first, "expression_statement") && ts_node_named_child_count(first) == 1) {
                    TSNode literal = ts_node_named_child(first, 0);
                    if (node_is(literal, "string")) {
                        std::string doc = clean_python_docstring(node_text(ctx.text, literal));
                        if (!doc.empty()) return doc;
                    }
                }
            }
        }
        return comment_block_above(ctx, ts_node_start_point(def.outer).row, comments);
    }

    std::optional<std::string> signature(const Context& ctx, const RawDef& def) const override {
        std::string head = head_signature(ctx.text, def.node, def.node);
        if (node_is(def.node, "class_definition") || node_is(def.node, "function_definition")) {
            while (!head.empty() && (head.back() == ':' || head.back() == ' ')) head.pop_back();
        }
        return head;
    }

    void imports(Context& ctx, TSNode node, std::vector<RawRef>& refs) const override {
        auto import_ref = [&](TSNode at, std::string name, std::string qualifier) {
            refs.push_back(import_reference(at, std::move(name), std::move(qualifier)));
        };
        auto split_last = [](std::string_view dotted) {
            std::size_t dot = dotted.find_last_of('.');
            if (dot == std::string_view::npos) return std::pair{std::string(), std::string(dotted)};
            return std::pair{std::string(dotted.substr(0, dot)), std::string(dotted.substr(dot + 1))};
        };

        if (node_is(node, "import_statement")) {
            // import a.b, c as d
            std::uint32_t count = ts_node_named_child_count(node);
            for (std::uint32_t i = 0; i < count; ++i) {
                TSNode item = ts_node_named_child(node, i);
                TSNode dotted = item;
                std::optional<std::string> alias;
                if (node_is(item, "aliased_import")) {
                    dotted = child_by_field(item, "name");
                    TSNode alias_node = child_by_field(item, "alias");
                    if (!ts_node_is_null(alias_node)) alias = std::string(node_text(ctx.text, alias_node));
                }
                if (!node_is(dotted, "dotted_name")) continue;
                std::string module = fold_whitespace(node_text(ctx.text, dotted));
                auto [qualifier, name] = split_last(module);
                import_ref(dotted, std::move(name), std::move(qualifier));
                add_import(ctx, std::move(module), {}, std::move(alias), dotted);
            }
            return;
        }

        // from .mod import a, b as c / from pkg import *
        TSNode module_node = child_by_field(node, "module_name");
        if (ts_node_is_null(module_node)) return;
        std::string module = fold_whitespace(node_text(ctx.text, module_node));
        std::vector<std::string> names;
        std::optional<std::string> alias;
        std::size_t aliased = 0;
        std::uint32_t count = ts_node_named_child_count(node);
        for (std::uint32_t i = 0; i < count; ++i) {
            TSNode item = ts_node_named_child(node, i);
            if (ts_node_eq(item, module_node)) continue;
            if (node_is(item, "wildcard_import")) {
                names.emplace_back("*");
                continue;
            }
            TSNode dotted = item;
            if (node_is(item, "aliased_import")) {
                dotted = child_by_field(item, "name");
                TSNode alias_node = child_by_field(item, "alias");
                if (!ts_node_is_null(alias_node)) {
                    alias = std::string(node_text(ctx.text, alias_node));
                    ++aliased;
                }
            }
            if (!node_is(dotted, "dotted_name")) continue;
            std::string name = fold_whitespace(node_text(ctx.text, dotted));
            import_ref(dotted, name, module);
            names.push_back(std::move(name));
        }
        // One alias can only be told apart when one name is imported.
        if (names.size() != 1 || aliased != 1) alias.reset();
        add_import(ctx, std::move(module), std::move(names), std::move(alias), node);
    }
};

}  // namespace

const LanguageRules& python_rules() {
    static const PythonRules rules;
    return rules;
}

}  // namespace orvane_kestrix::indexer::detail
