// The fixture index's answers. Each operation is logged before it answers or throws.

#include "orvane_kestrix/storage/fixture_repository.hpp"

#include <algorithm>

namespace orvane_kestrix {

namespace {

using Json = nlohmann::ordered_json;

Json id_json(const std::optional<std::int64_t>& id) { return id ? Json(*id) : Json(nullptr); }

Json call(std::string_view op, Json arg) {
    Json entry = Json::object();
    entry["op"] = op;
    entry["arg"] = std::move(arg);
    return entry;
}

// Length in bytes of the UTF-8 sequence that starts with `lead`.
std::size_t sequence_length(unsigned char lead) {
    if (lead < 0x80) return 1;
    if ((lead & 0xE0) == 0xC0) return 2;
    if ((lead & 0xF0) == 0xE0) return 3;
    if ((lead & 0xF8) == 0xF0) return 4;
    return 1;
}

char fold_ascii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

bool like_match(std::string_view pattern, std::string_view text) {
    // Iterative wildcard matching with backtracking to the last "%".
    std::size_t p = 0, t = 0;
    std::size_t star_p = std::string_view::npos, star_t = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '%') {
            star_p = ++p;
            star_t = t;
            continue;
        }
        if (p < pattern.size()) {
            std::size_t tl = sequence_length(static_cast<unsigned char>(text[t]));
            if (pattern[p] == '_') {
                p += 1;
                t += tl;
                continue;
            }
            std::size_t pl = sequence_length(static_cast<unsigned char>(pattern[p]));
            if (pl == tl && pl == 1 ? fold_ascii(pattern[p]) == fold_ascii(text[t])
                                    : pattern.substr(p, pl) == text.substr(t, tl)) {
                p += pl;
                t += tl;
                continue;
            }
        }
        if (star_p == std::string_view::npos) return false;
        // Let the last "%" take one more code point and retry from there.
        star_t += sequence_length(static_cast<unsigned char>(text[star_t]));
        t = star_t;
        p = star_p;
    }
    while (p < pattern.size() && pattern[p] == '%') ++p;
    return p == pattern.size();
}

void FailureInjector::on_call(const std::string& operation) {
    std::int64_t n = ++counts_[operation];
    auto it = fail_.find(operation);
    if (it != fail_.end() && n >= it->second.from_call) throw std::runtime_error(it->second.message);
}

void FixtureRepository::record(const std::string& operation, Json entry) {
    log_.add(std::move(entry));
    failures_.on_call(operation);
}

const FixtureFile* FixtureRepository::file_by_id(const std::optional<std::int64_t>& id) const {
    if (!id) return nullptr;
    for (const auto& file : fixture_.files) {
        if (file.id == id) return &file;
    }
    return nullptr;
}

std::optional<Component> FixtureRepository::get_component_by_name(const std::string& name) {
    record("get_component_by_name", call("get_component_by_name", name));
    for (const auto& c : fixture_.components) {
        if (c.name == name) return Component{c.id, c.name};
    }
    return std::nullopt;
}

std::vector<FileRecord> FixtureRepository::get_files_by_component(std::int64_t component_id) {
    record("get_files_by_component", call("get_files_by_component", component_id));
    std::vector<FileRecord> out;
    for (const auto& c : fixture_.components) {
        if (c.id != component_id) continue;
        for (const auto& file_id : c.file_ids) {
            const FixtureFile* file = file_by_id(file_id);
            out.push_back(FileRecord{file_id, file ? file->path : std::string()});
        }
        break;
    }
    return out;
}

SymbolSearchResult FixtureRepository::search_symbols(const std::string& pattern, std::int64_t limit, bool source_only) {
    Json entry = call("search_symbols", pattern);
    entry["limit"] = limit;
    entry["source_only"] = source_only;
    record("search_symbols", std::move(entry));
    SymbolSearchResult result;
    result.pattern = pattern;
    for (const auto& s : fixture_.symbols) {
        if (!like_match(pattern, s.name)) continue;
        if (source_only && s.file_id) {
            const FixtureFile* file = file_by_id(s.file_id);
            if (file && !file->is_source) continue;
        }
        ++result.total;
        if (limit < 0 || static_cast<std::int64_t>(result.symbols.size()) < limit) result.symbols.push_back(s);
    }
    return result;
}

SymbolPathMap FixtureRepository::get_file_paths_batch(const std::vector<Symbol>& symbols) {
    Json ids = Json::array();
    for (const auto& s : symbols) ids.push_back(id_json(s.id));
    record("get_file_paths_batch", call("get_file_paths_batch", std::move(ids)));
    SymbolPathMap out;
    for (const auto& s : symbols) {
        if (!s.id) continue;
        if (const FixtureFile* file = file_by_id(s.file_id)) out.insert_or_assign(*s.id, file->path);
    }
    return out;
}

FanInMap FixtureRepository::production_fan_in(const std::vector<std::int64_t>& ids) {
    record("production_fan_in", call("production_fan_in", ids));
    FanInMap out;
    for (auto id : ids) {
        if (auto it = fixture_.fan_in.find(id); it != fixture_.fan_in.end()) out[id] = it->second;
    }
    return out;
}

