// C and C++: names read out of declarators, out-of-line `A::f` qualified by its class,
// namespaces, typedefs, access sections, `static` and header exports, includes.

#include <string>
#include <string_view>
#include <vector>

#include "extract_internal.hpp"
#include "orvane_kestrix/indexer/file_classification.hpp"
#include "tree_walker.hpp"

namespace orvane_kestrix::indexer::detail {

namespace {

struct Declared {
    TSNode name{};
    bool function = false;
};

bool is_name_node(std::string_view type) {
    return type == "identifier" || type == "field_identifier" || type == "type_identifier" ||
           type == "qualified_identifier" || type == "destructor_name" || type == "operator_name" ||
           type == "template_function" || type == "operator_cast" || type == "primitive_type";
}

// Descends pointer, reference, array, init and parenthesised declarators to the declared name.
// A function declarator directly around the name makes a function; one around a parenthesised
// declarator (`int (*fp)(int)`) is a pointer to a function, so a variable.
Declared resolve_declarator(TSNode d) {
    Declared out;
    for (int guard = 0; guard < 64 && !ts_node_is_null(d); ++guard) {
        std::string_view type = ts_node_type(d);
        if (is_name_node(type)) {
            out.name = d;
            return out;
        }
        if (type == "function_declarator") {
            TSNode inner = child_by_field(d, "declarator");
            if (!ts_node_is_null(inner) && is_name_node(ts_node_type(inner))) out.function = true;
            d = inner;
            continue;
        }
        TSNode inner = child_by_field(d, "declarator");
        if (ts_node_is_null(inner)) {
            // reference_declarator, parenthesized_declarator: the declarator is a plain child.
            std::uint32_t count = ts_node_named_child_count(d);
            for (std::uint32_t i = 0; i < count; ++i) {
                TSNode child = ts_node_named_child(d, i);
                std::string_view child_type = ts_node_type(child);
                if (is_name_node(child_type) || child_type.ends_with("declarator")) {
                    inner = child;
                    break;
                }
            }
        }
        d = inner;
    }
    return {};
}

// `a::b::f` -> name node f, scope "a.b"; template arguments in the scope are dropped.
TSNode split_qualified(std::string_view text, TSNode qualified, std::string& scope) {
    TSNode name = qualified;
    while (node_is(name, "qualified_identifier")) name = child_by_field(name, "name");
    if (node_is(name, "template_function") || node_is(name, "template_type")) name = child_by_field(name, "name");
    if (ts_node_is_null(name)) return name;
    std::string_view prefix = text.substr(ts_node_start_byte(qualified),
                                          ts_node_start_byte(name) - ts_node_start_byte(qualified));
    scope.clear();
    int depth = 0;
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        char c = prefix[i];
        if (c == '<') ++depth;
        else if (c == '>') depth = depth > 0 ? depth - 1 : 0;
        else if (depth > 0 || c == ' ' || c == '\t' || c == '\n') continue;
        else if (c == ':' && i + 1 < prefix.size() && prefix[i + 1] == ':') {
            if (!scope.empty()) scope.push_back('.');
            ++i;
        } else {
            scope.push_back(c);
        }
    }
    while (!scope.empty() && scope.back() == '.') scope.pop_back();
    while (!scope.empty() && scope.front() == '.') scope.erase(0, 1);
    return name;
}

bool has_storage(const Context& ctx, TSNode declaration, std::string_view word) {
    std::uint32_t count = ts_node_named_child_count(declaration);
    for (std::uint32_t i = 0; i < count; ++i) {
        TSNode child = ts_node_named_child(declaration, i);
        if (node_is(child, "storage_class_specifier") && node_text(ctx.text, child) == word) return true;
    }
    return false;
}

bool is_const(const Context& ctx, TSNode declaration) {
    std::uint32_t count = ts_node_named_child_count(declaration);
    for (std::uint32_t i = 0; i < count; ++i) {
        TSNode child = ts_node_named_child(declaration, i);
        if (node_is(child, "type_qualifier")) {
            std::string_view word = node_text(ctx.text, child);
            if (word == "const" || word == "constexpr" || word == "constinit") return true;
        }
    }
    return false;
}

// Widens a definition to the template declarations around it.
TSNode with_templates(TSNode node) {
    TSNode outer = node;
    for (TSNode parent = ts_node_parent(outer); node_is(parent, "template_declaration"); parent = ts_node_parent(parent)) {
        outer = parent;
    }
    return outer;
}

// The ids of the node types and fields the walker looks at, in the C or the C++ grammar; the
// C++-only constructs are looked for in C++ only.
struct CGrammar {
    bool cpp = false;
    TSSymbol function_definition, translation_unit, declaration, preproc_ifdef, preproc_if, preproc_else, preproc_elif,
        preproc_elifdef, declaration_list, linkage_specification, field_declaration_list, field_declaration,
        struct_specifier, union_specifier, enum_specifier, type_identifier, type_definition, preproc_def, identifier,
        preproc_function_def, call_expression, field_expression, field_identifier, preproc_include, comment;
    // C++
    TSSymbol class_specifier = 0, namespace_definition = 0, alias_declaration = 0, template_declaration = 0,
             qualified_identifier = 0, template_function = 0, template_method = 0, new_expression = 0,
             template_type = 0, base_class_clause = 0, compound_statement = 0, function_declarator = 0,
             parameter_list = 0, parameter_declaration = 0;
    TSFieldId name, body, value, function, field, type = 0, declarator = 0, parameters = 0;

