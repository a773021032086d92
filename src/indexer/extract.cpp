// The extractor: parses a file with its language's grammar, finds the captures with the
// language's walker, and turns them into symbols (qualified
// names, kinds, exports, lines, signatures, docstrings), references (with their callers) and
// imports.

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "extract_internal.hpp"
#include "languages.hpp"
#include "orvane_kestrix/indexer/extraction.hpp"
#include "orvane_kestrix/text/unicode.hpp"

namespace orvane_kestrix::indexer {

using namespace detail;

namespace {

// Definitions nested in more scopes than this, or whose qualified name would be longer, are
// dropped with everything inside them: each qualified name repeats its parents', so without a
// bound deep nesting costs the square of its depth in time, memory and index size.
constexpr std::size_t kMaxScopeDepth = 100;
constexpr std::size_t kMaxQualifiedNameBytes = 2048;

// The text as the index reads files (text::source_text), with NUL bytes as spaces, as some
// grammars' scanners take them for the end of input. Returns false when the content can be
// used as it is.
bool normalize(std::string_view content, std::string& out) {
    const bool has_nul = std::memchr(content.data(), '\0', content.size()) != nullptr;
    if (!has_nul && text::is_source_text(content)) return false;
    out = text::source_text(content);
    if (has_nul) std::replace(out.begin(), out.end(), '\0', ' ');
    return true;
}

bool same_node(TSNode a, TSNode b) {
    return a.id == b.id && ts_node_start_byte(a) == ts_node_start_byte(b);
}

int kind_priority(Kind kind) {
    switch (kind) {
        case Kind::variable:
        case Kind::constant:
        case Kind::field:
        case Kind::property: return 0;
        case Kind::type: return 1;
        default: return 2;
    }
}

int usage_priority(Usage usage) {
    switch (usage) {
        case Usage::type: return 0;
        case Usage::import: return 1;
        case Usage::call: return 2;
        case Usage::inherit: return 3;
    }
    return 0;
}

bool is_scope(const RawDef& def) {
    if (def.forms_scope) return true;
    switch (def.kind) {
        case Kind::type:
        case Kind::variable:
        case Kind::constant:
        case Kind::field:
        case Kind::property:
        case Kind::declaration:
        case Kind::member:
        case Kind::typedef_: return false;
        default: return true;
    }
}

std::string join_name(std::string_view base, std::string_view name) {
    if (base.empty()) return std::string(name);
    if (name.empty()) return std::string(base);
    std::string out;
    out.reserve(base.size() + 1 + name.size());
    out.append(base).push_back('.');
    out.append(name);
    return out;
}

std::string qualifier_of(std::string_view text, const RawRef& ref) {
    constexpr std::size_t kMaxQualifier = 256;
    if (ts_node_is_null(ref.callee) || ts_node_is_null(ref.name_node)) return {};
    std::uint32_t start = ts_node_start_byte(ref.callee);
    std::uint32_t end = ts_node_start_byte(ref.name_node);
    if (end <= start || end > text.size()) return {};
    std::string_view q = text.substr(start, end - start);
    // What separates the qualifier from the name: ".", "::", "->", "?.", white space.
    while (!q.empty()) {
        char c = q.back();
        if (c == '.' || c == ':' || c == '>' || c == '?' || c == ' ' || c == '\t' || c == '\n') {
            if (c == '>' && !(q.size() >= 2 && q[q.size() - 2] == '-')) break;
            q.remove_suffix(c == '>' ? 2 : 1);
        } else {
            break;
        }
    }
    if (q.size() > 4 * kMaxQualifier) q = utf8_prefix(q, 4 * kMaxQualifier);
    std::string folded = fold_whitespace(q);
    if (folded.size() > kMaxQualifier) folded.resize(utf8_prefix(folded, kMaxQualifier).size());
    return folded;
}

class Engine {
public:
    Engine(Context& ctx, const LanguageRules& rules) : ctx_(ctx), rules_(rules) {}

