// JavaScript, TypeScript and TSX: exports (`export`, export clauses, module.exports), member
// visibility, ES imports, re-exports and require().

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "extract_internal.hpp"
#include "tree_walker.hpp"

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

// The ids of the node types and fields the walker looks at, in one of the three grammars.
// Types a grammar lacks are 0 (no node has it); TypeScript, JSX and JavaScript-only constructs
// are looked for in the languages that have them.
struct JavaScriptGrammar {
    bool typescript = false, jsx = false, javascript_only = false;
    TSSymbol program, function_declaration, generator_function_declaration, class_declaration, method_definition,
        variable_declarator, arrow_function, function_expression, generator_function, class_, lexical_declaration,
        variable_declaration, export_statement, expression_statement, assignment_expression, member_expression,
        property_identifier, identifier, export_clause, export_specifier, object, shorthand_property_identifier, pair,
        call_expression, arguments, string, import, new_expression, import_statement, comment, const_keyword,
        let_keyword;
    // TypeScript
    TSSymbol interface_declaration = 0, type_alias_declaration = 0, enum_declaration = 0, abstract_class_declaration = 0,
             function_signature = 0, interface_body = 0, method_signature = 0, object_type = 0,
             abstract_method_signature = 0, property_signature = 0, public_field_definition = 0, module = 0,
             internal_module = 0, type_identifier = 0, type_parameter = 0, nested_type_identifier = 0,
             extends_clause = 0, implements_clause = 0, extends_type_clause = 0;
    // JavaScript only
    TSSymbol field_definition = 0, class_heritage = 0;
    // JSX
    TSSymbol jsx_opening_element = 0, jsx_self_closing_element = 0;
    TSFieldId name, value, left, right, object_field, property, function, arguments_field, constructor, source,
        type_field = 0;

    explicit JavaScriptGrammar(Language language) {
        const TSLanguage* g = grammar(language);
        typescript = language == Language::typescript || language == Language::tsx;
        jsx = language == Language::javascript || language == Language::tsx;
        javascript_only = language == Language::javascript;
        program = grammar_symbol(g, "program");
        function_declaration = grammar_symbol(g, "function_declaration");
        generator_function_declaration = grammar_symbol(g, "generator_function_declaration");
        class_declaration = grammar_symbol(g, "class_declaration");
        method_definition = grammar_symbol(g, "method_definition");
        variable_declarator = grammar_symbol(g, "variable_declarator");
        arrow_function = grammar_symbol(g, "arrow_function");
        function_expression = grammar_symbol(g, "function_expression");
        generator_function = grammar_symbol(g, "generator_function");
        class_ = grammar_symbol(g, "class");
        lexical_declaration = grammar_symbol(g, "lexical_declaration");
        variable_declaration = grammar_symbol(g, "variable_declaration");
        export_statement = grammar_symbol(g, "export_statement");
        expression_statement = grammar_symbol(g, "expression_statement");
        assignment_expression = grammar_symbol(g, "assignment_expression");
        member_expression = grammar_symbol(g, "member_expression");
        property_identifier = grammar_symbol(g, "property_identifier");
        identifier = grammar_symbol(g, "identifier");
        export_clause = grammar_symbol(g, "export_clause");
        export_specifier = grammar_symbol(g, "export_specifier");
        object = grammar_symbol(g, "object");
        shorthand_property_identifier = grammar_symbol(g, "shorthand_property_identifier");
        pair = grammar_symbol(g, "pair");
        call_expression = grammar_symbol(g, "call_expression");
        arguments = grammar_symbol(g, "arguments");
        string = grammar_symbol(g, "string");
        import = grammar_symbol(g, "import");
        new_expression = grammar_symbol(g, "new_expression");
        import_statement = grammar_symbol(g, "import_statement");
        comment = grammar_symbol(g, "comment");
        const_keyword = grammar_symbol(g, "const", false);
        let_keyword = grammar_symbol(g, "let", false);
        if (typescript) {
            interface_declaration = grammar_symbol(g, "interface_declaration");
            type_alias_declaration = grammar_symbol(g, "type_alias_declaration");
            enum_declaration = grammar_symbol(g, "enum_declaration");
            abstract_class_declaration = grammar_symbol(g, "abstract_class_declaration");
            function_signature = grammar_symbol(g, "function_signature");
            interface_body = grammar_symbol(g, "interface_body");
            method_signature = grammar_symbol(g, "method_signature");
            object_type = grammar_symbol(g, "object_type");
            abstract_method_signature = grammar_symbol(g, "abstract_method_signature");
            property_signature = grammar_symbol(g, "property_signature");
            public_field_definition = grammar_symbol(g, "public_field_definition");
            module = grammar_symbol(g, "module");
            internal_module = grammar_symbol(g, "internal_module");
            type_identifier = grammar_symbol(g, "type_identifier");
            type_parameter = grammar_symbol(g, "type_parameter");
            nested_type_identifier = grammar_symbol(g, "nested_type_identifier");
            extends_clause = grammar_symbol(g, "extends_clause");
            implements_clause = grammar_symbol(g, "implements_clause");
            extends_type_clause = grammar_symbol(g, "extends_type_clause");
            type_field = grammar_field(g, "type");
        }
        if (javascript_only) {
            field_definition = grammar_symbol(g, "field_definition");
            class_heritage = grammar_symbol(g, "class_heritage");
        }
        if (jsx) {
            jsx_opening_element = grammar_symbol(g, "jsx_opening_element");
            jsx_self_closing_element = grammar_symbol(g, "jsx_self_closing_element");
        }
        name = grammar_field(g, "name");
        value = grammar_field(g, "value");
        left = grammar_field(g, "left");
        right = grammar_field(g, "right");
        object_field = grammar_field(g, "object");
        property = grammar_field(g, "property");
        function = grammar_field(g, "function");
        arguments_field = grammar_field(g, "arguments");
        constructor = grammar_field(g, "constructor");
        source = grammar_field(g, "source");
    }
};

