// Parsing and checking of fixture documents. Every error names the offending key with its
// path in the document, e.g. "symbols[2].fqn".

#include <cctype>
#include <cstdint>
#include <filesystem>
#include <string_view>

#include "orvane_kestrix/paths.hpp"
#include "orvane_kestrix/storage/fixture_repository.hpp"
#include "orvane_kestrix/workers/context_builder/constants.hpp"

namespace orvane_kestrix {

namespace {

using Json = nlohmann::ordered_json;

// Bounds of the fixture's counts and line numbers: wide enough for any real repository, narrow
// enough that sums of 25 rows (tokens used, snippet lines) cannot overflow.
constexpr std::int64_t kMaxCount = 1'000'000'000;
constexpr std::int64_t kMaxLine = 1'000'000'000;

[[noreturn]] void fail(const std::string& key, const std::string& problem) {
    throw FixtureError("invalid fixture: " + key + ": " + problem);
}

std::string type_of(const Json& value) {
    if (value.is_number_integer()) return "an integer";
    if (value.is_number()) return "a number";
    if (value.is_null()) return "null";
    if (value.is_boolean()) return "a boolean";
    if (value.is_string()) return "a string";
    if (value.is_array()) return "a list";
    return "an object";
}

void expect(bool ok, const std::string& key, const std::string& wanted, const Json& value) {
    if (!ok) fail(key, "expected " + wanted + ", got " + type_of(value));
}

std::string child(const std::string& parent, std::string_view name) {
    return parent.empty() ? std::string(name) : parent + "." + std::string(name);
}

std::string item(const std::string& parent, std::size_t index) {
    return parent + "[" + std::to_string(index) + "]";
}

const Json& object_at(const Json& value, const std::string& key) {
    expect(value.is_object(), key, "an object", value);
    return value;
}

const Json& list_at(const Json& value, const std::string& key) {
    expect(value.is_array(), key, "a list", value);
    return value;
}

// Calls visit(entry, "key[i]") for each entry of the list at `key`.
template <typename Visit>
void for_each_item(const Json& list, const std::string& key, Visit&& visit) {
    std::size_t index = 0;
    for (const auto& entry : list_at(list, key)) visit(entry, item(key, index++));
}

// Reads member `name` of `object` when present; absent members keep the caller's default.
class Reader {
public:
    Reader(const Json& object, std::string path) : object_(object_at(object, path)), path_(std::move(path)) {}

    const Json* find(std::string_view name) const {
        auto it = object_.find(std::string(name));
        return it == object_.end() ? nullptr : &*it;
    }
    std::string key(std::string_view name) const { return child(path_, name); }

    bool has(std::string_view name) const { return find(name) != nullptr; }

    void text(std::string_view name, std::string& out) const {
        if (const Json* v = find(name)) out = as_text(*v, key(name));
    }
    void optional_text(std::string_view name, std::optional<std::string>& out) const {
        if (const Json* v = find(name)) out = v->is_null() ? std::nullopt : std::optional(as_text(*v, key(name)));
    }
    void integer(std::string_view name, std::int64_t& out, std::int64_t low = INT64_MIN,
                 std::int64_t high = INT64_MAX) const {
        if (const Json* v = find(name)) out = as_integer(*v, key(name), low, high);
    }
    void optional_integer(std::string_view name, std::optional<std::int64_t>& out) const {
        if (const Json* v = find(name)) out = v->is_null() ? std::nullopt : std::optional(as_integer(*v, key(name)));
    }
    void boolean(std::string_view name, bool& out) const {
        if (const Json* v = find(name)) {
            expect(v->is_boolean(), key(name), "a boolean", *v);
            out = v->get<bool>();
        }
    }
    void number(std::string_view name, double& out) const {
        if (const Json* v = find(name)) out = as_number(*v, key(name));
    }

