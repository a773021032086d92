// Ruby: classes, modules, methods (`def self.x` and `class << self` included), constants;
// calls, superclasses and mixins as uses; `require` and `require_relative` as imports. Classes
// and modules qualify names (no module prefix from the path: constants are global in Ruby).

#include <string>
#include <string_view>
#include <vector>

#include "extract_internal.hpp"
#include "tree_walker.hpp"

namespace orvane_kestrix::indexer::detail {

namespace {

// The grammar's ids of the node types and fields the walker looks at.
struct RubyGrammar {
    TSSymbol class_, module, method, singleton_method, singleton_class, assignment, call, constant, identifier,
        scope_resolution, superclass, argument_list, comment;
    TSFieldId name, scope, superclass_field, method_field, receiver, arguments, left;

    RubyGrammar() {
        const TSLanguage* g = grammar(Language::ruby);
        class_ = grammar_symbol(g, "class");
        module = grammar_symbol(g, "module");
        method = grammar_symbol(g, "method");
        singleton_method = grammar_symbol(g, "singleton_method");
        singleton_class = grammar_symbol(g, "singleton_class");
        assignment = grammar_symbol(g, "assignment");
        call = grammar_symbol(g, "call");
        constant = grammar_symbol(g, "constant");
        identifier = grammar_symbol(g, "identifier");
        scope_resolution = grammar_symbol(g, "scope_resolution");
        superclass = grammar_symbol(g, "superclass");
        argument_list = grammar_symbol(g, "argument_list");
        comment = grammar_symbol(g, "comment");
        name = grammar_field(g, "name");
        scope = grammar_field(g, "scope");
        superclass_field = grammar_field(g, "superclass");
        method_field = grammar_field(g, "method");
        receiver = grammar_field(g, "receiver");
        arguments = grammar_field(g, "arguments");
        left = grammar_field(g, "left");
    }
};

bool is_require(std::string_view method) { return method == "require" || method == "require_relative"; }
bool is_mixin(std::string_view method) { return method == "include" || method == "extend" || method == "prepend"; }

// "A::B" as the engine joins scopes: "A.B".
std::string dotted(std::string_view scope) {
    std::string out;
    for (std::size_t i = 0; i < scope.size(); ++i) {
        if (scope.compare(i, 2, "::") == 0) {
            out.push_back('.');
            ++i;
        } else {
            out.push_back(scope[i]);
        }
    }
    return out;
}

// Finds the definitions, references, comments and requires of a Ruby tree.
class RubyWalker final : public TreeWalker {
public:
    RubyWalker(const RubyGrammar& g, Context& ctx, Captures& out) : TreeWalker(ctx, out), g_(g) {}

private:
    // A class or module named `Name` or `Outer::Name`: the name's constant, with the path
    // before it as the definition's explicit scope.
    void type_definition(TSNode node, Kind kind) {
        TSNode name = field(node, g_.name);
        if (is(name, g_.constant)) {
            definition(node, name, kind);
        } else if (is(name, g_.scope_resolution)) {
            TSNode last = field_of_type(name, g_.name, g_.constant);
            TSNode scope = field(name, g_.scope);
            if (ts_node_is_null(last)) return;
            definition(node, last, kind);
            if (!ts_node_is_null(scope)) out_.defs.back().scope = dotted(text(scope));
        }
    }

    // A constant or `A::B` used as `usage`, anchored at `anchor`.
    void constant_use(TSNode anchor, TSNode node, Usage usage) {
        if (is(node, g_.constant)) {
            reference(anchor, node, {}, usage);
        } else if (is(node, g_.scope_resolution)) {
            TSNode last = field_of_type(node, g_.name, g_.constant);
            if (!ts_node_is_null(last)) reference(anchor, last, node, usage);
        }
    }

    void visit_call(TSNode node) {
        TSNode method = field(node, g_.method_field);
        if (!is(method, g_.identifier) && !is(method, g_.constant)) return;
        const bool bare = ts_node_is_null(field(node, g_.receiver));
        const std::string_view name = text(method);
        if (bare && is_require(name)) {
            out_.imports.push_back(node);
        } else if (bare && is_mixin(name)) {
            TSNode arguments = field(node, g_.arguments);
            if (is(arguments, g_.argument_list)) {
                for (TSNode argument : all_children(arguments)) constant_use(argument, argument, Usage::inherit);
            }
        } else {
            reference(node, method, node, Usage::call);
        }
    }

    void visit(TSNode node) override {
        const TSSymbol symbol = ts_node_symbol(node);
        if (symbol == g_.call) {
            visit_call(node);
        } else if (symbol == g_.comment) {
            out_.comments.push_back(node);
        } else if (symbol == g_.method || symbol == g_.singleton_method) {
            TSNode name = field(node, g_.name);
            if (is_named(name)) definition(node, name, Kind::function);
        } else if (symbol == g_.class_) {
            type_definition(node, Kind::class_);
            TSNode base = field(node, g_.superclass_field);
            if (is(base, g_.superclass) && ts_node_named_child_count(base) > 0) {
                constant_use(base, ts_node_named_child(base, 0), Usage::inherit);
            }
        } else if (symbol == g_.module) {
            type_definition(node, Kind::module);
        } else if (symbol == g_.singleton_class) {
            // `class << self`: its methods belong to the class around it.
            scope_frame(node, {}, false);
        } else if (symbol == g_.assignment) {
            TSNode left = field(node, g_.left);
            if (is(left, g_.constant)) definition(node, left, Kind::constant);
        }
    }