    void run(TSNode root) {
        collect(root);
        if (stop_requested(ctx_.options)) return;
        rules_.prepare(ctx_, captures_.defs);
        ctx_.module_name = rules_.module_name(ctx_);
        ctx_.out.module_name = ctx_.module_name;
        build_definitions();
        for (TSNode node : captures_.imports) rules_.imports(ctx_, node, captures_.refs);
        emit_symbols();
        emit_references();
    }

private:
    void collect(TSNode root) {
        rules_.walk(ctx_, root, captures_);
        // Keep comments sorted for the lookups of doc comments, whatever order the walk found them in.
        std::sort(captures_.comments.begin(), captures_.comments.end(), [](TSNode a, TSNode b) {
            return ts_node_start_byte(a) < ts_node_start_byte(b);
        });
    }

    void build_definitions() {
        std::vector<RawDef> defs;
        defs.reserve(captures_.defs.size());
        for (auto& raw : captures_.defs) {
            if (raw.kind == Kind::frame) {
                raw.start_byte = ts_node_start_byte(raw.node);
                raw.end_byte = ts_node_end_byte(raw.node);
                rules_.definitions(ctx_, std::move(raw), defs);
                continue;
            }
            raw.start_byte = ts_node_start_byte(raw.node);
            raw.end_byte = ts_node_end_byte(raw.node);
            rules_.definitions(ctx_, std::move(raw), defs);
        }
        captures_.defs.clear();

        std::stable_sort(defs.begin(), defs.end(), [](const RawDef& a, const RawDef& b) {
            if (a.start_byte != b.start_byte) return a.start_byte < b.start_byte;
            if (a.end_byte != b.end_byte) return a.end_byte > b.end_byte;
            return a.name.data() < b.name.data();
        });
        // The same definition found twice (under two kinds): keep the most specific kind.
        std::vector<RawDef> unique;
        unique.reserve(defs.size());
        for (auto& d : defs) {
            if (!unique.empty()) {
                RawDef& last = unique.back();
                if (same_node(last.node, d.node) && last.name == d.name && last.kind != Kind::frame &&
                    d.kind != Kind::frame) {
                    if (kind_priority(d.kind) > kind_priority(last.kind)) last = std::move(d);
                    continue;
                }
            }
            unique.push_back(std::move(d));
        }
        defs_ = std::move(unique);

        // Nesting by node span. `container` is the innermost definition around (any kind);
        // `parent` the innermost scope (what qualifies the name).
        container_.assign(defs_.size(), std::nullopt);
        std::vector<bool> dropped(defs_.size(), false);
        // Scopes around each definition and an upper bound of its qualified name's length.
        std::vector<std::size_t> depth(defs_.size(), 0);
        std::vector<std::size_t> qualified_bytes(defs_.size(), 0);
        std::vector<std::size_t> stack;
        for (std::size_t i = 0; i < defs_.size(); ++i) {
            RawDef& d = defs_[i];
            while (!stack.empty()) {
                const RawDef& top = defs_[stack.back()];
                if (top.start_byte <= d.start_byte && d.end_byte <= top.end_byte) break;
                stack.pop_back();
            }
            std::optional<std::size_t> parent;
            for (std::size_t k = stack.size(); k-- > 0;) {
                const RawDef& candidate = defs_[stack[k]];
                if (same_node(candidate.node, d.node)) continue;
                if (!container_[i]) container_[i] = stack[k];
                if (is_scope(candidate)) {
                    parent = stack[k];
                    break;
                }
            }
            depth[i] = parent ? depth[*parent] + 1 : 0;
            qualified_bytes[i] = (parent ? qualified_bytes[*parent] : ctx_.module_name.size()) + d.scope.size() +
                                 d.name.size() + 4;
            if (parent && dropped[*parent]) {
                dropped[i] = true;
            } else if (depth[i] > kMaxScopeDepth || qualified_bytes[i] > kMaxQualifiedNameBytes) {
                dropped[i] = true;
            } else if (parent && !rules_.keep_nested(d, defs_[*parent])) {
                dropped[i] = true;
            }
            if (d.hoisted && parent && is_callable(defs_[*parent].kind)) parent = defs_[*parent].parent;
            d.parent = parent;
            stack.push_back(i);
        }
        if (std::find(dropped.begin(), dropped.end(), true) != dropped.end()) {
            // Re-index without the dropped definitions.
            std::vector<std::size_t> remap(defs_.size(), std::numeric_limits<std::size_t>::max());
            std::vector<RawDef> kept;
            std::vector<std::optional<std::size_t>> kept_container;
            for (std::size_t i = 0; i < defs_.size(); ++i) {
                if (dropped[i]) continue;
                remap[i] = kept.size();
                kept.push_back(std::move(defs_[i]));
                kept_container.push_back(container_[i]);
            }
            auto fix = [&](std::optional<std::size_t>& index) {
                while (index && remap[*index] == std::numeric_limits<std::size_t>::max()) index.reset();
                if (index) index = remap[*index];
            };
            for (auto& d : kept) fix(d.parent);
            for (auto& c : kept_container) fix(c);
            defs_ = std::move(kept);
            container_ = std::move(kept_container);
        }

        std::unordered_set<std::string_view> seen_fqns;
        for (std::size_t i = 0; i < defs_.size(); ++i) {
            RawDef& d = defs_[i];
            const RawDef* parent = d.parent ? &defs_[*d.parent] : nullptr;
            if (parent && d.kind == Kind::function &&
                (is_type_like(parent->kind) || (parent->kind == Kind::frame && !parent->name.empty()))) {
                d.kind = Kind::method;
            }
            std::string base = d.detached_scope || !parent ? ctx_.module_name : parent->fqn;
            if (!d.scope.empty()) base = join_name(base, d.scope);
            d.fqn = join_name(base, d.name);

            if (d.internal) {
                d.exported = false;
            } else if (!parent) {
                d.exported = d.own_export;
            } else if (parent->kind == Kind::frame) {
                d.exported = parent->exported && d.own_export;
            } else if (is_callable(parent->kind)) {
                d.exported = false;
            } else {
                d.exported = parent->exported && rules_.member_export(ctx_, d);
            }
            if (d.kind == Kind::frame && !d.internal) d.exported = parent ? parent->exported : true;
            // An attribute assigned again (or declared in the class body too) is one symbol.
            if (d.hoisted) {
                d.suppressed = !seen_fqns.insert(d.fqn).second;
            } else {
                seen_fqns.insert(d.fqn);
            }
        }
    }