std::unordered_set<std::string> FixtureRepository::test_paths(const std::vector<std::string>& paths) {
    // Logged as the distinct paths in code-point order, whatever order the caller walked.
    std::vector<std::string> distinct(paths);
    std::sort(distinct.begin(), distinct.end());
    distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
    record("test_paths", call("test_paths", distinct));
    std::unordered_set<std::string> out;
    for (const auto& path : distinct) {
        for (const auto& file : fixture_.files) {
            if (file.is_test && file.path == path) {
                out.insert(path);
                break;
            }
        }
    }
    return out;
}

std::unordered_map<std::int64_t, SymbolWithPath> FixtureRepository::symbols_with_paths(
    const std::vector<std::optional<std::int64_t>>& ids) {
    Json logged_ids = Json::array();
    for (const auto& id : ids) logged_ids.push_back(id_json(id));
    record("symbols_with_paths", call("symbols_with_paths", std::move(logged_ids)));
    std::unordered_map<std::int64_t, SymbolWithPath> out;
    for (const auto& maybe_id : ids) {
        if (!maybe_id || out.count(*maybe_id)) continue;
        const std::int64_t id = *maybe_id;
        for (const auto& s : fixture_.symbols) {
            if (s.id == id) {
                const FixtureFile* file = file_by_id(s.file_id);
                out.emplace(id, SymbolWithPath{s, file ? std::optional(file->path) : std::nullopt});
                break;
            }
        }
    }
    return out;
}

std::vector<CoveringTest> FixtureRepository::find_covering_tests(const std::vector<std::string>& paths) {
    record("find_covering_tests", call("find_covering_tests", paths));
    std::vector<CoveringTest> out;
    for (const auto& test : fixture_.covering_tests) {
        CoveringTest found{test.test, {}};
        for (const auto& [source, rank] : test.reaches) {
            if (std::find(paths.begin(), paths.end(), source) != paths.end()) found.reaches.emplace_back(source, rank);
        }
        if (!found.reaches.empty()) out.push_back(std::move(found));
    }
    return out;
}

std::vector<Symbol> FixtureRepository::get_symbols_by_file(std::int64_t file_id) {
    record("get_symbols_by_file", call("get_symbols_by_file", file_id));
    std::vector<Symbol> out;
    for (const auto& s : fixture_.symbols) {
        if (s.file_id == file_id) out.push_back(s);
    }
    return out;
}

ReferencesResult FixtureRepository::get_references(const std::string& fqn) {
    record("get_references", call("get_references", fqn));
    ReferencesResult out;
    if (auto it = fixture_.references.find(fqn); it != fixture_.references.end()) out.references = it->second;
    out.total = static_cast<std::int64_t>(out.references.size());
    return out;
}

std::optional<Symbol> FixtureRepository::get_symbol_by_fqn(const std::string& fqn) {
    record("get_symbol_by_fqn", call("get_symbol_by_fqn", fqn));
    for (const auto& s : fixture_.symbols) {
        if (s.fqn == fqn) return s;
    }
    return std::nullopt;
}

RetrievalResult FixtureRetriever::retrieve(const std::string& task, std::int64_t limit, bool include_tests) {
    Json entry = call("retrieve", task);
    entry["limit"] = limit;
    entry["include_tests"] = include_tests;
    log_.add(std::move(entry));
    failures_.on_call("retrieve");
    RetrievalResult result;
    const auto& data = *fixture_.retriever;
    for (const auto& hit : data.hits) {
        if (limit >= 0 && static_cast<std::int64_t>(result.hits.size()) >= limit) break;
        Symbol symbol;
        symbol.id = hit.id;
        symbol.kind = hit.kind;
        result.hits.push_back(RetrievalHit{hit.score, std::move(symbol)});
    }
    result.note = data.note;
    return result;
}

std::vector<std::string> ScriptedTokenizer::query_names(const std::string& task) {
    log_.add(call("query_names", task));
    failures_.on_call("query_names");
    return data_.names;
}

std::vector<std::string> ScriptedTokenizer::query_terms(const std::string& task) {
    log_.add(call("query_terms", task));
    failures_.on_call("query_terms");
    return data_.terms;
}

bool ScriptedTokenizer::is_test_query(const std::vector<std::string>& terms) {
    log_.add(call("is_test_query", terms));
    failures_.on_call("is_test_query");
    return data_.is_test;
}

std::vector<std::string> LoggingTokenizer::query_names(const std::string& task) {
    log_.add(call("query_names", task));
    failures_.on_call("query_names");
    return inner_.query_names(task);
}

std::vector<std::string> LoggingTokenizer::query_terms(const std::string& task) {
    log_.add(call("query_terms", task));
    failures_.on_call("query_terms");
    return inner_.query_terms(task);
}

bool LoggingTokenizer::is_test_query(const std::vector<std::string>& terms) {
    log_.add(call("is_test_query", terms));
    failures_.on_call("is_test_query");
    return inner_.is_test_query(terms);
}

}  // namespace orvane_kestrix