// The ids of the grammar of one of the languages these rules serve (the table gives them to
// JavaScript, TypeScript and TSX only).
const JavaScriptGrammar& javascript_grammar(Language language) {
    if (language == Language::typescript) {
        static const JavaScriptGrammar g(Language::typescript);
        return g;
    }
    if (language == Language::tsx) {
        static const JavaScriptGrammar g(Language::tsx);
        return g;
    }
    static const JavaScriptGrammar g(Language::javascript);
    return g;
}

// Finds the definitions, references, comments, imports and export clauses of a JavaScript,
// TypeScript or TSX tree.
class JavaScriptWalker final : public TreeWalker {
public:
    JavaScriptWalker(const JavaScriptGrammar& g, Context& ctx, Captures& out) : TreeWalker(ctx, out), g_(g) {}

private:
    // `a.b` with a property name: that name, else a null node.
    TSNode property_name(TSNode member) const {
        return field_of_type(member, g_.property, g_.property_identifier);
    }

    // A name, or the property of a member expression, used as `usage`: anchored at `anchor`,
    // or at the used node itself when `anchor` is null.
    void name_use(TSNode node, TSNode anchor, Usage usage) {
        if (is(node, g_.identifier)) {
            reference(ts_node_is_null(anchor) ? node : anchor, node, {}, usage);
        } else if (is(node, g_.member_expression)) {
            TSNode name = property_name(node);
            if (!ts_node_is_null(name)) reference(ts_node_is_null(anchor) ? node : anchor, name, node, usage);
        }
    }

    // `const`, `let` and `var` declarations at the top level (or exported there).
    void top_level_declaration(TSNode declaration) {
        if (is(declaration, g_.lexical_declaration)) {
            bool after_const = false;
            bool after_let = false;
            for (TSNode child : all_children(declaration)) {
                const TSSymbol symbol = ts_node_symbol(child);
                if (symbol == g_.const_keyword) after_const = true;
                if (symbol == g_.let_keyword) after_let = true;
                if (symbol != g_.variable_declarator) continue;
                TSNode name = field(child, g_.name);
                if (!is(name, g_.identifier)) continue;
                if (after_const) definition(child, name, Kind::constant);
                if (after_let) definition(child, name, Kind::variable);
            }
        } else if (is(declaration, g_.variable_declaration)) {
            for (TSNode declarator : children(declaration, g_.variable_declarator)) {
                TSNode name = field(declarator, g_.name);
                if (is(name, g_.identifier)) definition(declarator, name, Kind::variable);
            }
        }
    }

