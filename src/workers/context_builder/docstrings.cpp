// Docstring parameters: the parameters that a documentation comment describes, read from an
// indented "Args:" block, ":param"/":type" fields and "@param" tags.

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "orvane_kestrix/text/unicode.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace orvane_kestrix {

namespace {

// Bounds on one match attempt. A pattern that would need more (only pathological texts do)
// counts as not matching, so parsing a comment always ends quickly.
constexpr std::uint32_t MATCH_LIMIT = 1'000'000;
constexpr std::uint32_t DEPTH_LIMIT = 1'000'000;
constexpr std::uint32_t HEAP_LIMIT_KIB = 128 * 1024;
constexpr PCRE2_SIZE JIT_STACK_START = 32 * 1024;
constexpr PCRE2_SIZE JIT_STACK_MAX = 16 * 1024 * 1024;
// Characters that the scans marked with a callout may read in one walk over a text. Ordinary
// comments use a tiny part of it; only texts that make every attempt rescan a long tail (many
// unclosed braces) reach it, and they then count as having no further match.
constexpr std::size_t SCAN_BUDGET = 8 * 1024 * 1024;

// The patterns are written with \s and \w and mean by them: white space as str.isspace sees it
// (the same set that trimming removes), and letters and digits of any script plus the
// underscore. Both are spelled out as classes so that they do not depend on the Unicode
// tables or the version of the regular-expression library.
constexpr std::string_view SPACE_CLASS =
    R"([\t-\r\x{1c}-\x{20}\x{85}\x{a0}\x{1680}\x{2000}-\x{200a}\x{2028}\x{2029}\x{202f}\x{205f}\x{3000}])";
constexpr std::string_view WORD_CLASS = R"([\p{L}\p{N}_])";
// White space other than the line feed, written [^\S\n] below.
constexpr std::string_view SPACE_NOT_LF_CLASS =
    R"([\t\x{0b}-\r\x{1c}-\x{20}\x{85}\x{a0}\x{1680}\x{2000}-\x{200a}\x{2028}\x{2029}\x{202f}\x{205f}\x{3000}])";

std::string expand_classes(std::string_view pattern) {
    std::string out;
    constexpr std::string_view space_not_lf = R"([^\S\n])";
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern.substr(i, space_not_lf.size()) == space_not_lf) {
            out += SPACE_NOT_LF_CLASS;
            i += space_not_lf.size() - 1;
        } else if (pattern[i] == '\\' && i + 1 < pattern.size()) {
            const char next = pattern[i + 1];
            if (next == 's') {
                out += SPACE_CLASS;
            } else if (next == 'w') {
                out += WORD_CLASS;
            } else {
                out += pattern.substr(i, 2);
            }
            ++i;
        } else {
            out += pattern[i];
        }
    }
    return out;
}

// One successful match: the subject and the offsets of the whole match and its groups.
class Match {
public:
    static constexpr std::size_t MAX_GROUPS = 4;

    Match(std::string_view subject, const PCRE2_SIZE* ovector, std::uint32_t pairs) : subject_(subject) {
        offsets_.fill(PCRE2_UNSET);
        for (std::uint32_t i = 0; i < pairs && i < MAX_GROUPS; ++i) {
            offsets_[2 * i] = ovector[2 * i];
            offsets_[2 * i + 1] = ovector[2 * i + 1];
        }
    }

    std::size_t start() const { return offsets_[0]; }
    std::size_t end() const { return offsets_[1]; }
    // The text of group `n`, or absent when the group took no part in the match.
    std::optional<std::string_view> group(std::size_t n) const {
        if (n >= MAX_GROUPS || offsets_[2 * n] == PCRE2_UNSET) return std::nullopt;
        return subject_.substr(offsets_[2 * n], offsets_[2 * n + 1] - offsets_[2 * n]);
    }
    std::string_view text(std::size_t n) const { return group(n).value_or(std::string_view{}); }

private:
    std::string_view subject_;
    std::array<PCRE2_SIZE, 2 * MAX_GROUPS> offsets_{};
};

int charge_scan(pcre2_callout_block* block, void* data);