    explicit CGrammar(Language language) {
        const TSLanguage* g = grammar(language);
        cpp = language == Language::cpp;
        function_definition = grammar_symbol(g, "function_definition");
        translation_unit = grammar_symbol(g, "translation_unit");
        declaration = grammar_symbol(g, "declaration");
        preproc_ifdef = grammar_symbol(g, "preproc_ifdef");
        preproc_if = grammar_symbol(g, "preproc_if");
        preproc_else = grammar_symbol(g, "preproc_else");
        preproc_elif = grammar_symbol(g, "preproc_elif");
        preproc_elifdef = grammar_symbol(g, "preproc_elifdef");
        declaration_list = grammar_symbol(g, "declaration_list");
        linkage_specification = grammar_symbol(g, "linkage_specification");
        field_declaration_list = grammar_symbol(g, "field_declaration_list");
        field_declaration = grammar_symbol(g, "field_declaration");
        struct_specifier = grammar_symbol(g, "struct_specifier");
        union_specifier = grammar_symbol(g, "union_specifier");
        enum_specifier = grammar_symbol(g, "enum_specifier");
        type_identifier = grammar_symbol(g, "type_identifier");
        type_definition = grammar_symbol(g, "type_definition");
        preproc_def = grammar_symbol(g, "preproc_def");
        identifier = grammar_symbol(g, "identifier");
        preproc_function_def = grammar_symbol(g, "preproc_function_def");
        call_expression = grammar_symbol(g, "call_expression");
        field_expression = grammar_symbol(g, "field_expression");
        field_identifier = grammar_symbol(g, "field_identifier");
        preproc_include = grammar_symbol(g, "preproc_include");
        comment = grammar_symbol(g, "comment");
        name = grammar_field(g, "name");
        body = grammar_field(g, "body");
        value = grammar_field(g, "value");
        function = grammar_field(g, "function");
        field = grammar_field(g, "field");
        if (cpp) {
            class_specifier = grammar_symbol(g, "class_specifier");
            namespace_definition = grammar_symbol(g, "namespace_definition");
            alias_declaration = grammar_symbol(g, "alias_declaration");
            template_declaration = grammar_symbol(g, "template_declaration");
            qualified_identifier = grammar_symbol(g, "qualified_identifier");
            template_function = grammar_symbol(g, "template_function");
            template_method = grammar_symbol(g, "template_method");
            new_expression = grammar_symbol(g, "new_expression");
            template_type = grammar_symbol(g, "template_type");
            base_class_clause = grammar_symbol(g, "base_class_clause");
            compound_statement = grammar_symbol(g, "compound_statement");
            function_declarator = grammar_symbol(g, "function_declarator");
            parameter_list = grammar_symbol(g, "parameter_list");
            parameter_declaration = grammar_symbol(g, "parameter_declaration");
            type = grammar_field(g, "type");
            declarator = grammar_field(g, "declarator");
            parameters = grammar_field(g, "parameters");
        }
    }
};

const CGrammar& c_grammar(Language language) {
    if (language == Language::cpp) {
        static const CGrammar g(Language::cpp);
        return g;
    }
    static const CGrammar g(Language::c);
    return g;
}

// Finds the definitions, references, comments and includes of a C or C++ tree.
class CWalker final : public TreeWalker {
public:
    CWalker(const CGrammar& g, Context& ctx, Captures& out) : TreeWalker(ctx, out), g_(g) {}

private:
    // Declarations directly inside `node`, whose kinds the rules work out.
    void declarations(TSNode node, Kind kind = Kind::declaration) {
        for (TSNode declaration : children(node, g_.declaration)) definition(declaration, {}, kind);
    }

