// The indexer's tree-sitter queries: compiled once per process from the text embedded at build
// time, with their capture names resolved to roles and their predicates prepared (the C API
// applies none of them).

#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include "extract_internal.hpp"
#include "orvane_kestrix/indexer_queries.hpp"

extern "C" {
const TSLanguage* tree_sitter_python();
const TSLanguage* tree_sitter_javascript();
const TSLanguage* tree_sitter_typescript();
const TSLanguage* tree_sitter_tsx();
const TSLanguage* tree_sitter_go();
const TSLanguage* tree_sitter_rust();
const TSLanguage* tree_sitter_java();
const TSLanguage* tree_sitter_c();
const TSLanguage* tree_sitter_cpp();
}

namespace orvane_kestrix::indexer::detail {

struct Predicate {
    enum class Op { eq, not_eq_, any_of, match, not_match };
    Op op = Op::eq;
    std::uint32_t capture = 0;
    bool against_capture = false;
    std::uint32_t other_capture = 0;
    std::vector<std::string> values;
    pcre2_code* regex = nullptr;
};

namespace {

struct KindName {
    std::string_view name;
    Kind kind;
};

constexpr KindName kKinds[] = {
    {"class", Kind::class_},         {"interface", Kind::interface},
    {"struct", Kind::struct_},       {"trait", Kind::trait},
    {"enum", Kind::enum_},           {"function", Kind::function},
    {"method", Kind::method},        {"module", Kind::module},
    {"namespace", Kind::namespace_}, {"type", Kind::type},
    {"variable", Kind::variable},    {"constant", Kind::constant},
    {"field", Kind::field},          {"property", Kind::property},
    {"declaration", Kind::declaration}, {"member", Kind::member},
    {"typedef", Kind::typedef_},
};

[[noreturn]] void bad_query(Language language, const std::string& what) {
    throw std::logic_error("indexer query for " + std::string(language_name(language)) + ": " + what);
}

CaptureInfo capture_info(Language language, std::string_view name) {
    CaptureInfo info;
    if (name.starts_with('_')) return info;
    if (name == "name") info.role = Role::name;
    else if (name == "callee") info.role = Role::callee;
    else if (name == "import") info.role = Role::import;
    else if (name == "comment") info.role = Role::comment;
    else if (name == "package") info.role = Role::package;
    else if (name == "scope.impl") info.role = Role::scope_impl;
    else if (name == "scope.name") info.role = Role::scope_name;
    else if (name == "scope.anonymous") info.role = Role::scope_anonymous;
    else if (name == "export.name") info.role = Role::export_name;
    else if (name == "tokens") info.role = Role::tokens;
    else if (name == "not_use") info.role = Role::not_use;
    else if (name.starts_with("definition.")) {
        std::string_view rest = name.substr(11);
        if (rest.ends_with(".hoisted")) {
            info.hoisted = true;
            rest.remove_suffix(8);
        }
        info.role = Role::definition;
        bool found = false;
        for (const auto& k : kKinds) {
            if (k.name == rest) {
                info.kind = k.kind;
                found = true;
            }
        }
        if (!found) bad_query(language, "unknown definition kind @" + std::string(name));
    } else if (name.starts_with("reference.")) {
        std::string_view rest = name.substr(10);
        info.role = Role::reference;
        if (rest == "call") info.usage = Usage::call;
        else if (rest == "type") info.usage = Usage::type;
        else if (rest == "inherit") info.usage = Usage::inherit;
        else if (rest == "import") info.usage = Usage::import;
        else bad_query(language, "unknown reference usage @" + std::string(name));
    } else {
        bad_query(language, "unknown capture @" + std::string(name));
    }
    return info;
}

std::string_view string_value(const TSQuery* query, std::uint32_t id) {
    std::uint32_t length = 0;
    const char* s = ts_query_string_value_for_id(query, id, &length);
    return {s, length};
}

std::vector<Predicate> parse_predicates(Language language, TSQuery* query, std::uint32_t pattern) {
    std::vector<Predicate> out;
    std::uint32_t step_count = 0;
    const TSQueryPredicateStep* steps = ts_query_predicates_for_pattern(query, pattern, &step_count);
    std::uint32_t i = 0;
    while (i < step_count) {
        std::uint32_t end = i;
        while (end < step_count && steps[end].type != TSQueryPredicateStepTypeDone) ++end;
        if (end == i || steps[i].type != TSQueryPredicateStepTypeString) bad_query(language, "malformed predicate");
        std::string_view op = string_value(query, steps[i].value_id);
        std::uint32_t argc = end - i - 1;
        const TSQueryPredicateStep* args = steps + i + 1;
        if (argc < 2 || args[0].type != TSQueryPredicateStepTypeCapture) {
            bad_query(language, "predicate #" + std::string(op) + " needs a capture and a value");
        }
        Predicate p;
        p.capture = args[0].value_id;
        if (op == "eq?" || op == "not-eq?") {
            p.op = op == "eq?" ? Predicate::Op::eq : Predicate::Op::not_eq_;
            if (args[1].type == TSQueryPredicateStepTypeCapture) {
                p.against_capture = true;
                p.other_capture = args[1].value_id;
            } else {
                p.values.emplace_back(string_value(query, args[1].value_id));
            }
        } else if (op == "any-of?") {
            p.op = Predicate::Op::any_of;
            for (std::uint32_t a = 1; a < argc; ++a) p.values.emplace_back(string_value(query, args[a].value_id));
        } else if (op == "match?" || op == "not-match?") {
            p.op = op == "match?" ? Predicate::Op::match : Predicate::Op::not_match;
            std::string_view pattern_text = string_value(query, args[1].value_id);
            int error = 0;
            PCRE2_SIZE offset = 0;
            p.regex = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern_text.data()), pattern_text.size(),
                                    PCRE2_UTF | PCRE2_UCP, &error, &offset, nullptr);
            if (p.regex == nullptr) bad_query(language, "bad regular expression " + std::string(pattern_text));
        } else {
            // Directives (#set!, #strip!, #select-adjacent!) do not filter matches.
            i = end + 1;
            continue;
        }
        out.push_back(std::move(p));
        i = end + 1;
    }
    return out;
}