    static std::string as_text(const Json& v, const std::string& key) {
        expect(v.is_string(), key, "a string", v);
        return v.get<std::string>();
    }
    static std::int64_t as_integer(const Json& v, const std::string& key, std::int64_t low = INT64_MIN,
                                   std::int64_t high = INT64_MAX) {
        expect(v.is_number_integer(), key, "an integer", v);
        const bool too_large = v.is_number_unsigned() && v.get<std::uint64_t>() > static_cast<std::uint64_t>(high);
        if (too_large || v.get<std::int64_t>() < low || v.get<std::int64_t>() > high) {
            fail(key, "integer out of range (" + std::to_string(low) + " to " + std::to_string(high) + ")");
        }
        return v.get<std::int64_t>();
    }
    static double as_number(const Json& v, const std::string& key) {
        expect(v.is_number(), key, "a number", v);
        return v.get<double>();
    }
    static std::optional<std::int64_t> as_optional_integer(const Json& v, const std::string& key) {
        if (v.is_null()) return std::nullopt;
        return as_integer(v, key);
    }
    static std::vector<std::string> as_text_list(const Json& v, const std::string& key) {
        std::vector<std::string> out;
        for_each_item(v, key, [&](const Json& entry, const std::string& at) { out.push_back(as_text(entry, at)); });
        return out;
    }

private:
    const Json& object_;
    std::string path_;
};

Symbol parse_symbol(const Json& value, const std::string& path) {
    Reader r(value, path);
    Symbol s;
    r.optional_integer("id", s.id);
    s.name.clear();
    r.text("name", s.name);
    s.fqn = s.name;
    r.text("fqn", s.fqn);
    r.text("kind", s.kind);
    r.optional_integer("file_id", s.file_id);
    r.boolean("is_export", s.is_export);
    r.integer("start_line", s.start_line, -kMaxLine, kMaxLine);
    s.end_line = s.start_line;
    r.integer("end_line", s.end_line, -kMaxLine, kMaxLine);
    r.optional_text("signature", s.signature);
    r.optional_text("docstring", s.docstring);
    r.boolean("docstring_truncated", s.docstring_truncated);
    r.integer("token_count", s.stored_token_count, 0, kMaxCount);
    return s;
}

Reference parse_reference(const Json& value, const std::string& path) {
    Reader r(value, path);
    Reference ref;
    r.text("usage_type", ref.usage_type);
    if (const Json* caller = r.find("caller_symbol"); caller && !caller->is_null()) {
        Reader c(*caller, r.key("caller_symbol"));
        CallerSymbol symbol;
        // Entries are optional, but when present they are strings.
        auto entry = [&](std::string_view name, std::optional<std::string>& out) {
            if (const Json* v = c.find(name)) out = Reader::as_text(*v, c.key(name));
        };
        entry("fqn", symbol.fqn);
        entry("kind", symbol.kind);
        entry("name", symbol.name);
        ref.caller_symbol = symbol;
    }
    r.optional_text("context", ref.context);
    return ref;
}

std::string decode_base64(const std::string& text, const std::string& key) {
    auto value_of = [](char c) -> int {
        if (c >= 'A' && c <= 'Z') return c - 'A';
        if (c >= 'a' && c <= 'z') return c - 'a' + 26;
        if (c >= '0' && c <= '9') return c - '0' + 52;
        if (c == '+' || c == '-') return 62;
        if (c == '/' || c == '_') return 63;
        return -1;
    };
    std::string out;
    std::uint32_t buffer = 0;
    int bits = 0;
    std::size_t padding = 0;
    for (char c : text) {
        if (c == '=') {
            ++padding;
            continue;
        }
        if (c == '\n' || c == '\r' || c == ' ' || c == '\t') continue;
        int v = value_of(c);
        if (v < 0 || padding > 0) fail(key, "not valid base64");
        buffer = (buffer << 6) | static_cast<std::uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<char>((buffer >> bits) & 0xFF));
        }
    }
    if (padding > 2 || bits >= 6) fail(key, "not valid base64");
    return out;
}