    void program(TSNode node) {
        for (TSNode child : all_children(node)) {
            if (is(child, g_.export_statement)) {
                for (TSNode exported : all_children(child)) top_level_declaration(exported);
            } else {
                top_level_declaration(child);
            }
        }
    }

    void assignment_statement(TSNode statement) {
        for (TSNode assignment : children(statement, g_.assignment_expression)) {
            TSNode left = field(assignment, g_.left);
            TSNode right = field(assignment, g_.right);
            if (!is(left, g_.member_expression)) continue;
            // exports.f = function () {}
            TSNode name = property_name(left);
            if (!ts_node_is_null(name) && (is(right, g_.arrow_function) || is(right, g_.function_expression))) {
                definition(assignment, name, Kind::function);
            }
            // module.exports = { a, b: c } / module.exports = a
            TSNode object = field(left, g_.object_field);
            if (!is(object, g_.identifier) || text(object) != "module" || ts_node_is_null(name) || text(name) != "exports") {
                continue;
            }
            if (is(right, g_.identifier)) {
                ctx_.export_names.push_back(text(right));
            } else if (is(right, g_.object)) {
                for (TSNode item : all_children(right)) {
                    if (is(item, g_.shorthand_property_identifier)) {
                        ctx_.export_names.push_back(text(item));
                    } else if (is(item, g_.pair)) {
                        TSNode value = field(item, g_.value);
                        if (is(value, g_.identifier)) ctx_.export_names.push_back(text(value));
                    }
                }
            }
        }
    }

    void export_statement(TSNode node) {
        TSNode source = field(node, g_.source);
        if (ts_node_is_null(source)) {
            for (TSNode clause : children(node, g_.export_clause)) {
                for (TSNode specifier : children(clause, g_.export_specifier)) {
                    TSNode name = field(specifier, g_.name);
                    if (is(name, g_.identifier)) ctx_.export_names.push_back(text(name));
                }
            }
        } else if (is_named(source)) {
            out_.imports.push_back(node);
        }
        TSNode value = field(node, g_.value);
        if (is(value, g_.identifier)) ctx_.export_names.push_back(text(value));
    }

    // `require("x")` and `import("x")`: the first named argument is a string.
    bool string_argument(TSNode call) const {
        TSNode arguments = field(call, g_.arguments_field);
        return is(arguments, g_.arguments) && ts_node_named_child_count(arguments) > 0 &&
               is(ts_node_named_child(arguments, 0), g_.string);
    }

    void call(TSNode node) {
        TSNode function = field(node, g_.function);
        if (is(function, g_.identifier)) {
            if (text(function) != "require") {
                reference(node, function, {}, Usage::call);
            } else if (string_argument(node)) {
                out_.imports.push_back(node);
            }
        } else if (is(function, g_.import)) {
            if (string_argument(node)) out_.imports.push_back(node);
        } else if (is(function, g_.member_expression)) {
            TSNode name = property_name(function);
            if (!ts_node_is_null(name)) reference(node, name, function, Usage::call);
        }
    }

    void named_definition(TSNode node, Kind kind, TSSymbol name_type = 0) {
        TSNode name = field(node, g_.name);
        if (name_type == 0 ? is_named(name) : is(name, name_type)) definition(node, name, kind);
    }

    // Members of an interface body or object type: method and property signatures.
    void signatures(TSNode body) {
        for (TSNode member : children(body, g_.method_signature)) named_definition(member, Kind::method);
        for (TSNode member : children(body, g_.property_signature)) named_definition(member, Kind::property);
    }