// Per-thread match resources: the limits, the JIT stack, the match data and the scan budget.
struct MatchResources {
    MatchResources() {
        context = pcre2_match_context_create(nullptr);
        data = pcre2_match_data_create(Match::MAX_GROUPS, nullptr);
        jit_stack = pcre2_jit_stack_create(JIT_STACK_START, JIT_STACK_MAX, nullptr);
        if (context) {
            pcre2_set_match_limit(context, MATCH_LIMIT);
            pcre2_set_depth_limit(context, DEPTH_LIMIT);
            pcre2_set_heap_limit(context, HEAP_LIMIT_KIB);
            pcre2_set_callout(context, charge_scan, this);
            if (jit_stack) pcre2_jit_stack_assign(context, nullptr, jit_stack);
        }
    }
    ~MatchResources() {
        pcre2_match_data_free(data);
        pcre2_match_context_free(context);
        pcre2_jit_stack_free(jit_stack);
    }
    MatchResources(const MatchResources&) = delete;
    MatchResources& operator=(const MatchResources&) = delete;

    bool usable() const { return context && data; }

    pcre2_match_context* context = nullptr;
    pcre2_match_data* data = nullptr;
    pcre2_jit_stack* jit_stack = nullptr;
    std::size_t scan_budget = SCAN_BUDGET;
};

// Called where a marked scan ends: charges what the attempt has read so far, and gives up the
// walk once the budget is spent.
int charge_scan(pcre2_callout_block* block, void* data) {
    auto& resources = *static_cast<MatchResources*>(data);
    const std::size_t cost = block->current_position - block->start_match;
    if (cost > resources.scan_budget) {
        resources.scan_budget = 0;
        return PCRE2_ERROR_CALLOUT;
    }
    resources.scan_budget -= cost;
    return 0;
}

MatchResources& match_resources() {
    thread_local MatchResources resources;
    return resources;
}

class Pattern {
public:
    Pattern(std::string_view pattern, std::uint32_t options) {
        const std::string expanded = expand_classes(pattern);
        pcre2_compile_context* context = pcre2_compile_context_create(nullptr);
        if (context) pcre2_set_newline(context, PCRE2_NEWLINE_LF);
        int error = 0;
        PCRE2_SIZE error_offset = 0;
        code_ = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(expanded.data()), expanded.size(),
                              options | PCRE2_UTF | PCRE2_UCP, &error, &error_offset, context);
        pcre2_compile_context_free(context);
        // Without JIT (an unsupported platform) the interpreter gives the same answers.
        if (code_) pcre2_jit_compile(code_, PCRE2_JIT_COMPLETE);
    }
    ~Pattern() { pcre2_code_free(code_); }
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;

    // The first match in a new text.
    std::optional<Match> search(std::string_view subject) const {
        match_resources().scan_budget = SCAN_BUDGET;
        return find(subject, 0);
    }

    // The first match starting at `offset` or later; absent when there is none, also when the
    // match hits one of the limits. `subject` must be valid UTF-8.
    std::optional<Match> find(std::string_view subject, std::size_t offset) const {
        MatchResources& resources = match_resources();
        if (!code_ || !resources.usable() || offset > subject.size()) return std::nullopt;
        const int rc = pcre2_match(code_, reinterpret_cast<PCRE2_SPTR>(subject.data()), subject.size(), offset,
                                   PCRE2_NO_UTF_CHECK, resources.data, resources.context);
        if (rc <= 0) return std::nullopt;  // no match, a limit reached, or any other error
        return Match(subject, pcre2_get_ovector_pointer(resources.data), pcre2_get_ovector_count(resources.data));
    }

    // Calls `visit` with each successive non-overlapping match, from left to right.
    template <typename Visit>
    void for_each(std::string_view subject, Visit&& visit) const {
        match_resources().scan_budget = SCAN_BUDGET;
        std::size_t offset = 0;
        while (offset <= subject.size()) {
            auto match = find(subject, offset);
            if (!match) return;
            visit(*match);
            std::size_t next = match->end();
            if (next <= match->start()) {
                // An empty match: step over one code point so that the walk moves on.
                if (match->start() >= subject.size()) return;
                next = match->start() + 1;
                while (next < subject.size() && (static_cast<unsigned char>(subject[next]) & 0xC0) == 0x80) ++next;
            }
            offset = next;
        }
    }

private:
    pcre2_code* code_ = nullptr;
};