void parse_request(const Json& value, Fixture& fixture) {
    Reader r(value, "request");
    const Json* task = r.find("task");
    if (!task) fail("request.task", "missing");
    PackRequest& req = fixture.request;
    req.task = Reader::as_text(*task, "request.task");
    r.integer("token_budget", req.token_budget, 0, MAX_TOKEN_BUDGET);
    r.optional_text("component_filter", req.component_filter);
    r.boolean("include_snippets", req.include_snippets);
    if (const Json* root = r.find("repo_root"); root && !root->is_null()) {
        std::string rel = Reader::as_text(*root, "request.repo_root");
        std::filesystem::path p(rel);
        if (p.is_absolute() || p.has_root_directory()) fail("request.repo_root", "must be a relative path");
        if (!is_contained_relative(rel)) fail("request.repo_root", "the path must stay inside the source tree");
        req.repo_root = p;
    }
    if (const Json* kinds = r.find("prefer_kinds"); kinds && !kinds->is_null()) {
        req.prefer_kinds = Reader::as_text_list(*kinds, "request.prefer_kinds");
    }
    r.boolean("source_only", req.source_only);
    r.boolean("wide_match", req.wide_match);
    if (const Json* fqns = r.find("deep_fqns"); fqns && !fqns->is_null()) {
        auto list = Reader::as_text_list(*fqns, "request.deep_fqns");
        req.deep_fqns = std::set<std::string>(list.begin(), list.end());
    }
    if (const Json* seeds = r.find("seed_symbols"); seeds && !seeds->is_null()) {
        std::vector<Symbol> out;
        for_each_item(*seeds, "request.seed_symbols", [&](const Json& entry, const std::string& key) {
            if (entry.is_number_integer()) {
                std::int64_t id = Reader::as_integer(entry, key);
                const Symbol* found = nullptr;
                for (const auto& s : fixture.symbols) {
                    if (s.id == id) {
                        found = &s;
                        break;
                    }
                }
                if (!found) fail(key, "no symbol has the id " + std::to_string(id));
                out.push_back(*found);
            } else if (entry.is_object()) {
                out.push_back(parse_symbol(entry, key));
            } else {
                expect(false, key, "an integer or a symbol object", entry);
            }
        });
        req.seed_symbols = std::move(out);
    }
}

}  // namespace

Fixture parse_fixture(const Json& document) {
    Reader top(document, "fixture");
    Fixture f;
    if (const Json* v = top.find("symbols")) {
        for_each_item(*v, "symbols",
                      [&](const Json& entry, const std::string& key) { f.symbols.push_back(parse_symbol(entry, key)); });
    }
    if (const Json* v = top.find("files")) {
        for_each_item(*v, "files", [&](const Json& entry, const std::string& key) {
            Reader r(entry, key);
            FixtureFile file;
            r.optional_integer("id", file.id);
            if (!r.has("path")) fail(r.key("path"), "missing");
            r.text("path", file.path);
            r.boolean("is_test", file.is_test);
            r.boolean("is_source", file.is_source);
            f.files.push_back(std::move(file));
        });
    }
    if (const Json* v = top.find("components")) {
        for_each_item(*v, "components", [&](const Json& entry, const std::string& key) {
            Reader r(entry, key);
            FixtureComponent component;
            r.optional_integer("id", component.id);
            r.text("name", component.name);
            if (const Json* ids = r.find("file_ids")) {
                for_each_item(*ids, r.key("file_ids"), [&](const Json& id, const std::string& at) {
                    component.file_ids.push_back(Reader::as_optional_integer(id, at));
                });
            }
            f.components.push_back(std::move(component));
        });
    }
    if (const Json* v = top.find("fan_in")) {
        for (const auto& [id_text, count] : object_at(*v, "fan_in").items()) {
            std::string key = "fan_in." + id_text;
            std::size_t used = 0;
            std::int64_t id = 0;
            try {
                id = std::stoll(id_text, &used, 10);
            } catch (const std::exception&) {
                used = 0;
            }
            if (id_text.empty() || used != id_text.size() || std::isspace(static_cast<unsigned char>(id_text[0]))) {
                fail(key, "the key is not a decimal symbol id");
            }
            f.fan_in[id] = Reader::as_integer(count, key, 0, kMaxCount);
        }
    }
    if (const Json* v = top.find("references")) {
        for (const auto& [fqn, refs] : object_at(*v, "references").items()) {
            std::string key = "references." + fqn;
            std::vector<Reference> list;
            for_each_item(refs, key, [&](const Json& ref, const std::string& at) { list.push_back(parse_reference(ref, at)); });
            f.references[fqn] = std::move(list);
        }
    }
    if (const Json* v = top.find("covering_tests")) {
        for_each_item(*v, "covering_tests", [&](const Json& entry, const std::string& key) {
            Reader r(entry, key);
            FixtureCoveringTest test;
            r.text("test", test.test);
            if (const Json* reaches = r.find("reaches")) {
                for (const auto& [path, rank] : object_at(*reaches, r.key("reaches")).items()) {
                    test.reaches.emplace_back(path, Reader::as_number(rank, r.key("reaches") + "." + path));
                }
            }
            f.covering_tests.push_back(std::move(test));
        });
    }
    if (const Json* v = top.find("retriever"); v && !v->is_null()) {
        Reader r(*v, "retriever");
        FixtureRetrieverData data;
        if (const Json* hits = r.find("hits")) {
            for_each_item(*hits, "retriever.hits", [&](const Json& entry, const std::string& key) {
                Reader h(entry, key);
                FixtureHit hit;
                h.optional_integer("id", hit.id);
                h.number("score", hit.score);
                if (h.has("kind")) {
                    h.text("kind", hit.kind);
                } else {
                    hit.kind = "function";
                    for (const auto& s : f.symbols) {
                        if (hit.id && s.id == hit.id) {
                            hit.kind = s.kind;
                            break;
                        }
                    }
                }
                data.hits.push_back(std::move(hit));
            });
        }
        r.optional_text("note", data.note);
        f.retriever = std::move(data);
    }
    if (const Json* v = top.find("tokenizer")) {
        Reader r(*v, "tokenizer");
        FixtureTokenizerData data;
        if (const Json* names = r.find("names")) data.names = Reader::as_text_list(*names, "tokenizer.names");
        if (const Json* terms = r.find("terms")) data.terms = Reader::as_text_list(*terms, "tokenizer.terms");
        r.boolean("is_test", data.is_test);
        f.tokenizer = std::move(data);
    }
    if (const Json* v = top.find("builder")) {
        Reader r(*v, "builder");
        r.boolean("list_tests", f.list_tests);
        if (const Json* indexing = r.find("indexing"); indexing && !indexing->is_null()) {
            Reader i(*indexing, "builder.indexing");
            FixtureIndexing status;
            i.boolean("in_progress", status.in_progress);
            i.integer("progress", status.progress, 0, 100);
            f.indexing = status;
        }
    }
    if (const Json* v = top.find("source_files")) {
        for (const auto& [path, content] : object_at(*v, "source_files").items()) {
            std::string key = "source_files." + path;
            if (path.empty() || !is_contained_relative(path)) fail(key, "the path must stay inside the source tree");
            if (content.is_string()) {
                f.source_files[path] = content.get<std::string>();
            } else if (content.is_object()) {
                Reader c(content, key);
                const Json* data = c.find("base64");
                if (!data) fail(c.key("base64"), "missing");
                f.source_files[path] = decode_base64(Reader::as_text(*data, c.key("base64")), c.key("base64"));
            } else {
                expect(false, key, "a string or {\"base64\": ...}", content);
            }
        }
    }
    if (const Json* v = top.find("fail")) {
        for (const auto& [operation, spec] : object_at(*v, "fail").items()) {
            std::string key = "fail." + operation;
            FixtureFailure failure;
            if (spec.is_string()) {
                failure.message = spec.get<std::string>();
            } else if (spec.is_object()) {
                Reader r(spec, key);
                r.text("message", failure.message);
                r.integer("from_call", failure.from_call, 0, kMaxCount);
            } else {
                expect(false, key, "a message or {\"message\": ..., \"from_call\": n}", spec);
            }
            f.fail[operation] = std::move(failure);
        }
    }
    const Json* request = top.find("request");
    if (!request) fail("request", "missing");
    parse_request(*request, f);
    return f;
}

