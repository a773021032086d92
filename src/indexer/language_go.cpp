// Go: methods qualified by their receiver type, capitalised exports, package names, imports.

#include <string>
#include <string_view>
#include <vector>

#include "extract_internal.hpp"

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

class GoRules final : public LanguageRules {
public:
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