    bool visit_typescript(TSNode node, TSSymbol symbol) {
        if (symbol == g_.type_identifier) {
            reference(node, node, {}, Usage::type);
        } else if (symbol == g_.nested_type_identifier) {
            TSNode name = field(node, g_.name);
            if (is(name, g_.type_identifier)) reference(node, name, node, Usage::type);
        } else if (symbol == g_.type_parameter) {
            TSNode name = field(node, g_.name);
            if (is(name, g_.type_identifier)) out_.not_uses.push_back(ts_node_start_byte(name));
        } else if (symbol == g_.interface_declaration) {
            named_definition(node, Kind::interface, g_.type_identifier);
        } else if (symbol == g_.type_alias_declaration) {
            named_definition(node, Kind::type, g_.type_identifier);
            TSNode value = field(node, g_.value);
            if (is(value, g_.object_type)) signatures(value);
        } else if (symbol == g_.interface_body) {
            signatures(node);
        } else if (symbol == g_.enum_declaration) {
            named_definition(node, Kind::enum_, g_.identifier);
        } else if (symbol == g_.abstract_class_declaration) {
            named_definition(node, Kind::class_, g_.type_identifier);
        } else if (symbol == g_.function_signature) {
            named_definition(node, Kind::function, g_.identifier);
        } else if (symbol == g_.abstract_method_signature) {
            named_definition(node, Kind::method);
        } else if (symbol == g_.public_field_definition) {
            named_definition(node, Kind::field);
        } else if (symbol == g_.module) {
            named_definition(node, Kind::module);
        } else if (symbol == g_.internal_module) {
            named_definition(node, Kind::namespace_);
        } else if (symbol == g_.extends_clause) {
            for (TSNode base : field_children(node, g_.value)) name_use(base, {}, Usage::inherit);
        } else if (symbol == g_.implements_clause) {
            for (TSNode base : children(node, g_.type_identifier)) reference(base, base, {}, Usage::inherit);
        } else if (symbol == g_.extends_type_clause) {
            for (TSNode base : field_children(node, g_.type_field)) {
                if (is(base, g_.type_identifier)) reference(base, base, {}, Usage::inherit);
            }
        } else {
            return false;
        }
        return true;
    }

    void visit(TSNode node) override {
        const TSSymbol symbol = ts_node_symbol(node);
        if (symbol == g_.call_expression) {
            call(node);
        } else if (symbol == g_.identifier || symbol == g_.property_identifier || symbol == g_.member_expression ||
                   symbol == g_.string) {
            // The commonest nodes, none of them of interest.
        } else if (g_.typescript && visit_typescript(node, symbol)) {
            // A TypeScript-only construct.
        } else if (symbol == g_.comment) {
            out_.comments.push_back(node);
        } else if (symbol == g_.variable_declarator) {
            TSNode name = field(node, g_.name);
            TSNode value = field(node, g_.value);
            if (is(name, g_.identifier)) {
                if (is(value, g_.arrow_function) || is(value, g_.function_expression) || is(value, g_.generator_function)) {
                    definition(node, name, Kind::function);
                } else if (is(value, g_.class_)) {
                    definition(node, name, Kind::class_);
                }
            }
        } else if (symbol == g_.new_expression) {
            name_use(field(node, g_.constructor), node, Usage::call);
        } else if (symbol == g_.expression_statement) {
            assignment_statement(node);
        } else if (symbol == g_.function_declaration || symbol == g_.generator_function_declaration) {
            named_definition(node, Kind::function, g_.identifier);
        } else if (symbol == g_.class_declaration) {
            named_definition(node, Kind::class_);
        } else if (symbol == g_.method_definition) {
            TSNode name = field(node, g_.name);
            if (is_named(name) && text(name) != "constructor") definition(node, name, Kind::method);
        } else if (symbol == g_.export_statement) {
            export_statement(node);
        } else if (symbol == g_.import_statement) {
            out_.imports.push_back(node);
        } else if (symbol == g_.program) {
            program(node);
        } else if (g_.jsx && (symbol == g_.jsx_opening_element || symbol == g_.jsx_self_closing_element)) {
            name_use(field(node, g_.name), node, Usage::call);
        } else if (g_.javascript_only && symbol == g_.field_definition) {
            TSNode name = field(node, g_.property);
            if (is_named(name)) definition(node, name, Kind::field);
        } else if (g_.javascript_only && symbol == g_.class_heritage) {
            for (TSNode base : children(node, g_.identifier)) reference(base, base, {}, Usage::inherit);
            for (TSNode base : children(node, g_.member_expression)) name_use(base, {}, Usage::inherit);
        }
    }

    const JavaScriptGrammar& g_;
};

class JavaScriptRules final : public LanguageRules {
public:
    void walk(Context& ctx, TSNode root, Captures& out) const override {
        JavaScriptWalker(javascript_grammar(ctx.language), ctx, out).walk(root);
    }

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
