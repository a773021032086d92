#pragma once
// The index contract: the operations through which the context builder reads a repository's
// index, and the records they return. The SQLite index and the JSON fixture index implement it.

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "orvane_kestrix/models.hpp"

namespace orvane_kestrix {

struct Component {
    std::optional<std::int64_t> id;  // absent or 0: no component
    std::string name;
};

struct FileRecord {
    std::optional<std::int64_t> id;  // absent or 0: passed over
    std::string path;
};

// One test file as it concerns one source file.
struct CoveringTestForFile {
    std::string path;  // the test file's repository path
    double rank = 0;   // lower is better
};

// One test file that reaches some of the source files asked about, with its rank per file.
struct CoveringTest {
    std::string path;
    // Source path -> rank, for the asked paths that this test reaches.
    std::vector<std::pair<std::string, double>> reaches;

    // This test as it concerns `source_path`, or absent when it does not reach that file.
    std::optional<CoveringTestForFile> alone(const std::string& source_path) const {
        for (const auto& [source, rank] : reaches) {
            if (source == source_path) return CoveringTestForFile{path, rank};
        }
        return std::nullopt;
    }
};

// The calling symbol of a reference; each entry may be missing.
struct CallerSymbol {
    std::optional<std::string> fqn;
    std::optional<std::string> kind;
    std::optional<std::string> name;

    bool empty() const { return !fqn && !kind && !name; }
};

struct Reference {
    std::string usage_type = "call";  // "call", "import", "type", ...
    std::optional<CallerSymbol> caller_symbol;
    std::optional<std::string> context;  // the trimmed source line of the use
};

struct SymbolSearchResult {
    std::vector<Symbol> symbols;  // in the index's order, cut to the limit
};

struct ReferencesResult {
    std::vector<Reference> references;  // in the index's order
    std::int64_t total = 0;
};

using SymbolPathMap = std::unordered_map<std::int64_t, std::string>;
using FanInMap = std::unordered_map<std::int64_t, std::int64_t>;
using SymbolWithPath = std::pair<Symbol, std::optional<std::string>>;

// The index facade. Every list operation answers the whole list at once; implementations
// answer each in one query. Errors are thrown as exceptions and reach the caller unchanged.
class Repository {
public:
    virtual ~Repository() = default;

    virtual std::optional<Component> get_component_by_name(const std::string& name) = 0;
    virtual std::vector<FileRecord> get_files_by_component(std::int64_t component_id) = 0;
    // `pattern` is a LIKE pattern over symbol names: "%" any run, "_" one character.
    virtual SymbolSearchResult search_symbols(const std::string& pattern, std::int64_t limit = 50,
                                              bool source_only = true) = 0;
    // Symbol id -> path of the symbol's file; symbols without id or file have no entry.
    virtual SymbolPathMap get_file_paths_batch(const std::vector<Symbol>& symbols) = 0;
    // Symbol id -> production fan-in (references from non-test files).
    virtual FanInMap production_fan_in(const std::vector<std::int64_t>& ids) = 0;
    // Those of `paths` that are test files.
    virtual std::unordered_set<std::string> test_paths(const std::vector<std::string>& paths) = 0;
    // Symbol id -> (symbol, its file's path), for the ids the index holds; an absent id
    // matches nothing.
    virtual std::unordered_map<std::int64_t, SymbolWithPath> symbols_with_paths(
        const std::vector<std::optional<std::int64_t>>& ids) = 0;
    // The test files that reach at least one of `paths`, each answering for the asked paths.
    virtual std::vector<CoveringTest> find_covering_tests(const std::vector<std::string>& paths) = 0;
    virtual std::vector<Symbol> get_symbols_by_file(std::int64_t file_id) = 0;
    virtual ReferencesResult get_references(const std::string& fqn) = 0;
    virtual std::optional<Symbol> get_symbol_by_fqn(const std::string& fqn) = 0;
};

}  // namespace orvane_kestrix