    // `struct S {...}` and the like: a name and a body.
    void named_with_body(TSNode node, Kind kind, TSSymbol name_type) {
        TSNode name = field(node, g_.name);
        if ((name_type == 0 ? is_named(name) : is(name, name_type)) && is_named(field(node, g_.body))) {
            definition(node, name, kind);
        }
    }

    void call(TSNode node) {
        TSNode function = field(node, g_.function);
        const TSSymbol symbol = ts_node_is_null(function) ? 0 : ts_node_symbol(function);
        if (symbol == g_.identifier) {
            reference(node, function, {}, Usage::call);
        } else if (symbol == g_.field_expression) {
            TSNode member = field(function, g_.field);
            if (is(member, g_.field_identifier)) {
                reference(node, member, function, Usage::call);
            } else if (g_.cpp && is(member, g_.template_method)) {
                TSNode name = field(member, g_.name);
                if (is(name, g_.field_identifier)) reference(node, name, function, Usage::call);
            }
        } else if (g_.cpp && symbol == g_.qualified_identifier) {
            reference(node, {}, function, Usage::call);
        } else if (g_.cpp && symbol == g_.template_function) {
            TSNode name = field(function, g_.name);
            if (is(name, g_.identifier)) reference(node, name, {}, Usage::call);
        }
    }

    // `T::name` or `T::name<...>` as a type, and the like: the last name.
    TSNode qualified_type_name(TSNode qualified) const {
        TSNode name = field(qualified, g_.name);
        if (is(name, g_.type_identifier)) return name;
        if (is(name, g_.template_type)) {
            TSNode inner = field(name, g_.name);
            if (is(inner, g_.type_identifier)) return inner;
        }
        return {};
    }

    // `Foo bar(Baz);` in a function body declares a variable, so `Baz` there is no type use
    // of a parameter.
    void vexing_parse(TSNode block) {
        for (TSNode declaration : children(block, g_.declaration)) {
            for (TSNode declarator : field_children(declaration, g_.declarator)) {
                if (!is(declarator, g_.function_declarator)) continue;
                TSNode parameters = field(declarator, g_.parameters);
                if (!is(parameters, g_.parameter_list)) continue;
                for (TSNode parameter : children(parameters, g_.parameter_declaration)) {
                    TSNode type = field(parameter, g_.type);
                    if (is(type, g_.type_identifier) && ts_node_is_null(field(parameter, g_.declarator))) {
                        out_.not_uses.push_back(ts_node_start_byte(type));
                    }
                }
            }
        }
    }

    bool visit_cpp(TSNode node, TSSymbol symbol) {
        if (symbol == g_.qualified_identifier) {
            TSNode name = qualified_type_name(node);
            if (!ts_node_is_null(name)) reference(node, name, node, Usage::type);
        } else if (symbol == g_.compound_statement) {
            vexing_parse(node);
        } else if (symbol == g_.new_expression) {
            TSNode type = field(node, g_.type);
            if (is(type, g_.type_identifier)) {
                reference(node, type, {}, Usage::call);
            } else if (is(type, g_.qualified_identifier)) {
                TSNode name = field(type, g_.name);
                if (is(name, g_.type_identifier)) reference(node, name, type, Usage::call);
            }
        } else if (symbol == g_.class_specifier) {
            named_with_body(node, Kind::class_, 0);
        } else if (symbol == g_.namespace_definition) {
            TSNode name = field(node, g_.name);
            if (ts_node_is_null(name)) {
                scope_frame(node, {}, true);
            } else if (is_named(name)) {
                definition(node, name, Kind::namespace_);
            }
        } else if (symbol == g_.alias_declaration) {
            TSNode name = field(node, g_.name);
            if (is(name, g_.type_identifier)) definition(node, name, Kind::type);
        } else if (symbol == g_.template_declaration) {
            declarations(node);
        } else if (symbol == g_.base_class_clause) {
            for (TSNode base : children(node, g_.type_identifier)) reference(base, base, {}, Usage::inherit);
            for (TSNode base : children(node, g_.qualified_identifier)) {
                TSNode name = field(base, g_.name);
                if (is(name, g_.type_identifier)) reference(base, name, base, Usage::inherit);
            }
            for (TSNode base : children(node, g_.template_type)) {
                TSNode name = field(base, g_.name);
                if (is(name, g_.type_identifier)) reference(base, name, {}, Usage::inherit);
            }
        } else {
            return false;
        }
        return true;
    }

