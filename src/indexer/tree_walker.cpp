#include "tree_walker.hpp"

#include <stdexcept>
#include <string>

namespace orvane_kestrix::indexer::detail {

TSSymbol grammar_symbol(const TSLanguage* language, std::string_view type, bool named) {
    const TSSymbol id = ts_language_symbol_for_name(language, type.data(), static_cast<std::uint32_t>(type.size()), named);
    if (id == 0) throw std::logic_error("grammar has no node type " + std::string(type));
    return id;
}

TSFieldId grammar_field(const TSLanguage* language, std::string_view field) {
    const TSFieldId id = ts_language_field_id_for_name(language, field.data(), static_cast<std::uint32_t>(field.size()));
    if (id == 0) throw std::logic_error("grammar has no field " + std::string(field));
    return id;
}

TreeWalker::TreeWalker(Context& ctx, Captures& out) : ctx_(ctx), out_(out) {}

TreeWalker::~TreeWalker() = default;

void TreeWalker::walk(TSNode root) {
    TSTreeCursor cursor = ts_tree_cursor_new(root);
    children_cursor_ = ts_tree_cursor_new(root);
    struct Release {
        TSTreeCursor& cursor;
        TSTreeCursor& children;
        ~Release() {
            ts_tree_cursor_delete(&children);
            ts_tree_cursor_delete(&cursor);
        }
    } release{cursor, children_cursor_};
    std::size_t depth = 0;
    for (std::uint64_t visited = 1;; ++visited) {
        // A stop request ends the walk; checked every few thousand nodes (well under a
        // millisecond apart).
        if (visited % 4096 == 0 && stop_requested(ctx_.options)) return;
        visit(ts_tree_cursor_current_node(&cursor));
        if (depth < kMaxTreeDepth && ts_tree_cursor_goto_first_child(&cursor)) {
            ++depth;
            continue;
        }
        while (!ts_tree_cursor_goto_next_sibling(&cursor)) {
            if (!ts_tree_cursor_goto_parent(&cursor)) return;
            --depth;
        }
    }
}

template <class Keep>
std::vector<TSNode> TreeWalker::collect_children(TSNode node, Keep keep) {
    std::vector<TSNode> found;
    ts_tree_cursor_reset(&children_cursor_, node);
    if (ts_tree_cursor_goto_first_child(&children_cursor_)) {
        do {
            if (keep(children_cursor_)) found.push_back(ts_tree_cursor_current_node(&children_cursor_));
        } while (ts_tree_cursor_goto_next_sibling(&children_cursor_));
    }
    return found;
}

std::vector<TSNode> TreeWalker::children(TSNode node, TSSymbol symbol) {
    return collect_children(node, [symbol](const TSTreeCursor& cursor) {
        return ts_node_symbol(ts_tree_cursor_current_node(&cursor)) == symbol;
    });
}

std::vector<TSNode> TreeWalker::all_children(TSNode node) {
    return collect_children(node, [](const TSTreeCursor&) { return true; });
}

std::vector<TSNode> TreeWalker::field_children(TSNode node, TSFieldId field) {
    return collect_children(node, [field](const TSTreeCursor& cursor) {
        return ts_tree_cursor_current_field_id(&cursor) == field;
    });
}

void TreeWalker::definition(TSNode node, TSNode name, Kind kind, bool hoisted) {
    RawDef d;
    d.node = node;
    d.outer = node;
    d.name_node = name;
    d.kind = kind;
    d.hoisted = hoisted;
    out_.defs.push_back(std::move(d));
}

void TreeWalker::reference(TSNode anchor, TSNode name, TSNode callee, Usage usage) {
    RawRef r;
    r.anchor = anchor;
    r.name_node = name;
    r.callee = callee;
    r.usage = usage;
    out_.refs.push_back(std::move(r));
}

void TreeWalker::scope_frame(TSNode node, TSNode name, bool internal) {
    RawDef frame;
    frame.node = node;
    frame.outer = node;
    frame.name_node = name;
    frame.kind = Kind::frame;
    frame.internal = internal;
    out_.defs.push_back(std::move(frame));
}

}  // namespace orvane_kestrix::indexer::detail