    const RubyGrammar& g_;
};

// The innermost class, module, singleton class or method around `node`, or a null node.
TSNode enclosing_scope(TSNode node) {
    for (TSNode up = ts_node_parent(node); !ts_node_is_null(up); up = ts_node_parent(up)) {
        const std::string_view type = ts_node_type(up);
        if (type == "class" || type == "module" || type == "singleton_class" || type == "method" ||
            type == "singleton_method") {
            return up;
        }
    }
    return {};
}

// A method is private or protected when it is the argument of `private` (`private def x`), or
// when a bare `private` or `protected` comes before it in its body (until a bare `public`).
bool is_public_method(const Context& ctx, TSNode method) {
    TSNode parent = ts_node_parent(method);
    if (node_is(parent, "argument_list")) {
        TSNode call = ts_node_parent(parent);
        const std::string_view name = node_text(ctx.text, child_by_field(call, "method"));
        return !(name == "private" || name == "protected" || name == "private_class_method");
    }
    for (TSNode before = ts_node_prev_named_sibling(method); !ts_node_is_null(before);
         before = ts_node_prev_named_sibling(before)) {
        if (!node_is(before, "identifier")) continue;
        const std::string_view word = node_text(ctx.text, before);
        if (word == "private" || word == "protected") return false;
        if (word == "public") return true;
    }
    return true;
}

class RubyRules final : public LanguageRules {
public:
    void walk(Context& ctx, TSNode root, Captures& out) const override {
        static const RubyGrammar kGrammar;
        RubyWalker(kGrammar, ctx, out).walk(root);
    }

    void definitions(Context& ctx, RawDef def, std::vector<RawDef>& out) const override {
        def.own_export = true;
        if (def.kind == Kind::function) {
            // Inside a class, a module or `class << self`, a def is a method, public or not.
            const TSNode scope = enclosing_scope(def.node);
            if (node_is(scope, "class") || node_is(scope, "module") || node_is(scope, "singleton_class")) {
                def.kind = Kind::method;
                def.own_export = is_public_method(ctx, def.node);
            }
        }
        LanguageRules::definitions(ctx, std::move(def), out);
    }

    std::string module_name(const Context&) const override { return {}; }

    // The head: `def name(params)`, `def self.name`, `class Name < Base`, `module Name`, or the
    // first line of a constant's assignment.
    std::optional<std::string> signature(const Context& ctx, const RawDef& def) const override {
        const std::uint32_t start = ts_node_start_byte(def.node);
        std::uint32_t end = ts_node_end_byte(def.node);
        TSNode last = child_by_field(def.node, "parameters");
        if (ts_node_is_null(last)) last = child_by_field(def.node, "superclass");
        if (ts_node_is_null(last)) last = child_by_field(def.node, "name");
        if (def.kind != Kind::constant && !ts_node_is_null(last)) end = ts_node_end_byte(last);
        std::string_view head = ctx.text.substr(start, end - start);
        if (def.kind == Kind::constant) head = head.substr(0, head.find('\n'));
        return fold_whitespace(utf8_prefix(head, 300));
    }

    // require "a/b": the module "a/b", a use of "b" qualified by "a". require_relative paths are
    // relative to the file and recorded so ("x" as "./x").
    void imports(Context& ctx, TSNode node, std::vector<RawRef>& refs) const override {
        const std::string_view method = node_text(ctx.text, child_by_field(node, "method"));
        TSNode arguments = child_by_field(node, "arguments");
        if (ts_node_named_child_count(arguments) != 1) return;
        TSNode literal = ts_node_named_child(arguments, 0);
        if (!node_is(literal, "string") || ts_node_named_child_count(literal) != 1) return;
        TSNode content = ts_node_named_child(literal, 0);
        if (!node_is(content, "string_content")) return;
        std::string module(node_text(ctx.text, content));
        if (module.empty()) return;
        if (method == "require_relative" && !module.starts_with("./") && !module.starts_with("../")) {
            module.insert(0, "./");
        }
        const std::size_t slash = module.find_last_of('/');
        std::string name = slash == std::string::npos ? module : module.substr(slash + 1);
        std::string qualifier = slash == std::string::npos ? std::string() : module.substr(0, slash);
        refs.push_back(import_reference(content, std::move(name), std::move(qualifier)));
        add_import(ctx, std::move(module), {}, std::nullopt, node);
    }
};

}  // namespace

const LanguageRules& ruby_rules() {
    static const RubyRules rules;
    return rules;
}

}  // namespace orvane_kestrix::indexer::detail
