// The language table, and what reads it directly: languages by file extension, their names.

#include "languages.hpp"

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>

#include "extract_internal.hpp"

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
const TSLanguage* tree_sitter_ruby();
}

namespace orvane_kestrix::indexer {

namespace detail {
// Defined in the language_*.cpp files.
const LanguageRules& python_rules();
const LanguageRules& javascript_rules();
const LanguageRules& go_rules();
const LanguageRules& rust_rules();
const LanguageRules& java_rules();
const LanguageRules& c_rules();
const LanguageRules& ruby_rules();
}  // namespace detail

namespace {

using Words = std::span<const std::string_view>;

constexpr std::string_view kPythonExtensions[] = {"py", "pyi"};
constexpr std::string_view kJavaScriptExtensions[] = {"js", "mjs", "cjs", "jsx"};
constexpr std::string_view kTypeScriptExtensions[] = {"ts", "mts", "cts"};
constexpr std::string_view kTsxExtensions[] = {"tsx"};
constexpr std::string_view kGoExtensions[] = {"go"};
constexpr std::string_view kRustExtensions[] = {"rs"};
constexpr std::string_view kJavaExtensions[] = {"java"};
constexpr std::string_view kCExtensions[] = {"c"};
constexpr std::string_view kCppExtensions[] = {"h", "hpp", "hh", "hxx", "cpp", "cc", "cxx"};
constexpr std::string_view kRubyExtensions[] = {"rb"};
constexpr std::string_view kMarkdownExtensions[] = {"md", "markdown"};
constexpr std::string_view kJsonExtensions[] = {"json"};
constexpr std::string_view kYamlExtensions[] = {"yaml", "yml"};
constexpr std::string_view kTomlExtensions[] = {"toml"};

constexpr std::string_view kTestPrefix[] = {"test_"};
constexpr std::string_view kTestSuffix[] = {"_test"};
constexpr std::string_view kConftest[] = {"conftest.py"};
constexpr std::string_view kScriptTestSuffixes[] = {".test", ".spec"};
constexpr std::string_view kCamelTestPrefix[] = {"Test"};
constexpr std::string_view kCamelTestSuffixes[] = {"TestCase", "Tests", "Test", "IT"};
constexpr std::string_view kCTestSuffixes[] = {"_unittest", "_tests", "_test"};
constexpr std::string_view kCNeverTestSuffixes[] = {".test", ".spec", "_spec"};
constexpr std::string_view kRubyTestSuffixes[] = {"_test", "_spec"};

constexpr std::string_view kPythonPackageFiles[] = {"__init__"};
constexpr std::string_view kScriptPackageFiles[] = {"index"};
constexpr std::string_view kRustPackageFiles[] = {"mod", "lib", "main"};

constexpr TestNaming kNoTests{};
constexpr ImportResolution kNoImports{.module_paths = ModulePaths::none};

constexpr TestNaming kScriptTests{.suffixes = kScriptTestSuffixes};
constexpr ImportResolution kRelativeImports{
    .module_paths = ModulePaths::relative_files, .package_files = kScriptPackageFiles, .submodule_separator = "/"};
constexpr TestNaming kCTests{.prefixes = kTestPrefix, .suffixes = kCTestSuffixes, .never_suffixes = kCNeverTestSuffixes};
constexpr ImportResolution kCImports{.module_paths = ModulePaths::include_files, .bare_names_reach_members = true};

constexpr std::array kLanguages{
    LanguageSpec{
        .language = Language::python,
        .name = "python",
        .extensions = kPythonExtensions,
        .reading = Reading::parsed,
        .parser = Parser(tree_sitter_python, detail::python_rules),
        .family = Language::python,
        .tests = {.file_names = kConftest, .prefixes = kTestPrefix, .suffixes = kTestSuffix},
        .imports = {.module_paths = ModulePaths::python_modules, .package_files = kPythonPackageFiles},
        .comments = Comments::hash_docstrings,
    },
    LanguageSpec{
        .language = Language::javascript,
        .name = "javascript",
        .extensions = kJavaScriptExtensions,
        .reading = Reading::parsed,
        .parser = Parser(tree_sitter_javascript, detail::javascript_rules),
        .family = Language::javascript,
        .tests = kScriptTests,
        .imports = kRelativeImports,
        .comments = Comments::c_style,
    },
    LanguageSpec{
        .language = Language::typescript,
        .name = "typescript",
        .extensions = kTypeScriptExtensions,
        .reading = Reading::parsed,
        .parser = Parser(tree_sitter_typescript, detail::javascript_rules),
        .family = Language::javascript,
        .tests = kScriptTests,
        .imports = kRelativeImports,
        .comments = Comments::c_style,
    },
    LanguageSpec{
        .language = Language::tsx,
        .name = "tsx",
        .extensions = kTsxExtensions,
        .reading = Reading::parsed,
        .parser = Parser(tree_sitter_tsx, detail::javascript_rules),
        .family = Language::javascript,
        .tests = kScriptTests,
        .imports = kRelativeImports,
        .comments = Comments::c_style,
    },
    LanguageSpec{
        .language = Language::go,
        .name = "go",
        .extensions = kGoExtensions,
        .reading = Reading::parsed,
        .parser = Parser(tree_sitter_go, detail::go_rules),
        .family = Language::go,
        .tests = {.suffixes = kTestSuffix},
        .imports = {.module_paths = ModulePaths::go_packages, .submodule_separator = "/", .package_is_directory = true},
        .comments = Comments::c_style,
    },
    LanguageSpec{
        .language = Language::rust,
        .name = "rust",
        .extensions = kRustExtensions,
        .reading = Reading::parsed,
        .parser = Parser(tree_sitter_rust, detail::rust_rules),
        .family = Language::rust,
        .tests = {.suffixes = kTestSuffix},
        .imports = {.module_paths = ModulePaths::rust_paths, .package_files = kRustPackageFiles, .submodule_separator = "::"},
        .comments = Comments::c_style,
    },
    LanguageSpec{
        .language = Language::java,
        .name = "java",
        .extensions = kJavaExtensions,
        .reading = Reading::parsed,
        .parser = Parser(tree_sitter_java, detail::java_rules),
        .family = Language::java,
        .tests = {.prefixes = kCamelTestPrefix, .suffixes = kCamelTestSuffixes, .camel_case = true},
        .imports = {.module_paths = ModulePaths::dotted, .package_is_directory = true, .bare_names_reach_members = true},
        .comments = Comments::c_style,
    },
    LanguageSpec{
        .language = Language::c,
        .name = "c",
        .extensions = kCExtensions,
        .reading = Reading::parsed,
        .parser = Parser(tree_sitter_c, detail::c_rules),
        .family = Language::c,
        .tests = kCTests,
        .imports = kCImports,
        .comments = Comments::c_style,
    },
    LanguageSpec{
        .language = Language::cpp,
        .name = "cpp",
        .extensions = kCppExtensions,
        .reading = Reading::parsed,
        .parser = Parser(tree_sitter_cpp, detail::c_rules),
        .family = Language::c,
        .tests = kCTests,
        .imports = kCImports,
        .comments = Comments::c_style,
    },
    LanguageSpec{
        .language = Language::ruby,
        .name = "ruby",
        .extensions = kRubyExtensions,
        .reading = Reading::parsed,
        .parser = Parser(tree_sitter_ruby, detail::ruby_rules),
        .family = Language::ruby,
        .tests = {.prefixes = kTestPrefix, .suffixes = kRubyTestSuffixes},
        .imports = {.module_paths = ModulePaths::relative_files, .submodule_separator = "/", .bare_names_reach_members = true},
        .comments = Comments::hash,
    },
    LanguageSpec{
        .language = Language::markdown,
        .name = "markdown",
        .extensions = kMarkdownExtensions,
        .reading = Reading::markdown,
        .family = Language::markdown,
        .tests = kNoTests,
        .imports = kNoImports,
        .comments = Comments::html,
    },
    LanguageSpec{
        .language = Language::json,
        .name = "json",
        .extensions = kJsonExtensions,
        .reading = Reading::none,
        .family = Language::json,
        .tests = kNoTests,
        .imports = kNoImports,
        .comments = Comments::none,
    },
    LanguageSpec{
        .language = Language::yaml,
        .name = "yaml",
        .extensions = kYamlExtensions,
        .reading = Reading::none,
        .family = Language::yaml,
        .tests = kNoTests,
        .imports = kNoImports,
        .comments = Comments::hash,
    },
    LanguageSpec{
        .language = Language::toml,
        .name = "toml",
        .extensions = kTomlExtensions,
        .reading = Reading::none,
        .family = Language::toml,
        .tests = kNoTests,
        .imports = kNoImports,
        .comments = Comments::hash,
    },
};

// A row for every language, in the enumeration's order, each complete: a missing or partial
// row fails the build rather than falling back at run time. (A parsed row cannot give its
// grammar without its rules: Parser takes both.)
consteval bool table_is_complete() {
    if (kLanguages.size() != kLanguageCount) return false;
    for (std::size_t i = 0; i < kLanguages.size(); ++i) {
        const LanguageSpec& row = kLanguages[i];
        if (static_cast<std::size_t>(row.language) != i || row.name.empty() || row.extensions.empty()) return false;
        if (row.reading == Reading::unset || row.imports.module_paths == ModulePaths::unset) return false;
        if (row.comments == Comments::unset) return false;
        const bool parsed = row.reading == Reading::parsed;
        if (parsed != row.parser.has_value()) return false;
        if (parsed == (row.imports.module_paths == ModulePaths::none)) return false;
        if (kLanguages[static_cast<std::size_t>(row.family)].family != row.family) return false;
    }
    return true;
}
static_assert(table_is_complete(), "the language table needs one complete row per Language, in order");

}  // namespace

const LanguageSpec& language_spec(Language language) {
    return kLanguages[static_cast<std::size_t>(language)];
}

std::span<const LanguageSpec> all_languages() {
    return kLanguages;
}

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
    for (const LanguageSpec& row : kLanguages) {
        for (std::string_view extension : row.extensions) {
            if (extension == key) return row.language;
        }
    }
    return std::nullopt;
}

std::string_view language_name(Language language) {
    return language_spec(language).name;
}

bool is_source_language(Language language) {
    return language_spec(language).reading == Reading::parsed;
}

namespace detail {

const TSLanguage* grammar(Language language) {
    const LanguageSpec& spec = language_spec(language);
    return spec.parser ? spec.parser->grammar() : nullptr;
}

const LanguageRules& rules_for(Language language) {
    const LanguageSpec& spec = language_spec(language);
    if (!spec.parser) throw std::logic_error("no rules for " + std::string(spec.name) + ": it is not parsed");
    return spec.parser->rules();
}

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
