#pragma once
// After a few files changed in place, brings the derived data (reference edges, production
// fan-in, covering tests) up to date by resolving again only the references whose meaning the
// change can alter, instead of every reference of the repository:
//   - the references of the changed files;
//   - elsewhere, the references that use a name whose definitions in the changed files differ
//     (gained, lost, or of another qualified name or kind), or that the changed files' imports
//     name when those imports differ; and those whose definition went without a successor.
// A definition that comes back as it was (same name, qualified name and kind) gets a new id,
// and the edges into it are carried over to that id. The difference is what is written.
// A file added or removed counts as all its definitions and imports gained or lost (a module
// path finds another file only for the names that file defines), and then every test's coverage
// is redone (a test may import the file, or be named after it). What else could change a
// reference's meaning (files reclassified, a module that names itself differently, a changed
// `import *`, manifests) is left to a whole resolution. Tests compare the result with a fresh
// index.

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "orvane_kestrix/indexer/resolution.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix::indexer {

class IncrementalRefresh {
public:
    explicit IncrementalRefresh(storage::Database& db);

    // Reads what a file holds before this run replaces its rows, or deletes it (`removed`).
    void record_before(std::int64_t file_id, bool removed = false);
    // A file new to the index, written by this run.
    void note_added(std::int64_t file_id);
    std::size_t changed_files() const { return changed_.size(); }

    // `written` holds the changed files' new symbols, imports and references. Resolves again
    // what the change can alter and writes the difference, inside the caller's transaction;
    // false, having written nothing, when only a whole resolution can tell.
    bool run(const IndexSnapshot& written, const std::vector<PackageRoot>& packages);

private:
    struct ImportRow {
        std::string module, name, alias;
        auto operator<=>(const ImportRow&) const = default;
    };
    // What a changed file held before this run.
    struct FileBefore {
        std::vector<SnapshotSymbol> symbols;
        std::vector<ImportRow> imports;
        std::string module_name;
        bool is_test = false;
        bool removed = false;
    };
    struct EdgeIn {
        std::int64_t symbol_id = 0;
        std::int64_t reference_id = 0;
        bool from_test = false;
    };

    void note_module_keys(std::int64_t file_id);
    bool compare_with_before(const IndexSnapshot& written);
    IndexSnapshot snapshot_for(const IndexSnapshot& written, const std::vector<PackageRoot>& packages);
    std::map<std::int64_t, std::int64_t> write_edges(const IndexSnapshot& snapshot, std::vector<ReferenceEdge> edges);
    void write_fan_in(const std::map<std::int64_t, std::int64_t>& changes);
    void write_covering_tests(const PartialResolution& resolution, const IndexSnapshot& snapshot);

    storage::Database& db_;
    std::unordered_set<std::int64_t> changed_;
    std::map<std::int64_t, FileBefore> before_;
    std::vector<EdgeIn> edges_in_;                                 // edges into the changed files' symbols
    std::unordered_map<std::int64_t, std::int64_t> old_references_;  // the changed files' references -> file
    std::unordered_set<std::string> names_;                        // names whose definitions differ
    std::unordered_map<std::int64_t, std::int64_t> new_id_;        // symbol defined again as it was -> new id
    bool files_added_or_removed_ = false;                           // then every test's coverage is redone
    std::unordered_set<std::string> module_keys_;                  // names imports may use for those files
    std::unordered_set<std::string> moved_stems_;                  // those files' names without extension
    std::unordered_set<std::int64_t> importers_;                   // files whose imports may now mean other files
};

}  // namespace orvane_kestrix::indexer