Fixture parse_fixture_text(std::string_view text) {
    // The parser reports a number beyond a double's range without saying where; the key it
    // belongs to is followed here, one frame per open object or list.
    struct Frame {
        bool is_list = false;
        std::size_t index = 0;
        std::string key;
    };
    std::vector<Frame> frames;
    auto value_done = [&frames] {
        if (!frames.empty() && frames.back().is_list) ++frames.back().index;
    };
    const Json::parser_callback_t follow = [&](int, Json::parse_event_t event, Json& parsed) {
        switch (event) {
            case Json::parse_event_t::object_start: frames.push_back({}); break;
            case Json::parse_event_t::array_start: frames.push_back({.is_list = true, .index = 0, .key = {}}); break;
            case Json::parse_event_t::key: frames.back().key = parsed.get<std::string>(); break;
            case Json::parse_event_t::object_end:
            case Json::parse_event_t::array_end:
                frames.pop_back();
                value_done();
                break;
            case Json::parse_event_t::value: value_done(); break;
        }
        return true;
    };
    Json document;
    try {
        document = Json::parse(text.begin(), text.end(), follow);
    } catch (const Json::out_of_range&) {
        std::string key;
        for (const auto& frame : frames) key = frame.is_list ? item(key, frame.index) : child(key, frame.key);
        fail(key.empty() ? "fixture" : key, "number out of range");
    }
    return parse_fixture(document);
}

}  // namespace orvane_kestrix