    // The output index of a definition's parent: frames stand for the type they implement
    // (when it is in this file) or for their own parent; definitions qualified by a scope
    // (Go receivers, C++ `A::f`) belong to that type when it is in this file.
    std::optional<std::size_t> output_parent(std::size_t i) {
        const RawDef& d = defs_[i];
        if (!d.scope.empty()) {
            std::string_view owner(d.fqn);
            std::size_t dot = owner.size() - std::min(owner.size(), d.name.size() + 1);
            owner = owner.substr(0, dot);
            if (auto it = by_fqn_.find(owner); it != by_fqn_.end()) return it->second;
        }
        std::optional<std::size_t> p = d.parent;
        while (p && defs_[*p].kind == Kind::frame) {
            const RawDef& frame = defs_[*p];
            if (!frame.name.empty()) {
                if (auto it = by_fqn_.find(frame.fqn); it != by_fqn_.end()) return it->second;
            }
            p = frame.parent;
        }
        if (p) return output_index_[*p];
        return std::nullopt;
    }

    void emit_symbols() {
        output_index_.assign(defs_.size(), std::nullopt);
        auto& symbols = ctx_.out.symbols;
        symbols.reserve(defs_.size());
        for (std::size_t i = 0; i < defs_.size(); ++i) {
            const RawDef& d = defs_[i];
            if (d.kind == Kind::frame || d.suppressed) continue;
            output_index_[i] = symbols.size();
            by_fqn_.emplace(d.fqn, symbols.size());
            ExtractedSymbol s;
            s.name = std::string(d.name);
            s.fqn = d.fqn;
            s.kind = std::string(kind_name(d.kind));
            s.start_line = ts_node_start_point(d.outer).row + 1;
            s.end_line = last_row(d.outer) + 1;
            s.is_export = d.exported;
            s.signature = rules_.signature(ctx_, d);
            if (s.signature && s.signature->empty()) s.signature.reset();
            std::optional<std::string> doc = rules_.docstring(ctx_, d, captures_.comments);
            if (doc && !doc->empty()) {
                if (doc->size() > ctx_.options.docstring_limit) {
                    doc->resize(utf8_prefix(*doc, ctx_.options.docstring_limit).size());
                    s.docstring_truncated = true;
                }
                s.docstring = std::move(*doc);
            }
            symbols.push_back(std::move(s));
        }
        for (std::size_t i = 0; i < defs_.size(); ++i) {
            if (!output_index_[i]) continue;
            symbols[*output_index_[i]].parent = output_parent(i);
        }
    }