    void visit(TSNode node) override {
        const TSSymbol symbol = ts_node_symbol(node);
        if (symbol == g_.identifier || symbol == g_.field_identifier) {
            // The commonest nodes, none of them of interest.
        } else if (symbol == g_.type_identifier) {
            reference(node, node, {}, Usage::type);
        } else if (symbol == g_.call_expression) {
            call(node);
        } else if (g_.cpp && visit_cpp(node, symbol)) {
            // A C++-only construct.
        } else if (symbol == g_.comment) {
            out_.comments.push_back(node);
        } else if (symbol == g_.function_definition) {
            definition(node, {}, Kind::function);
        } else if (symbol == g_.translation_unit || symbol == g_.preproc_ifdef || symbol == g_.preproc_if ||
                   symbol == g_.preproc_else || symbol == g_.preproc_elif || symbol == g_.preproc_elifdef ||
                   symbol == g_.declaration_list) {
            declarations(node);
        } else if (symbol == g_.linkage_specification) {
            for (TSNode body : field_children(node, g_.body)) {
                if (is(body, g_.declaration)) definition(body, {}, Kind::declaration);
            }
        } else if (symbol == g_.field_declaration_list) {
            for (TSNode member : children(node, g_.field_declaration)) definition(member, {}, Kind::member);
            if (g_.cpp) declarations(node, Kind::member);
        } else if (symbol == g_.struct_specifier || symbol == g_.union_specifier) {
            named_with_body(node, Kind::struct_, g_.type_identifier);
        } else if (symbol == g_.enum_specifier) {
            named_with_body(node, Kind::enum_, g_.type_identifier);
        } else if (symbol == g_.type_definition) {
            definition(node, {}, Kind::typedef_);
        } else if (symbol == g_.preproc_def) {
            TSNode name = field(node, g_.name);
            if (is(name, g_.identifier) && is_named(field(node, g_.value))) definition(node, name, Kind::constant);
        } else if (symbol == g_.preproc_function_def) {
            TSNode name = field(node, g_.name);
            if (is(name, g_.identifier)) definition(node, name, Kind::function);
        } else if (symbol == g_.preproc_include) {
            out_.imports.push_back(node);
        }
    }

    const CGrammar& g_;
};

class CRules final : public LanguageRules {
public:
    void walk(Context& ctx, TSNode root, Captures& out) const override {
        CWalker(c_grammar(ctx.language), ctx, out).walk(root);
    }

    void prepare(Context& ctx, const std::vector<RawDef>&) const override {
        ctx.is_header = is_header_path(ctx.path);
    }