// Two patterns are written so that a failing attempt stays linear while the answers stay those
// of the plain patterns quoted above them:
// - the "Args:" header takes the first line feed of the white space after it, not the last:
//   the block's first line begins with all the white space that follows the chosen line feed,
//   so any choice that can match, the first one can, and trimming the block removes the
//   difference;
// - in the block, a line's leading white space is followed by a word character and the word by
//   anything up to a colon: a shorter run leaves a white-space or word character where the next
//   item would need the other kind, or offers no colon that the full run did not, so both runs
//   are possessive (++);
// - in a tag, the type in braces is followed by the closing brace, which the type cannot hold,
//   so its run is possessive too.
// The tag's brace scan also reports to the scan budget, because every "@param {" rescans the
// text up to the next closing brace.
struct DocstringPatterns {
    // ":type name: text"; the text ends at the line's end or at the next field.
    Pattern type_field{R"(:type\s+(\w+):\s*(.+?)(?=\n|:param|:type|:return|$))", PCRE2_DOTALL};
    // An "Args:" header alone on its line, then the indented lines that hold a colon:
    // Args:\s*\n((?:\s+\w+.*:.+\n?)+)
    Pattern args_block{R"(Args:[^\S\n]*+\n((?:\s++\w++.*:.+\n?)+))", PCRE2_CASELESS};
    // One line of that block, matched at the line's start: "name (type): description".
    Pattern args_line{R"(\s*(\w+)(?:\s*\(([^)]+)\))?:\s*(.+))", PCRE2_ANCHORED};
    // ":param name: description", across lines up to the next field.
    Pattern param_field{R"(:param\s+(\w+):\s*(.+?)(?=:param|:type|:return|$))", PCRE2_DOTALL};
    // "@param {type} name description", across lines up to the next at sign:
    // @param\s+(?:\{([^}]+)\}\s+)?(\w+)\s+(.+?)(?=@|$)
    Pattern param_tag{R"(@param\s+(?:\{([^}]++)(?C1)\}\s+)?(\w+)\s+(.+?)(?=@|$))", PCRE2_DOTALL};
};

const DocstringPatterns& docstring_patterns() {
    static const DocstringPatterns patterns;
    return patterns;
}

}  // namespace

std::optional<std::vector<ParameterRow>> ContextBuilder::_extract_parameters(const std::optional<std::string>& docstring) {
    if (!docstring || docstring->empty()) return std::nullopt;
    // The matcher needs valid UTF-8; valid text passes through unchanged.
    const std::string doc = text::decode_utf8_lenient(*docstring);
    const DocstringPatterns& patterns = docstring_patterns();

    std::vector<ParameterRow> rows;
    std::unordered_set<std::string> seen_names;
    std::unordered_map<std::string, std::string> param_types;

    // Types of the field-list style; the last ":type" of a name wins. They make no rows.
    patterns.type_field.for_each(doc, [&](const Match& m) {
        param_types[std::string(m.text(1))] = std::string(text::strip(m.text(2)));
    });

    // The first "Args:" header that is followed by at least one parameter line.
    if (auto block = patterns.args_block.search(doc)) {
        std::string_view body = text::strip(block->text(1));
        for (;;) {
            const std::size_t lf = body.find('\n');
            const std::string_view line = body.substr(0, lf);
            if (auto m = patterns.args_line.search(line)) {
                std::string name(m->text(1));
                if (seen_names.insert(name).second) {
                    ParameterRow row{std::move(name), std::string(text::strip(m->text(3))), std::nullopt};
                    if (auto type = m->group(2); type && !type->empty()) row.type = std::string(text::strip(*type));
                    rows.push_back(std::move(row));
                }
            }
            if (lf == std::string_view::npos) break;
            body.remove_prefix(lf + 1);
        }
    }

    patterns.param_field.for_each(doc, [&](const Match& m) {
        std::string name(m.text(1));
        if (!seen_names.insert(name).second) return;
        ParameterRow row{name, std::string(text::strip(m.text(2))), std::nullopt};
        if (auto type = param_types.find(name); type != param_types.end()) row.type = type->second;
        rows.push_back(std::move(row));
    });

    patterns.param_tag.for_each(doc, [&](const Match& m) {
        std::string name(m.text(2));
        if (!seen_names.insert(name).second) return;
        ParameterRow row{std::move(name), std::string(text::strip(m.text(3))), std::nullopt};
        if (auto type = m.group(1); type && !type->empty()) row.type = std::string(text::strip(*type));
        rows.push_back(std::move(row));
    });

    if (rows.empty()) return std::nullopt;
    return rows;
}

}  // namespace orvane_kestrix
