// Python: module names from paths, __all__ and underscore exports, body docstrings, imports.

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "extract_internal.hpp"

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
        const TSLanguage* language = grammar(Language::python);
        auto symbol = [&](std::string_view type) {
            const TSSymbol id = ts_language_symbol_for_name(language, type.data(), static_cast<std::uint32_t>(type.size()), true);
            if (id == 0) throw std::logic_error("python grammar has no node type " + std::string(type));
            return id;
        };
        auto field = [&](std::string_view field_name) {
            const TSFieldId id = ts_language_field_id_for_name(language, field_name.data(), static_cast<std::uint32_t>(field_name.size()));
            if (id == 0) throw std::logic_error("python grammar has no field " + std::string(field_name));
            return id;
        };
        module = symbol("module");
        expression_statement = symbol("expression_statement");
        assignment = symbol("assignment");
        class_definition = symbol("class_definition");
        function_definition = symbol("function_definition");
        block = symbol("block");
        parameters = symbol("parameters");
        argument_list = symbol("argument_list");
        identifier = symbol("identifier");
        attribute = symbol("attribute");
        call = symbol("call");
        decorator = symbol("decorator");
        type = symbol("type");
        generic_type = symbol("generic_type");
        import_statement = symbol("import_statement");
        import_from_statement = symbol("import_from_statement");
        comment = symbol("comment");
        name = field("name");
        left = field("left");
        body = field("body");
        superclasses = field("superclasses");
        parameters_field = field("parameters");
        object = field("object");
        attribute_field = field("attribute");
        function = field("function");
    }
};

// Finds what queries/python.scm captures, pattern by pattern, in one walk of the tree.
class PythonWalker {
public:
    PythonWalker(const PythonGrammar& g, std::string_view text, Captures& out) : g_(g), text_(text), out_(out) {}

    void walk(TSNode root) {
        TSTreeCursor cursor = ts_tree_cursor_new(root);
        children_ = ts_tree_cursor_new(root);
        for (;;) {
            visit(ts_tree_cursor_current_node(&cursor));
            if (ts_tree_cursor_goto_first_child(&cursor)) continue;
            while (!ts_tree_cursor_goto_next_sibling(&cursor)) {
                if (!ts_tree_cursor_goto_parent(&cursor)) {
                    ts_tree_cursor_delete(&children_);
                    ts_tree_cursor_delete(&cursor);
                    return;
                }
            }
        }
    }

private:
    bool is(TSNode node, TSSymbol symbol) const { return !ts_node_is_null(node) && ts_node_symbol(node) == symbol; }

    // Calls `f` for each direct child of `node` of type `symbol`. Collected first: `f` may
    // iterate children itself.
    template <class F>
    void each_child(TSNode node, TSSymbol symbol, F&& f) {
        std::vector<TSNode> found;
        ts_tree_cursor_reset(&children_, node);
        if (ts_tree_cursor_goto_first_child(&children_)) {
            do {
                TSNode child = ts_tree_cursor_current_node(&children_);
                if (ts_node_symbol(child) == symbol) found.push_back(child);
            } while (ts_tree_cursor_goto_next_sibling(&children_));
        }
        for (TSNode child : found) f(child);
    }

    void definition(TSNode node, TSNode name, Kind kind, bool hoisted = false) {
        RawDef d;
        d.node = node;
        d.outer = node;
        d.name_node = name;
        d.kind = kind;
        d.hoisted = hoisted;
        out_.defs.push_back(std::move(d));
    }

    void reference(TSNode anchor, TSNode name, TSNode callee, Usage usage) {
        RawRef r;
        r.anchor = anchor;
        r.name_node = name;
        r.callee = callee;
        r.usage = usage;
        out_.refs.push_back(std::move(r));
    }

    // `x.name` with an identifier as its attribute: that identifier, else a null node.
    TSNode attribute_name(TSNode attribute) const {
        TSNode name = ts_node_child_by_field_id(attribute, g_.attribute_field);
        return is(name, g_.identifier) ? name : TSNode{};
    }

    // Assignments to a plain name directly in statements of `statements` (a module or block).
    void name_assignments(TSNode statements, Kind kind) {
        each_child(statements, g_.expression_statement, [&](TSNode statement) {
            each_child(statement, g_.assignment, [&](TSNode assignment) {
                TSNode left = ts_node_child_by_field_id(assignment, g_.left);
                if (is(left, g_.identifier)) definition(assignment, left, kind);
            });
        });
    }