std::string query_text(Language language) {
    std::string text;
    switch (language) {
        case Language::python: text = queries::python; break;
        case Language::javascript:
            text.append(queries::javascript).append(queries::javascript_only).append(queries::jsx);
            break;
        case Language::typescript: text.append(queries::javascript).append(queries::typescript); break;
        case Language::tsx:
            text.append(queries::javascript).append(queries::typescript).append(queries::jsx);
            break;
        case Language::go: text = queries::go; break;
        case Language::rust: text = queries::rust; break;
        case Language::java: text = queries::java; break;
        case Language::c: text = queries::c; break;
        case Language::cpp: text.append(queries::c).append(queries::cpp); break;
        default: break;
    }
    return text;
}

// Owns a compiled query for the life of the process.
struct QueryHolder {
    CompiledQuery compiled;

    explicit QueryHolder(Language language) {
        compiled.language = grammar(language);
        if (compiled.language == nullptr) bad_query(language, "no grammar");
        std::string text = query_text(language);
        std::uint32_t error_offset = 0;
        TSQueryError error = TSQueryErrorNone;
        compiled.query = ts_query_new(compiled.language, text.data(), static_cast<std::uint32_t>(text.size()),
                                      &error_offset, &error);
        if (compiled.query == nullptr) {
            bad_query(language, "error " + std::to_string(static_cast<int>(error)) + " at \"" +
                                    text.substr(error_offset, 60) + "\"");
        }
        std::uint32_t capture_count = ts_query_capture_count(compiled.query);
        for (std::uint32_t id = 0; id < capture_count; ++id) {
            std::uint32_t length = 0;
            const char* name = ts_query_capture_name_for_id(compiled.query, id, &length);
            compiled.captures.push_back(capture_info(language, std::string_view(name, length)));
        }
        std::uint32_t pattern_count = ts_query_pattern_count(compiled.query);
        for (std::uint32_t pattern = 0; pattern < pattern_count; ++pattern) {
            compiled.predicates.push_back(parse_predicates(language, compiled.query, pattern));
        }
    }