    // The symbol whose definition encloses `byte`: the innermost one by span.
    std::optional<std::size_t> caller_at(std::uint32_t byte) {
        auto it = std::upper_bound(defs_.begin(), defs_.end(), byte,
                                   [](std::uint32_t b, const RawDef& d) { return b < d.start_byte; });
        if (it == defs_.begin()) return std::nullopt;
        std::optional<std::size_t> i = static_cast<std::size_t>(it - defs_.begin()) - 1;
        while (i) {
            const RawDef& d = defs_[*i];
            if (d.start_byte <= byte && byte < d.end_byte) break;
            i = container_[*i];
        }
        while (i && !output_index_[*i]) {
            // A frame: the type it implements when it is here, else what is around it.
            const RawDef& frame = defs_[*i];
            if (!frame.name.empty()) {
                if (auto found = by_fqn_.find(frame.fqn); found != by_fqn_.end()) return found->second;
            }
            i = container_[*i];
        }
        if (i) return output_index_[*i];
        return std::nullopt;
    }

    void emit_references() {
        // Names of definitions are not uses of them; nor are the names the walker marked.
        std::vector<std::uint32_t> definition_names;
        definition_names.reserve(defs_.size());
        for (const auto& d : defs_) {
            if (!ts_node_is_null(d.name_node)) definition_names.push_back(ts_node_start_byte(d.name_node));
        }
        definition_names.insert(definition_names.end(), captures_.not_uses.begin(), captures_.not_uses.end());
        std::sort(definition_names.begin(), definition_names.end());

        std::vector<RawRef> kept;
        kept.reserve(captures_.refs.size());
        for (auto& r : captures_.refs) {
            if (!r.name && !rules_.complete_reference(ctx_, r)) continue;
            if (!r.name && ts_node_is_null(r.name_node)) continue;
            if (!ts_node_is_null(r.name_node) && r.usage != Usage::import &&
                std::binary_search(definition_names.begin(), definition_names.end(),
                                   ts_node_start_byte(r.name_node))) {
                continue;
            }
            kept.push_back(std::move(r));
        }
        auto position = [](const RawRef& r) {
            TSNode at = ts_node_is_null(r.name_node) ? r.anchor : r.name_node;
            return ts_node_start_byte(at);
        };
        std::stable_sort(kept.begin(), kept.end(),
                         [&](const RawRef& a, const RawRef& b) { return position(a) < position(b); });

        auto& out = ctx_.out.references;
        out.reserve(kept.size());
        const RawRef* previous = nullptr;
        for (const auto& r : kept) {
            // One use found twice (a type that is also a base class): the most
            // telling usage wins.
            if (previous && !r.name && !previous->name && !ts_node_is_null(r.name_node) &&
                same_node(r.name_node, previous->name_node)) {
                int rank = usage_priority(r.usage);
                int previous_rank = usage_priority(previous->usage);
                std::string q = qualifier_of(ctx_.text, r);
                if (rank > previous_rank) {
                    out.back().usage_type = std::string(usage_name(r.usage));
                    if (!q.empty()) out.back().qualifier = std::move(q);
                } else if (rank == previous_rank && out.back().qualifier.empty()) {
                    out.back().qualifier = std::move(q);
                }
                continue;
            }
            TSNode at = ts_node_is_null(r.name_node) ? r.anchor : r.name_node;
            TSPoint point = ts_node_start_point(at);
            ExtractedReference e;
            e.name = r.name ? *r.name : std::string(node_text(ctx_.text, r.name_node));
            e.qualifier = r.qualifier ? *r.qualifier : qualifier_of(ctx_.text, r);
            e.usage_type = std::string(usage_name(r.usage));
            e.line = point.row + 1;
            e.context = context_line(ctx_.lines, point.row, point.column);
            e.caller = caller_at(ts_node_start_byte(at));
            // A name the parser made up in error recovery is empty: no use. It must not become
            // `previous` either, since a use found twice is merged into the last one written.
            if (e.name.empty()) continue;
            previous = &r;
            out.push_back(std::move(e));
        }
    }

