// Java: package-qualified names, `public` exports (interface members are public), constants
// (`static final` fields), imports.

#include <string>
#include <string_view>
#include <vector>

#include "extract_internal.hpp"

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

class JavaRules final : public LanguageRules {
public:
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