    void definitions(Context& ctx, RawDef def, std::vector<RawDef>& out) const override {
        std::string_view type = ts_node_type(def.node);
        if (def.kind == Kind::frame) {
            out.push_back(std::move(def));
            return;
        }
        bool file_local = false;
        switch (def.kind) {
            case Kind::function:
                if (type == "preproc_function_def") {
                    if (!named(ctx, def)) return;
                    def.own_export = ctx.is_header;
                    out.push_back(std::move(def));
                    return;
                }
                file_local = has_storage(ctx, def.node, "static");
                def.outer = with_templates(def.node);
                {
                    Declared declared = resolve_declarator(child_by_field(def.node, "declarator"));
                    declared.function = true;
                    add_declared(ctx, std::move(def), declared, file_local, out);
                }
                return;
            case Kind::declaration: {
                if (!ts_node_is_null(child_by_field(def.node, "declarator"))) {
                    file_local = has_storage(ctx, def.node, "static");
                    def.outer = with_templates(def.node);
                    bool constant = is_const(ctx, def.node);
                    for_each_declarator(def.node, [&](TSNode declarator) {
                        RawDef one = def;
                        Declared declared = resolve_declarator(declarator);
                        one.kind = declared.function ? Kind::function : constant ? Kind::constant : Kind::variable;
                        add_declared(ctx, std::move(one), declared, file_local, out);
                    });
                }
                return;
            }
            case Kind::member: {
                for_each_declarator(def.node, [&](TSNode declarator) {
                    RawDef one = def;
                    Declared declared = resolve_declarator(declarator);
                    one.kind = declared.function ? Kind::method : Kind::field;
                    add_declared(ctx, std::move(one), declared, false, out);
                });
                return;
            }
            case Kind::typedef_: {
                TSNode aggregate = child_by_field(def.node, "type");
                bool anonymous_body = !ts_node_is_null(child_by_field(aggregate, "body")) &&
                                      ts_node_is_null(child_by_field(aggregate, "name"));
                for_each_declarator(def.node, [&](TSNode declarator) {
                    RawDef one = def;
                    Declared declared = resolve_declarator(declarator);
                    one.kind = Kind::type;
                    // `typedef struct { ... } point_t;` is the struct's only name.
                    if (anonymous_body) one.kind = node_is(aggregate, "enum_specifier") ? Kind::enum_ : Kind::struct_;
                    declared.function = false;
                    add_declared(ctx, std::move(one), declared, false, out);
                });
                return;
            }
            case Kind::namespace_: {
                if (ts_node_is_null(def.name_node)) return;
                if (node_is(def.name_node, "nested_namespace_specifier")) {
                    // namespace a::b { } -> "b" in scope "a"
                    std::uint32_t count = ts_node_named_child_count(def.name_node);
                    if (count == 0) return;
                    TSNode last = ts_node_named_child(def.name_node, count - 1);
                    for (std::uint32_t i = 0; i + 1 < count; ++i) {
                        if (!def.scope.empty()) def.scope.push_back('.');
                        def.scope.append(node_text(ctx.text, ts_node_named_child(def.name_node, i)));
                    }
                    def.name_node = last;
                }
                if (!named(ctx, def)) return;
                def.own_export = true;
                out.push_back(std::move(def));
                return;
            }
            default:
                // struct, union, enum, class, alias, macro constants
                if (!named(ctx, def)) return;
                if (type == "preproc_def") {
                    def.own_export = ctx.is_header;
                } else {
                    def.outer = with_templates(def.node);
                    def.own_export = true;
                }
                out.push_back(std::move(def));
                return;
        }
    }

    // Nothing inside function bodies: local declarations (and `T x(a);`, which parses as a
    // function declaration) are not symbols.
    bool keep_nested(const RawDef&, const RawDef& parent) const override {
        return !is_callable(parent.kind);
    }

    std::string module_name(const Context&) const override { return {}; }

    // Members of classes: the access section decides; members of namespaces: their own rule.
    bool member_export(const Context& ctx, const RawDef& def) const override {
        TSNode list = ts_node_parent(def.node);
        if (!node_is(list, "field_declaration_list")) return def.own_export;
        TSNode owner = ts_node_parent(list);
        bool is_public = !node_is(owner, "class_specifier");
        std::uint32_t target = ts_node_start_byte(def.node);
        TSTreeCursor cursor = ts_tree_cursor_new(list);
        if (ts_tree_cursor_goto_first_child(&cursor)) {
            do {
                TSNode child = ts_tree_cursor_current_node(&cursor);
                if (ts_node_start_byte(child) >= target) break;
                if (node_is(child, "access_specifier")) {
                    std::string_view word = node_text(ctx.text, child);
                    is_public = word.starts_with("public");
                }
            } while (ts_tree_cursor_goto_next_sibling(&cursor));
        }
        ts_tree_cursor_delete(&cursor);
        return is_public;
    }

