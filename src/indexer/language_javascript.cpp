// JavaScript, TypeScript and TSX: exports (`export`, export clauses, module.exports), member
// visibility, ES imports, re-exports and require().

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "extract_internal.hpp"

namespace orvane_kestrix::indexer::detail {

namespace {

std::string_view unquote(std::string_view s) {
    if (s.size() >= 2 && (s.front() == '"' || s.front() == '\'' || s.front() == '`') && s.back() == s.front()) {
        return s.substr(1, s.size() - 2);
    }
    return s;
}

bool has_private_modifier(const Context& ctx, TSNode node) {
    std::uint32_t count = ts_node_named_child_count(node);
    for (std::uint32_t i = 0; i < count; ++i) {
        TSNode child = ts_node_named_child(node, i);
        if (node_is(child, "accessibility_modifier")) {
            std::string_view modifier = node_text(ctx.text, child);
            return modifier == "private" || modifier == "protected";
        }
    }
    return false;
}

class JavaScriptRules final : public LanguageRules {
public:
    void definitions(Context& ctx, RawDef def, std::vector<RawDef>& out) const override {
        if (ts_node_is_null(def.name_node)) return;
        def.name = node_text(ctx.text, def.name_node);
        if (def.kind == Kind::module) def.name = unquote(def.name);
        if (def.name.empty()) return;

        TSNode node = def.node;
        std::string_view type = ts_node_type(node);
        bool exported = false;
        if (type == "variable_declarator") {
            // `const x = require("x")` is an import, not a definition.
            TSNode value = child_by_field(node, "value");
            if (node_is(value, "call_expression") &&
                node_text(ctx.text, child_by_field(value, "function")) == "require") {
                return;
            }
            // The declaration is the definition when it declares this name alone.
            TSNode declaration = ts_node_parent(node);
            if (ts_node_named_child_count(declaration) == 1) def.outer = declaration;
            TSNode above = ts_node_parent(declaration);
            if (node_is(above, "export_statement")) {
                exported = true;
                if (ts_node_eq(def.outer, declaration)) def.outer = above;
            }
        } else if (type == "assignment_expression") {
            // exports.f = function () {} / module.exports.f = ...
            TSNode statement = ts_node_parent(node);
            if (!ts_node_is_null(statement)) def.outer = statement;
            TSNode left = child_by_field(node, "left");
            std::string_view object = node_text(ctx.text, child_by_field(left, "object"));
            exported = object == "exports" || object == "module.exports";
        } else if (type == "method_definition") {
            // Accessors (`get x()`, `set x(v)`) are properties of their class.
            std::uint32_t count = ts_node_child_count(node);
            for (std::uint32_t i = 0; i < count; ++i) {
                TSNode child = ts_node_child(node, i);
                if (ts_node_eq(child, def.name_node)) break;
                std::string_view word = ts_node_type(child);
                if (word == "get" || word == "set") def.kind = Kind::property;
            }
        } else {
            // Declarations: `export`, `export default`, `declare`.
            TSNode above = ts_node_parent(node);
            while (node_is(above, "ambient_declaration") || node_is(above, "export_statement")) {
                if (node_is(above, "export_statement")) exported = true;
                def.outer = above;
                above = ts_node_parent(above);
            }
        }
        if (!exported && !ctx.export_names.empty()) {
            exported = std::find(ctx.export_names.begin(), ctx.export_names.end(), def.name) != ctx.export_names.end();
        }
        def.own_export = exported;
        // `type T = { a: string }`: the members are T's.
        if (def.kind == Kind::type && node_is(child_by_field(def.node, "value"), "object_type")) def.forms_scope = true;
        out.push_back(std::move(def));
    }

    // "web/src/api.ts" -> "web.src.api"; declaration files drop their ".d".
    std::string module_name(const Context& ctx) const override {
        std::string module = dotted_path_module(ctx.path, false);
        if (module.ends_with(".d")) module.resize(module.size() - 2);
        return module;
    }

    // Class and interface members: public unless private; declarations in namespaces: `export`.
    bool member_export(const Context& ctx, const RawDef& def) const override {
        static constexpr std::string_view kMembers[] = {
            "method_definition", "field_definition", "public_field_definition", "property_signature",
            "method_signature", "abstract_method_signature",
        };
        std::string_view type = ts_node_type(def.node);
        if (std::find(std::begin(kMembers), std::end(kMembers), type) == std::end(kMembers)) return def.own_export;
        if (def.name.starts_with('#')) return false;
        return !has_private_modifier(ctx, def.node);
    }

    std::optional<std::string> signature(const Context& ctx, const RawDef& def) const override {
        TSNode from = def.node;
        if (node_is(def.node, "variable_declarator") && !ts_node_eq(def.outer, def.node)) {
            from = ts_node_parent(def.node);
        }
        // An arrow function's expression body is not part of its head.
        TSNode value = child_by_field(def.node, "value");
        TSNode body = child_by_field(value, "body");
        std::string head;
        if (node_is(value, "arrow_function") && !ts_node_is_null(body) && !node_is(body, "statement_block")) {
            std::uint32_t start = ts_node_start_byte(from);
            head = fold_whitespace(utf8_prefix(ctx.text.substr(start, ts_node_start_byte(body) - start), 1200));
            if (head.size() > 300) head = std::string(utf8_prefix(head, 300)) + " ...";
        } else {
            head = head_signature(ctx.text, from, def.node);
        }
        while (!head.empty() && (head.back() == ' ' || head.back() == ';')) head.pop_back();
        return head;
    }

