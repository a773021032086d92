#pragma once
// After a few files changed in place, brings the derived data (reference edges, production
// fan-in, covering tests) up to date by resolving again only the references whose meaning the
// change can alter, instead of every reference of the repository:
//   - the references of the changed files;
//   - elsewhere, the references that use a name the changed files defined or imported, before
//     or after the change (a definition gained or lost, an import that re-exports it);
// and writes the difference. What else could change a reference's meaning (files added,
// removed or reclassified, a module that names itself differently, a changed `import *`,
// manifests) is left to a whole resolution. Tests compare the result with a fresh index.

#include <cstdint>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "orvane_kestrix/indexer/resolution.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix::indexer {

class IncrementalRefresh {
public:
    explicit IncrementalRefresh(storage::Database& db);

    // Reads what a file holds before this run replaces its rows.
    void record_before(std::int64_t file_id);
    std::size_t changed_files() const { return changed_.size(); }

    // `written` holds the changed files' new symbols, imports and references. Resolves again
    // what the change can alter and writes the difference, inside the caller's transaction;
    // false, having written nothing, when only a whole resolution can tell.
    bool run(const IndexSnapshot& written, const std::vector<PackageRoot>& packages);

private:
    bool change_is_local(const IndexSnapshot& written);
    std::vector<SnapshotReference> references_to_resolve(const IndexSnapshot& written) const;
    IndexSnapshot snapshot_for(std::vector<SnapshotReference> references, const std::vector<PackageRoot>& packages);
    std::set<std::int64_t> write_edges(const std::vector<SnapshotReference>& resolved, const std::vector<ReferenceEdge>& edges);
    void write_fan_in(const std::set<std::int64_t>& symbols);
    void write_covering_tests(const PartialResolution& resolution, const IndexSnapshot& snapshot);

    storage::Database& db_;
    std::unordered_set<std::int64_t> changed_;
    std::unordered_set<std::string> names_;               // names whose definitions may have changed
    std::vector<std::int64_t> old_references_;            // the changed files' references before
    std::vector<std::pair<std::int64_t, std::string>> old_module_names_;
    std::vector<std::pair<std::int64_t, std::string>> old_wildcards_;  // (file, module) of `import *`
};

}  // namespace orvane_kestrix::indexer