    // `self.name = ...` in the body of __init__: instance attributes of the class.
    void instance_attributes(TSNode function) {
        TSNode parameters = ts_node_child_by_field_id(function, g_.parameters_field);
        TSNode body = ts_node_child_by_field_id(function, g_.body);
        if (!is(parameters, g_.parameters) || !is(body, g_.block) || ts_node_named_child_count(parameters) == 0) return;
        TSNode self = ts_node_named_child(parameters, 0);
        if (!is(self, g_.identifier)) return;
        const std::string_view self_name = node_text(text_, self);
        each_child(body, g_.expression_statement, [&](TSNode statement) {
            each_child(statement, g_.assignment, [&](TSNode assignment) {
                TSNode left = ts_node_child_by_field_id(assignment, g_.left);
                if (!is(left, g_.attribute)) return;
                TSNode object = ts_node_child_by_field_id(left, g_.object);
                TSNode name = attribute_name(left);
                if (is(object, g_.identifier) && !ts_node_is_null(name) && node_text(text_, object) == self_name) {
                    definition(assignment, name, Kind::field, true);
                }
            });
        });
    }

    // A name or dotted name used as a base class, type or decorator.
    void name_use(TSNode node, TSNode anchor, Usage usage) {
        if (is(node, g_.identifier)) {
            reference(ts_node_is_null(anchor) ? node : anchor, node, {}, usage);
        } else if (is(node, g_.attribute)) {
            TSNode name = attribute_name(node);
            if (!ts_node_is_null(name)) reference(ts_node_is_null(anchor) ? node : anchor, name, node, usage);
        }
    }

    void visit(TSNode node) {
        const TSSymbol symbol = ts_node_symbol(node);
        if (symbol == g_.call) {
            TSNode function = ts_node_child_by_field_id(node, g_.function);
            if (is(function, g_.identifier)) {
                reference(node, function, {}, Usage::call);
            } else if (is(function, g_.attribute)) {
                TSNode name = attribute_name(function);
                if (!ts_node_is_null(name)) reference(node, name, function, Usage::call);
            }
        } else if (symbol == g_.comment) {
            out_.comments.push_back(node);
        } else if (symbol == g_.type) {
            each_child(node, g_.identifier, [&](TSNode child) { name_use(child, {}, Usage::type); });
            each_child(node, g_.attribute, [&](TSNode child) { name_use(child, {}, Usage::type); });
        } else if (symbol == g_.generic_type) {
            each_child(node, g_.identifier, [&](TSNode child) { name_use(child, {}, Usage::type); });
        } else if (symbol == g_.decorator) {
            each_child(node, g_.identifier, [&](TSNode child) { name_use(child, node, Usage::call); });
            each_child(node, g_.attribute, [&](TSNode child) { name_use(child, node, Usage::call); });
        } else if (symbol == g_.function_definition) {
            TSNode name = ts_node_child_by_field_id(node, g_.name);
            if (is(name, g_.identifier)) {
                definition(node, name, Kind::function);
                if (node_text(text_, name) == "__init__") instance_attributes(node);
            }
        } else if (symbol == g_.class_definition) {
            TSNode name = ts_node_child_by_field_id(node, g_.name);
            if (is(name, g_.identifier)) definition(node, name, Kind::class_);
            TSNode bases = ts_node_child_by_field_id(node, g_.superclasses);
            if (is(bases, g_.argument_list)) {
                each_child(bases, g_.identifier, [&](TSNode child) { name_use(child, {}, Usage::inherit); });
                each_child(bases, g_.attribute, [&](TSNode child) { name_use(child, {}, Usage::inherit); });
            }
            TSNode body = ts_node_child_by_field_id(node, g_.body);
            if (is(body, g_.block)) name_assignments(body, Kind::field);
        } else if (symbol == g_.module) {
            name_assignments(node, Kind::variable);
        } else if (symbol == g_.import_statement || symbol == g_.import_from_statement) {
            out_.imports.push_back(node);
        }
    }

    const PythonGrammar& g_;
    std::string_view text_;
    Captures& out_;
    TSTreeCursor children_{};
};

class PythonRules final : public LanguageRules {
public:
    bool walk(const Context& ctx, TSNode root, Captures& out) const override {
        static const PythonGrammar kGrammar;
        PythonWalker(kGrammar, ctx.text, out).walk(root);
        return true;
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
