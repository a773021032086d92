#pragma once
// The base of the languages' tree walkers: one pre-order walk over every node of a parse tree,
// with helpers that record what the walk finds (definitions, references, scope frames). One
// cursor walk costs a fraction of what a tree-sitter query's traversal over the same tree does.

#include <cstddef>
#include <string_view>
#include <vector>

#include <tree_sitter/api.h>

#include "extract_internal.hpp"

namespace orvane_kestrix::indexer::detail {

// Grammar ids by name. A name the grammar lacks is a walker bug (std::logic_error).
TSSymbol grammar_symbol(const TSLanguage* language, std::string_view type, bool named = true);
TSFieldId grammar_field(const TSLanguage* language, std::string_view field);

// Nodes deeper than this are not visited. Walking is linear in the tree's size, but what the
// rules do for each definition (finding a node's parent, qualifying its name) grows with its
// depth; no hand-written code nests this deep, generated or hostile input may.
inline constexpr std::size_t kMaxTreeDepth = 1000;

class TreeWalker {
public:
    TreeWalker(Context& ctx, Captures& out);
    virtual ~TreeWalker();
    TreeWalker(const TreeWalker&) = delete;
    TreeWalker& operator=(const TreeWalker&) = delete;

    // Visits every node, in document order. Once per walker.
    void walk(TSNode root);

protected:
    virtual void visit(TSNode node) = 0;

    static bool is(TSNode node, TSSymbol symbol) { return !ts_node_is_null(node) && ts_node_symbol(node) == symbol; }
    // A named node (not punctuation or a keyword).
    static bool is_named(TSNode node) { return !ts_node_is_null(node) && ts_node_is_named(node); }
    // The first child in a field (null when there is none).
    static TSNode field(TSNode node, TSFieldId id) { return ts_node_child_by_field_id(node, id); }
    // The first child in a field when it is of type `symbol`, else null.
    static TSNode field_of_type(TSNode node, TSFieldId id, TSSymbol symbol) {
        TSNode child = field(node, id);
        return is(child, symbol) ? child : TSNode{};
    }
    std::string_view text(TSNode node) const { return node_text(ctx_.text, node); }

    // The direct children of `node` of type `symbol`, in order.
    std::vector<TSNode> children(TSNode node, TSSymbol symbol);
    // All direct children of `node`, named or not, in order.
    std::vector<TSNode> all_children(TSNode node);
    // The direct children of `node` in field `field` (a field may hold several), in order.
    std::vector<TSNode> field_children(TSNode node, TSFieldId field);

    void definition(TSNode node, TSNode name, Kind kind, bool hoisted = false);
    void reference(TSNode anchor, TSNode name, TSNode callee, Usage usage);
    // A scope that is no definition: an impl block named by `name`, an anonymous namespace.
    void scope_frame(TSNode node, TSNode name, bool internal);

    Context& ctx_;
    Captures& out_;

private:
    // The direct children of `node` the cursor predicate `keep` accepts, in order.
    template <class Keep>
    std::vector<TSNode> collect_children(TSNode node, Keep keep);

    TSTreeCursor children_cursor_{};  // for children() and field_children(), during walk()
};

}  // namespace orvane_kestrix::indexer::detail
