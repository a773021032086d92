// Languages by file extension, their names, and module names derived from paths.

#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "extract_internal.hpp"
#include "orvane_kestrix/indexer/extraction.hpp"

namespace orvane_kestrix::indexer {

namespace {

constexpr std::array<std::pair<std::string_view, Language>, 26> kExtensions{{
    {"py", Language::python},       {"pyi", Language::python},
    {"js", Language::javascript},   {"mjs", Language::javascript},
    {"cjs", Language::javascript},  {"jsx", Language::javascript},
    {"ts", Language::typescript},   {"mts", Language::typescript},
    {"cts", Language::typescript},  {"tsx", Language::tsx},
    {"go", Language::go},           {"rs", Language::rust},
    {"java", Language::java},       {"c", Language::c},
    {"h", Language::cpp},           {"hpp", Language::cpp},
    {"hh", Language::cpp},          {"hxx", Language::cpp},
    {"cpp", Language::cpp},         {"cc", Language::cpp},
    {"cxx", Language::cpp},         {"md", Language::markdown},
    {"markdown", Language::markdown}, {"json", Language::json},
    {"yaml", Language::yaml},       {"yml", Language::yaml},
}};

}  // namespace

std::optional<Language> language_for_path(std::string_view path) {
    std::size_t slash = path.find_last_of('/');
    std::string_view base = slash == std::string_view::npos ? path : path.substr(slash + 1);
    std::size_t dot = base.find_last_of('.');
    if (dot == std::string_view::npos || dot == 0) return std::nullopt;  // no extension, or a dot file
    std::string_view ext = base.substr(dot + 1);
    if (ext.empty() || ext.size() > 8) return std::nullopt;
    char lower[8];
    for (std::size_t i = 0; i < ext.size(); ++i) {
        char c = ext[i];
        lower[i] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    }
    std::string_view key(lower, ext.size());
    if (key == "toml") return Language::toml;
    for (const auto& [extension, language] : kExtensions) {
        if (extension == key) return language;
    }
    return std::nullopt;
}

std::string_view language_name(Language language) {
    switch (language) {
        case Language::python: return "python";
        case Language::javascript: return "javascript";
        case Language::typescript: return "typescript";
        case Language::tsx: return "tsx";
        case Language::go: return "go";
        case Language::rust: return "rust";
        case Language::java: return "java";
        case Language::c: return "c";
        case Language::cpp: return "cpp";
        case Language::markdown: return "markdown";
        case Language::json: return "json";
        case Language::yaml: return "yaml";
        case Language::toml: return "toml";
    }
    return "unknown";
}

bool is_source_language(Language language) {
    switch (language) {
        case Language::markdown:
        case Language::json:
        case Language::yaml:
        case Language::toml: return false;
        default: return true;
    }
}

namespace detail {

// "a/b/c.py" -> "a.b.c". With `strip_src_root`, everything up to and including the last
// "src" directory goes (the usual source layout: "proj/src/pkg/mod.py" -> "pkg.mod").
std::string dotted_path_module(std::string_view path, bool strip_src_root) {
    std::size_t slash = path.find_last_of('/');
    std::size_t dot = path.find_last_of('.');
    if (dot != std::string_view::npos && (slash == std::string_view::npos || dot > slash + 1)) {
        path = path.substr(0, dot);
    }
    if (strip_src_root) {
        std::size_t pos = 0;
        std::size_t cut = 0;
        while (pos < path.size()) {
            std::size_t next = path.find('/', pos);
            if (next == std::string_view::npos) break;
            if (path.substr(pos, next - pos) == "src") cut = next + 1;
            pos = next + 1;
        }
        path = path.substr(cut);
    }
    std::string out;
    out.reserve(path.size());
    for (char c : path) out.push_back(c == '/' ? '.' : c);
    return out;
}

}  // namespace detail
}  // namespace orvane_kestrix::indexer