    bool complete_reference(const Context& ctx, RawRef& ref) const override {
        if (ts_node_is_null(ref.name_node)) return false;
        // Lower-case JSX tags are HTML elements, not components.
        if (ts_node_is_null(ref.callee) && std::string_view(ts_node_type(ref.anchor)).starts_with("jsx_")) {
            std::string_view name = node_text(ctx.text, ref.name_node);
            if (name.empty() || (name[0] >= 'a' && name[0] <= 'z')) return false;
        }
        return true;
    }

    void imports(Context& ctx, TSNode node, std::vector<RawRef>& refs) const override {
        auto import_ref = [&](TSNode at, std::string_view name, std::string_view module) {
            refs.push_back(import_reference(at, std::string(name), std::string(module)));
        };
        auto last_segment = [](std::string_view module) {
            std::size_t slash = module.find_last_of('/');
            std::string_view base = slash == std::string_view::npos ? module : module.substr(slash + 1);
            std::size_t dot = base.find('.');
            if (dot != std::string_view::npos && dot > 0) base = base.substr(0, dot);
            return base;
        };

        if (node_is(node, "call_expression")) {
            // require("./x") and import("./x")
            TSNode args = child_by_field(node, "arguments");
            TSNode source = ts_node_named_child(args, 0);
            if (!node_is(source, "string")) return;
            std::string_view module = unquote(node_text(ctx.text, source));
            std::vector<std::string> names;
            std::optional<std::string> alias;
            TSNode parent = ts_node_parent(node);
            if (node_is(parent, "variable_declarator")) {
                TSNode target = child_by_field(parent, "name");
                if (node_is(target, "identifier")) {
                    alias = std::string(node_text(ctx.text, target));
                } else if (node_is(target, "object_pattern")) {
                    std::uint32_t count = ts_node_named_child_count(target);
                    for (std::uint32_t i = 0; i < count; ++i) {
                        TSNode item = ts_node_named_child(target, i);
                        TSNode key = item;
                        if (node_is(item, "pair_pattern")) key = child_by_field(item, "key");
                        else if (node_is(item, "object_assignment_pattern")) key = child_by_field(item, "left");
                        if (node_is(key, "shorthand_property_identifier_pattern") ||
                            node_is(key, "property_identifier")) {
                            names.emplace_back(node_text(ctx.text, key));
                            import_ref(key, node_text(ctx.text, key), module);
                        }
                    }
                }
            }
            if (names.empty()) import_ref(source, alias ? std::string_view(*alias) : last_segment(module), module);
            add_import(ctx, std::string(module), std::move(names), std::move(alias), node);
            return;
        }

        TSNode source = child_by_field(node, "source");
        if (ts_node_is_null(source)) return;
        std::string_view module = unquote(node_text(ctx.text, source));
        std::vector<std::string> names;
        std::optional<std::string> alias;
        auto add_specifiers = [&](TSNode list) {
            std::uint32_t count = ts_node_named_child_count(list);
            for (std::uint32_t i = 0; i < count; ++i) {
                TSNode specifier = ts_node_named_child(list, i);
                TSNode name = child_by_field(specifier, "name");
                if (ts_node_is_null(name)) continue;
                std::string_view text = unquote(node_text(ctx.text, name));
                names.emplace_back(text);
                import_ref(name, text, module);
            }
        };
        std::uint32_t count = ts_node_named_child_count(node);
        for (std::uint32_t i = 0; i < count; ++i) {
            TSNode child = ts_node_named_child(node, i);
            if (node_is(child, "import_clause")) {
                std::uint32_t parts = ts_node_named_child_count(child);
                for (std::uint32_t k = 0; k < parts; ++k) {
                    TSNode part = ts_node_named_child(child, k);
                    if (node_is(part, "identifier")) {
                        // The default export, under the local name.
                        names.emplace_back(node_text(ctx.text, part));
                        import_ref(part, node_text(ctx.text, part), module);
                    } else if (node_is(part, "named_imports")) {
                        add_specifiers(part);
                    } else if (node_is(part, "namespace_import")) {
                        TSNode local = child_of_type(part, "identifier");
                        if (!ts_node_is_null(local)) {
                            alias = std::string(node_text(ctx.text, local));
                            import_ref(local, *alias, module);
                        }
                    }
                }
            } else if (node_is(child, "export_clause")) {
                add_specifiers(child);
            } else if (node_is(child, "namespace_export")) {
                TSNode local = ts_node_named_child(child, 0);
                if (!ts_node_is_null(local)) alias = std::string(unquote(node_text(ctx.text, local)));
            }
        }
        if (names.empty() && !alias) import_ref(source, last_segment(module), module);
        add_import(ctx, std::string(module), std::move(names), std::move(alias), node);
    }
};

}  // namespace

const LanguageRules& javascript_rules() {
    static const JavaScriptRules rules;
    return rules;
}

}  // namespace orvane_kestrix::indexer::detail
