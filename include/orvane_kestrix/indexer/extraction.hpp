#pragma once
// What the parser takes out of one source file: its definitions, the names it uses and the
// modules it imports. The index builder resolves uses to definitions across files.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvane_kestrix::indexer {

// Each language has one row in the language table (src/indexer/languages.cpp), in this order.
enum class Language { python, javascript, typescript, tsx, go, rust, java, c, cpp, ruby, markdown, json, yaml, toml };
inline constexpr std::size_t kLanguageCount = static_cast<std::size_t>(Language::toml) + 1;

// The language of a repository path by its extension,
// or absent for a file the index does not record.
std::optional<Language> language_for_path(std::string_view path);
std::string_view language_name(Language language);
// Source code (parsed for symbols and references), as opposed to documentation and data files.
bool is_source_language(Language language);

struct ExtractedSymbol {
    std::string name;
    std::string fqn;   // qualified by module and enclosing scopes, per language
    std::string kind;  // class, interface, struct, trait, enum, function, method, module,
                       // namespace, type, variable, constant, field, property, section
    std::int64_t start_line = 1;  // 1-based
    std::int64_t end_line = 1;    // 1-based, inclusive
    std::optional<std::string> signature;  // the definition's head up to its body, white space folded
    std::optional<std::string> docstring;  // markers stripped; cut at the limit
    bool docstring_truncated = false;
    bool is_export = false;
    // Index of the enclosing definition in `symbols`. A method defined apart from its type
    // (Go receiver, Rust impl block, C++ `A::f`) has the type's symbol when the type is in the
    // same file, else the definition around it (a namespace) or none.
    std::optional<std::size_t> parent;
};

// A use of a name. Imports are uses too: the imported name, qualified by the module as written
// (`from .x import y`: name "y", qualifier ".x"; `import a.b`: name "b", qualifier "a").
struct ExtractedReference {
    std::string name;       // the referenced identifier (last component), e.g. "join"
    std::string qualifier;  // what precedes it as written, e.g. "os.path"; empty when bare
    std::string usage_type;  // "call", "import", "type", "inherit", ...
    std::int64_t line = 1;
    std::string context;  // the trimmed source line of the use
    std::optional<std::size_t> caller;  // index of the enclosing definition in `symbols`
};

struct ExtractedImport {
    // As written: "pkg.mod", ".rel", "./util", "fmt", "crate::a::b", "x.h", "com.x.Y".
    // C/C++ angle includes keep their brackets ("<vector>"); quoted ones lose their quotes.
    std::string module;
    // Names imported from it ("*" for a wildcard); empty when the module itself is. A JS default
    // import lists its local name.
    std::vector<std::string> names;
    std::optional<std::string> alias;
    std::int64_t line = 1;
};

struct FileExtraction {
    std::string module_name;  // the file's module as its language names it (for fqns)
    std::vector<ExtractedSymbol> symbols;  // in source order
    std::vector<ExtractedReference> references;
    std::vector<ExtractedImport> imports;
    bool has_syntax_errors = false;
    // The parser gave up: it exceeded its work budget on pathological input (which some
    // grammars' error recovery meets on garbage). Nothing was extracted.
    bool parse_abandoned = false;
    // A stop was requested while the file was parsed or walked: the result is incomplete and
    // must not be stored.
    bool cancelled = false;
};

struct ExtractorOptions {
    std::size_t docstring_limit = 4000;  // bytes; longer docstrings are cut and flagged
    // Set when the run should stop; a file being extracted then stops within milliseconds.
    const std::atomic<bool>* cancel = nullptr;
};

// Module names (the prefix of fqns) by language: Python, the path without ".py" with "/" as
// "." ("pkg/__init__.py" is "pkg"; a leading ".../src/" is dropped); JS/TS, the path without
// its extension, dotted; Go, the package clause; Rust, the path below src/ (or tests/...),
// dotted, with lib.rs, main.rs and mod.rs standing for their directory; Java, the package;
// C and C++, none (namespaces qualify); Ruby, none (classes and modules qualify); Markdown,
// the dotted path.

// Parses files of any supported language. Not thread-safe: one extractor per thread. Any bytes
// are accepted: the content is read as the index reads files (ill-formed UTF-8 replaced, CR LF
// and CR as LF, so line numbers match), and every string of the result is valid UTF-8.
class Extractor {
public:
    explicit Extractor(ExtractorOptions options = {});
    ~Extractor();
    Extractor(const Extractor&) = delete;
    Extractor& operator=(const Extractor&) = delete;

    // `path` is repository-relative with "/" separators; `content` is the file's bytes.
    FileExtraction extract(Language language, std::string_view path, std::string_view content);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace orvane_kestrix::indexer
