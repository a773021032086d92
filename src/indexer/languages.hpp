#pragma once
// Every language the index knows, described once: its name and file extensions, how its files
// are read (a tree-sitter grammar and the language's rules, Markdown headings, or not at all),
// how its test files are named and how its imports name other files. Whatever differs by
// language reads this table (languages.cpp); adding a language is one row there plus the file
// of its rules.

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "orvane_kestrix/indexer/extraction.hpp"

struct TSLanguage;

namespace orvane_kestrix::indexer {

namespace detail {
class LanguageRules;
}

// How the content of a file is read. Every enum of a row starts with `unset`, which the table's
// compile-time check rejects, so that a row cannot leave one out.
enum class Reading : std::uint8_t {
    unset,
    parsed,    // source code: the grammar's tree, walked by the language's rules
    markdown,  // documentation: one section per heading
    none,      // data files: recorded, nothing extracted
};

// How an import's module string names files of the repository.
enum class ModulePaths : std::uint8_t {
    unset,
    dotted,          // "a.b.c": a module path, or a shorter one with the rest as an item (Java)
    python_modules,  // dotted; leading dots climb from the importing file's package
    rust_paths,      // "a::b"; crate::, self:: and super:: start from the crate or the module
    go_packages,     // "module/path/pkg": a directory, all of its files
    relative_files,    // "./x", "../x": a file by relative path; anything else is a package from outside
    include_files,   // "dir/x.h": a file by path (a header brings the sources of its name)
    none,            // nothing to resolve (documentation and data files)
};

// How comments are written, for what the opening comments of a file say about it (a
// generated-file marker).
enum class Comments : std::uint8_t {
    unset,
    hash,              // "# ..." (Ruby, YAML, TOML)
    hash_docstrings,   // "# ..." and triple-quoted docstrings (Python)
    c_style,           // "// ...", "/* ... */"; a "#!" line starts a script
    html,              // "<!-- ... -->" (Markdown)
    none,              // JSON
};

// How test files are named, beyond the directories every language shares (tests/, test/,
// __tests__/, spec/). Markers apply to the file name without its extension and only to a
// longer name ("test_.py" is no test).
struct TestNaming {
    std::span<const std::string_view> file_names = {};  // whole file names ("conftest.py")
    std::span<const std::string_view> prefixes = {};    // "test_"
    std::span<const std::string_view> suffixes = {};    // "_test", ".spec"
    // Names ending so are no tests even when a prefix marks them (other languages' markers).
    std::span<const std::string_view> never_suffixes = {};
    // Camel-case markers ("TestCart", "CartTest"): a prefix must be followed by an upper-case
    // letter, and the tested name drops only camel-case markers.
    bool camel_case = false;
};

// How the resolver reads the imports of a language.
struct ImportResolution {
    ModulePaths module_paths = ModulePaths::unset;
    // File names (without extension) that stand for their directory as a module.
    std::span<const std::string_view> package_files = {};
    // What joins a module and an imported name into a submodule ("pkg" + "." + "mod").
    std::string_view submodule_separator = ".";
    // All files of a directory form one package that sees its own names (Go, Java).
    bool package_is_directory = false;
    // Code inside a type reaches its members by bare name (Java, C, C++, Ruby), so a bare name
    // found elsewhere may be a member.
    bool bare_names_reach_members = false;
};

// How a source language is parsed: its tree-sitter grammar, and the rules (with the walker)
// that read the grammar's trees. Both are needed, so both are constructor arguments.
struct Parser {
    constexpr Parser(const TSLanguage* (*grammar_of)(), const detail::LanguageRules& (*rules_of)())
        : grammar(grammar_of), rules(rules_of) {}
    const TSLanguage* (*grammar)();
    const detail::LanguageRules& (*rules)();
};

struct LanguageSpec {
    Language language;
    std::string_view name;  // as stored in the index ("python")
    std::span<const std::string_view> extensions;  // lower case, without the dot
    Reading reading = Reading::unset;
    std::optional<Parser> parser = std::nullopt;  // parsed languages only
    // Languages whose files use each other's definitions share a family, named by its first
    // language (TypeScript's is JavaScript, C++'s is C).
    Language family;
    TestNaming tests;
    ImportResolution imports;
    Comments comments = Comments::unset;
};

// The row of a language.
const LanguageSpec& language_spec(Language language);
// Every row, in the order of the Language enumeration.
std::span<const LanguageSpec> all_languages();

}  // namespace orvane_kestrix::indexer