    Context& ctx_;
    const LanguageRules& rules_;
    Captures captures_;
    std::vector<RawDef> defs_;
    std::vector<std::optional<std::size_t>> container_;
    std::vector<std::optional<std::size_t>> output_index_;
    std::unordered_map<std::string_view, std::size_t> by_fqn_;
};

// The parser reports progress every hundred or so operations. Ordinary code needs well under
// one report per 30 bytes; error recovery on garbage can go on for minutes (seen with the TSX
// grammar on random bytes), so parsing stops after a number of reports that grows with the file
// (deterministic), or, as a backstop when recovery makes each operation slow, after a time that
// grows with it too.
// A stop request ends the parse too.
struct ParseBudget {
    std::uint64_t reports = 0;
    std::uint64_t limit = 0;
    std::chrono::steady_clock::time_point deadline;
    const std::atomic<bool>* cancel = nullptr;
};

bool over_budget(TSParseState* state) {
    auto* budget = static_cast<ParseBudget*>(state->payload);
    if (++budget->reports > budget->limit) return true;
    if (budget->cancel && budget->cancel->load(std::memory_order_relaxed)) return true;
    return (budget->reports & 63) == 0 && std::chrono::steady_clock::now() > budget->deadline;
}

const char* read_text(void* payload, std::uint32_t byte, TSPoint, std::uint32_t* bytes_read) {
    auto* text = static_cast<std::string_view*>(payload);
    if (byte >= text->size()) {
        *bytes_read = 0;
        return "";
    }
    *bytes_read = static_cast<std::uint32_t>(text->size() - byte);
    return text->data() + byte;
}

TSTree* parse_with_budget(TSParser* parser, std::string_view text, const std::atomic<bool>* cancel) {
    ParseBudget budget;
    budget.cancel = cancel;
    budget.limit = 5000 + text.size() / 4;
    budget.deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10) +
                      std::chrono::milliseconds(text.size() / 50000 * 1000);
    TSInput input{};
    input.payload = &text;
    input.read = read_text;
    input.encoding = TSInputEncodingUTF8;
    TSParseOptions options{};
    options.payload = &budget;
    options.progress_callback = over_budget;
    return ts_parser_parse_with_options(parser, nullptr, input, options);
}

}  // namespace

struct Extractor::Impl {
    ExtractorOptions options;
    TSParser* parser = nullptr;

    explicit Impl(ExtractorOptions o) : options(o), parser(ts_parser_new()) {}
    ~Impl() { ts_parser_delete(parser); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
};

Extractor::Extractor(ExtractorOptions options) : impl_(std::make_unique<Impl>(options)) {}
Extractor::~Extractor() = default;

FileExtraction Extractor::extract(Language language, std::string_view path, std::string_view content) {
    FileExtraction out;
    std::string normalized;
    std::string_view text = normalize(content, normalized) ? std::string_view(normalized) : content;

    switch (language_spec(language).reading) {
        case Reading::markdown: extract_markdown(path, text, impl_->options, out); return out;
        case Reading::none: out.module_name = dotted_path_module(path, false); return out;
        case Reading::parsed: break;
        case Reading::unset: throw std::logic_error("the language table leaves the reading of a language unset");
    }
    // Offsets are 32-bit in the parser.
    if (text.size() >= std::numeric_limits<std::uint32_t>::max()) {
        out.has_syntax_errors = true;
        return out;
    }

    if (!ts_parser_set_language(impl_->parser, grammar(language))) {
        out.has_syntax_errors = true;
        return out;
    }
    TSTree* tree = parse_with_budget(impl_->parser, text, impl_->options.cancel);
    if (tree == nullptr) {
        ts_parser_reset(impl_->parser);
        if (stop_requested(impl_->options)) {
            out.cancelled = true;
            return out;
        }
        out.module_name = rules_for(language).module_name(
            Context{language, path, text, LineIndex(std::string_view{}), impl_->options, out, {}, {}, false, {}, false});
        out.has_syntax_errors = true;
        out.parse_abandoned = true;
        return out;
    }
    struct TreeGuard {
        TSTree* tree;
        ~TreeGuard() { ts_tree_delete(tree); }
    } guard{tree};

    TSNode root = ts_tree_root_node(tree);
    out.has_syntax_errors = ts_node_has_error(root);

    LineIndex lines(text);
    Context ctx{language, path, text, lines, impl_->options, out, {}, {}, false, {}, false};
    Engine engine(ctx, rules_for(language));
    engine.run(root);
    if (stop_requested(impl_->options)) out.cancelled = true;
    return out;
}

}  // namespace orvane_kestrix::indexer