    ~QueryHolder() {
        for (auto& predicates : compiled.predicates) {
            for (auto& p : predicates) pcre2_code_free(p.regex);
        }
        ts_query_delete(compiled.query);
    }

    QueryHolder(const QueryHolder&) = delete;
    QueryHolder& operator=(const QueryHolder&) = delete;
};

std::string_view capture_text(const TSQueryMatch& match, std::uint32_t capture, std::string_view text,
                              bool& found) {
    for (std::uint16_t i = 0; i < match.capture_count; ++i) {
        if (match.captures[i].index == capture) {
            found = true;
            return node_text(text, match.captures[i].node);
        }
    }
    found = false;
    return {};
}

}  // namespace

const TSLanguage* grammar(Language language) {
    switch (language) {
        case Language::python: return tree_sitter_python();
        case Language::javascript: return tree_sitter_javascript();
        case Language::typescript: return tree_sitter_typescript();
        case Language::tsx: return tree_sitter_tsx();
        case Language::go: return tree_sitter_go();
        case Language::rust: return tree_sitter_rust();
        case Language::java: return tree_sitter_java();
        case Language::c: return tree_sitter_c();
        case Language::cpp: return tree_sitter_cpp();
        default: return nullptr;
    }
}

const CompiledQuery& compiled_query(Language language) {
    // Function-local statics: initialised once, thread-safely, on first use.
    switch (language) {
        case Language::python: { static const QueryHolder q(Language::python); return q.compiled; }
        case Language::javascript: { static const QueryHolder q(Language::javascript); return q.compiled; }
        case Language::typescript: { static const QueryHolder q(Language::typescript); return q.compiled; }
        case Language::tsx: { static const QueryHolder q(Language::tsx); return q.compiled; }
        case Language::go: { static const QueryHolder q(Language::go); return q.compiled; }
        case Language::rust: { static const QueryHolder q(Language::rust); return q.compiled; }
        case Language::java: { static const QueryHolder q(Language::java); return q.compiled; }
        case Language::c: { static const QueryHolder q(Language::c); return q.compiled; }
        case Language::cpp: { static const QueryHolder q(Language::cpp); return q.compiled; }
        default: break;
    }
    throw std::logic_error("no indexer query for " + std::string(language_name(language)));
}

bool predicates_hold(const CompiledQuery& query, const TSQueryMatch& match, std::string_view text) {
    const auto& predicates = query.predicates[match.pattern_index];
    for (const auto& p : predicates) {
        bool found = false;
        std::string_view value = capture_text(match, p.capture, text, found);
        if (!found) continue;  // an optional capture that did not take part
        switch (p.op) {
            case Predicate::Op::eq:
            case Predicate::Op::not_eq_: {
                bool equal = false;
                if (p.against_capture) {
                    bool other_found = false;
                    std::string_view other = capture_text(match, p.other_capture, text, other_found);
                    equal = other_found && other == value;
                } else {
                    equal = value == p.values.front();
                }
                if (equal != (p.op == Predicate::Op::eq)) return false;
                break;
            }
            case Predicate::Op::any_of: {
                bool any = false;
                for (const auto& v : p.values) any = any || v == value;
                if (!any) return false;
                break;
            }
            case Predicate::Op::match:
            case Predicate::Op::not_match: {
                pcre2_match_data* data = pcre2_match_data_create_from_pattern(p.regex, nullptr);
                int rc = pcre2_match(p.regex, reinterpret_cast<PCRE2_SPTR>(value.data()), value.size(), 0,
                                     PCRE2_NO_UTF_CHECK, data, nullptr);
                pcre2_match_data_free(data);
                if ((rc >= 0) != (p.op == Predicate::Op::match)) return false;
                break;
            }
        }
    }
    return true;
}

}  // namespace orvane_kestrix::indexer::detail
