#pragma once
// Cross-file facts: which definitions each reference can mean, the production fan-in of each
// symbol, and the test files that reach each source file. A pure function of the indexed
// files, computed whole (derive_index_data) or, after a few files changed, for the references
// whose meaning they can change (PartialResolution).

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "orvane_kestrix/indexer/extraction.hpp"

namespace orvane_kestrix::indexer {

struct SnapshotFile {
    std::int64_t id = 0;
    std::string path;
    Language language = Language::python;
    bool is_test = false;
    bool is_source = false;
    std::string module_name;
};

struct SnapshotSymbol {
    std::int64_t id = 0;
    std::int64_t file_id = 0;
    std::string name;
    std::string fqn;
    std::string kind;
    std::int64_t stored_fan_in = 0;  // production fan-in as the index holds it (0 when just written)
};

struct SnapshotImport {
    std::int64_t file_id = 0;
    std::string module;
    std::optional<std::string> name;  // absent: the module itself
    std::optional<std::string> alias;
};

struct SnapshotReference {
    std::int64_t id = 0;
    std::int64_t file_id = 0;
    std::string name;
    std::string qualifier;
    std::string usage_type = "call";
};

// A package that names its own root: a Go module (go.mod's module path; its directory) or a
// Rust crate (Cargo.toml's package name with "-" as "_"; its src/ directory).
struct PackageRoot {
    std::string name;       // "example.com/sample", "calc"
    std::string directory;  // repository-relative, "" for the root
};

struct IndexSnapshot {
    std::vector<SnapshotFile> files;
    std::vector<SnapshotSymbol> symbols;
    std::vector<SnapshotImport> imports;
    std::vector<SnapshotReference> references;
    std::vector<PackageRoot> packages;
};

struct ReferenceEdge {
    std::int64_t symbol_id = 0;
    std::int64_t reference_id = 0;
    auto operator<=>(const ReferenceEdge&) const = default;
};

struct CoveringTestRow {
    std::int64_t source_file_id = 0;
    std::int64_t test_file_id = 0;
    double rank = 0;
    std::int64_t used_symbols = 0;
    bool operator==(const CoveringTestRow&) const = default;
};

struct DerivedData {
    std::vector<ReferenceEdge> edges;                          // sorted, each once
    std::unordered_map<std::int64_t, std::int64_t> fan_in;     // symbol id -> count; zero left out
    std::vector<CoveringTestRow> covering_tests;               // by source, then test file id
};

// Resolves every reference to the definitions it can mean, in this order, stopping at the
// first step that finds any:
//   1. a qualifier that names an imported module (or a name imported from one, or a module
//      written out in full): the definitions of that name in that module's files;
//   2. the definitions of the name in the reference's own file;
//   3. for Go and Java, in the other files of the same package (directory);
//   4. in the files of the modules the reference's file imports: a name imported by name
//      first, then the modules imported whole, then (for `x.name`) members in any of them;
//   5. the one definition of that name among the source files of the same language family,
//      when there is exactly one.
// Only symbols of source files are targets, and only those that fit the use: a type use
// ("type", "inherit", "implement") means a type (class, struct, interface, trait, enum,
// type...); `obj.name` on a value means a member (method, field, property); `Type.name` or
// `path::name` means a definition whose qualified name ends with "Type.name"; a bare name
// outside the file and its imports is no member (except in Java, C and C++, where members
// are reached without a receiver). Then counts each symbol's references from
// non-test files (production fan-in) and ranks the test files reaching each source file.
DerivedData derive_index_data(const IndexSnapshot& snapshot);

// Resolution of some references only, for a refresh after a few files changed. The snapshot
// holds every file and import of the index, the symbols of every name those references can
// reach (directly or through the imports they pass), and as references only the ones to
// resolve; it must outlive this object.
class PartialResolution {
public:
    // Test file id -> source file id -> the distinct symbols of the source the test uses.
    using TestUses = std::map<std::int64_t, std::map<std::int64_t, std::set<std::int64_t>>>;

    explicit PartialResolution(const IndexSnapshot& snapshot);
    ~PartialResolution();
    PartialResolution(const PartialResolution&) = delete;
    PartialResolution& operator=(const PartialResolution&) = delete;

    // The snapshot's references resolved as derive_index_data would: sorted edges, each once.
    std::vector<ReferenceEdge> edges() const;
    // Every covering-test row once the tests of `uses` (each with all its uses, or none) are
    // recomputed; `kept` are the stored rows of all other tests.
    std::vector<CoveringTestRow> covering_tests(const TestUses& uses, const std::vector<CoveringTestRow>& kept) const;

private:
    struct Lookups;
    const IndexSnapshot& snapshot_;
    std::unique_ptr<Lookups> lookups_;
};

// Package roots from a manifest's text: go.mod's `module` line, Cargo.toml's [package] name.
std::optional<PackageRoot> package_root_from_manifest(const std::string& manifest_path, const std::string& text);

}  // namespace orvane_kestrix::indexer