    std::optional<std::string> signature(const Context& ctx, const RawDef& def) const override {
        std::string head;
        if (node_is(def.node, "function_definition")) {
            // Up to the body, or to a constructor's initialiser list.
            TSNode stop = child_of_type(def.node, "field_initializer_list");
            if (ts_node_is_null(stop)) stop = child_by_field(def.node, "body");
            std::uint32_t start = ts_node_start_byte(def.node);
            std::uint32_t end = ts_node_is_null(stop) ? ts_node_end_byte(def.node) : ts_node_start_byte(stop);
            head = fold_whitespace(utf8_prefix(ctx.text.substr(start, end - start), 1200));
            if (head.size() > 300) head = std::string(utf8_prefix(head, 300)) + " ...";
        } else if (node_is(def.node, "type_definition")) {
            // typedef struct tag { ... } name_t;
            TSNode aggregate = child_by_field(def.node, "type");
            TSNode body = child_by_field(aggregate, "body");
            if (!ts_node_is_null(body)) {
                std::uint32_t start = ts_node_start_byte(def.node);
                head = fold_whitespace(ctx.text.substr(start, ts_node_start_byte(body) - start));
                head += " { ... } ";
                head += def.name;
            } else {
                head = head_signature(ctx.text, def.node, def.node);
            }
        } else {
            head = head_signature(ctx.text, def.node, def.node);
        }
        while (!head.empty() && (head.back() == ';' || head.back() == ' ')) head.pop_back();
        return head;
    }

    bool complete_reference(const Context&, RawRef& ref) const override {
        if (ts_node_is_null(ref.name_node) && node_is(ref.callee, "qualified_identifier")) {
            TSNode name = ref.callee;
            while (node_is(name, "qualified_identifier")) name = child_by_field(name, "name");
            if (node_is(name, "template_function")) name = child_by_field(name, "name");
            ref.name_node = name;
        }
        return !ts_node_is_null(ref.name_node);
    }

    void imports(Context& ctx, TSNode node, std::vector<RawRef>& refs) const override {
        TSNode path = child_by_field(node, "path");
        if (ts_node_is_null(path)) return;
        std::string module;
        std::string_view written = node_text(ctx.text, path);
        std::string_view file = written;
        if (node_is(path, "string_literal")) {
            if (file.size() >= 2 && file.front() == '"' && file.back() == '"') file = file.substr(1, file.size() - 2);
            module = std::string(file);
        } else if (node_is(path, "system_lib_string")) {
            // Kept with its brackets: a system header, not a file of the repository.
            module = std::string(written);
            if (file.size() >= 2) file = file.substr(1, file.size() - 2);
        } else {
            return;  // #include MACRO
        }
        std::size_t slash = file.find_last_of('/');
        refs.push_back(import_reference(path,
            std::string(slash == std::string_view::npos ? file : file.substr(slash + 1)),
            std::string(slash == std::string_view::npos ? std::string_view{} : file.substr(0, slash))));
        add_import(ctx, std::move(module), {}, std::nullopt, node);
    }

private:
    static bool named(const Context& ctx, RawDef& def) {
        if (ts_node_is_null(def.name_node)) return false;
        def.name = node_text(ctx.text, def.name_node);
        return !def.name.empty();
    }

    template <typename F>
    static void for_each_declarator(TSNode node, F&& f) {
        TSTreeCursor cursor = ts_tree_cursor_new(node);
        if (ts_tree_cursor_goto_first_child(&cursor)) {
            do {
                const char* field = ts_tree_cursor_current_field_name(&cursor);
                if (field != nullptr && std::string_view(field) == "declarator") f(ts_tree_cursor_current_node(&cursor));
            } while (ts_tree_cursor_goto_next_sibling(&cursor));
        }
        ts_tree_cursor_delete(&cursor);
    }

    void add_declared(Context& ctx, RawDef def, Declared declared, bool file_local, std::vector<RawDef>& out) const {
        if (ts_node_is_null(declared.name)) return;
        TSNode name = declared.name;
        if (node_is(name, "qualified_identifier")) {
            name = split_qualified(ctx.text, name, def.scope);
            if (ts_node_is_null(name)) return;
            // Out of line: `A::f` is a member of A (or a function of namespace A).
            if (declared.function) def.kind = Kind::method;
        } else if (node_is(name, "template_function")) {
            name = child_by_field(name, "name");
        }
        if (ts_node_is_null(name)) return;
        def.name_node = name;
        def.name = node_text(ctx.text, name);
        if (def.name.empty()) return;
        def.own_export = ctx.is_header || !file_local;
        out.push_back(std::move(def));
    }
};

}  // namespace

const LanguageRules& c_rules() {
    static const CRules rules;
    return rules;
}

}  // namespace orvane_kestrix::indexer::detail
