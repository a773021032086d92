#include "incremental_refresh.hpp"

#include <algorithm>
#include <map>
#include <string_view>
#include <unordered_map>

#include "orvane_kestrix/indexer/index_store.hpp"
#include "orvane_kestrix/storage/multi_row_insert.hpp"

namespace orvane_kestrix::indexer {

namespace {

using storage::Statement;

// The names an import can stand for in another file's lookups: the imported name, its alias,
// and the module path's last part (`import com.x.Y`, `use a::b::Item` import an item by it).
template <typename Add>
void import_names(std::string_view module, std::string_view name, std::string_view alias, Add&& add) {
    if (!name.empty()) add(name);
    if (!alias.empty()) add(alias);
    const auto last = module.find_last_of("./:");
    const std::string_view tail = last == std::string_view::npos ? module : module.substr(last + 1);
    if (!tail.empty()) add(tail);
}

struct TransparentHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};

}  // namespace

IncrementalRefresh::IncrementalRefresh(storage::Database& db) : db_(db) {}

void IncrementalRefresh::record_before(std::int64_t file_id) {
    if (!changed_.insert(file_id).second) return;
    const auto add = [&](std::string_view name) { names_.emplace(name); };
    Statement symbols(db_, "SELECT name FROM symbols WHERE file_id = ?");
    symbols.bind(1, file_id);
    while (symbols.step()) add(symbols.column_text(0));
    Statement refs(db_, "SELECT id FROM refs WHERE file_id = ?");
    refs.bind(1, file_id);
    while (refs.step()) old_references_.push_back(refs.column_int64(0));
    Statement imports(db_, "SELECT module, coalesce(name, ''), coalesce(alias, '') FROM imports WHERE file_id = ?");
    imports.bind(1, file_id);
    while (imports.step()) {
        import_names(imports.column_text(0), imports.column_text(1), imports.column_text(2), add);
        if (imports.column_text(1) == "*") old_wildcards_.emplace_back(file_id, imports.column_string(0));
    }
    Statement module(db_, "SELECT module_name FROM files WHERE id = ?");
    module.bind(1, file_id);
    if (module.step()) old_module_names_.emplace_back(file_id, module.column_string(0));
}

// Whether the change stays within what name-based re-resolution covers: every changed file
// still names its module as before and imports the same modules whole with `*` (through
// which any name may pass). Also adds the new definitions' and imports' names.
bool IncrementalRefresh::change_is_local(const IndexSnapshot& written) {
    Statement module(db_, "SELECT module_name FROM files WHERE id = ?");
    for (const auto& [file_id, name] : old_module_names_) {
        module.bind(1, file_id);
        if (!module.step() || module.column_text(0) != name) return false;
        module.reset();
    }
    std::vector<std::pair<std::int64_t, std::string>> wildcards;
    for (const auto& import : written.imports) {
        if (changed_.count(import.file_id) == 0) return false;
        if (import.name == "*") wildcards.emplace_back(import.file_id, import.module);
    }
    std::sort(wildcards.begin(), wildcards.end());
    std::vector<std::pair<std::int64_t, std::string>> before = old_wildcards_;
    std::sort(before.begin(), before.end());
    if (wildcards != before) return false;

    const auto add = [&](std::string_view name) { names_.emplace(name); };
    for (const auto& symbol : written.symbols) {
        if (changed_.count(symbol.file_id) == 0) return false;
        add(symbol.name);
    }
    for (const auto& import : written.imports) import_names(import.module, import.name.value_or(""), import.alias.value_or(""), add);
    return std::all_of(written.references.begin(), written.references.end(),
                       [&](const SnapshotReference& ref) { return changed_.count(ref.file_id) > 0; });
}

// The changed files' references, and the others that use a name whose definitions may differ.
std::vector<SnapshotReference> IncrementalRefresh::references_to_resolve(const IndexSnapshot& written) const {
    std::vector<SnapshotReference> out = written.references;
    std::unordered_set<std::string_view, TransparentHash, std::equal_to<>> names(names_.begin(), names_.end());
    Statement refs(db_, "SELECT id, file_id, name, qualifier, usage_type FROM refs");
    while (refs.step()) {
        if (names.count(refs.column_text(2)) == 0 || changed_.count(refs.column_int64(1)) > 0) continue;
        out.push_back({refs.column_int64(0), refs.column_int64(1), refs.column_string(2), refs.column_string(3), refs.column_string(4)});
    }
    return out;
}

// Every file and import, and the symbols of each name the references can reach: their own
// names, the changed names, and the original names behind aliased imports (a lookup of an
// alias goes on with the name it stands for).
IndexSnapshot IncrementalRefresh::snapshot_for(std::vector<SnapshotReference> references, const std::vector<PackageRoot>& packages) {
    IndexSnapshot snapshot;
    {
        Statement files(db_, "SELECT id, path, language, is_test, is_source, module_name FROM files ORDER BY id");
        while (files.step()) {
            const auto language = language_from_name(files.column_text(2));
            if (!language) continue;
            snapshot.files.push_back({files.column_int64(0), files.column_string(1), *language, files.column_int64(3) != 0,
                                      files.column_int64(4) != 0, files.column_string(5)});
        }
    }
    std::set<std::string, std::less<>> wanted(names_.begin(), names_.end());
    {
        Statement imports(db_, "SELECT file_id, module, name, alias FROM imports ORDER BY id");
        while (imports.step()) {
            snapshot.imports.push_back({imports.column_int64(0), imports.column_string(1), imports.column_optional_text(2),
                                        imports.column_optional_text(3)});
            const auto& import = snapshot.imports.back();
            if (import.alias) {
                import_names(import.module, import.name.value_or(""), "", [&](std::string_view name) { wanted.emplace(name); });
            }
        }
    }
    for (const auto& ref : references) wanted.insert(ref.name);
    Statement symbols(db_, "SELECT id, file_id, name, fqn, kind, production_fan_in FROM symbols "
                           "WHERE name = ?1 COLLATE NOCASE AND name = ?1");
    for (const auto& name : wanted) {
        symbols.bind(1, name);
        while (symbols.step()) {
            snapshot.symbols.push_back({symbols.column_int64(0), symbols.column_int64(1), symbols.column_string(2),
                                        symbols.column_string(3), symbols.column_string(4), symbols.column_int64(5)});
        }
        symbols.reset();
    }
    std::sort(snapshot.symbols.begin(), snapshot.symbols.end(), [](const auto& a, const auto& b) { return a.id < b.id; });
    snapshot.references = std::move(references);
    snapshot.packages = packages;
    return snapshot;
}

// Replaces the edges of the resolved references (and removes those of the changed files'
// former references); returns the symbols that gained or lost an edge.
std::set<std::int64_t> IncrementalRefresh::write_edges(const std::vector<SnapshotReference>& resolved,
                                                       const std::vector<ReferenceEdge>& edges) {
    std::vector<ReferenceEdge> before;
    Statement targets(db_, "SELECT symbol_id FROM ref_targets WHERE ref_id = ?");
    const auto read = [&](std::int64_t ref) {
        targets.bind(1, ref);
        while (targets.step()) before.push_back({targets.column_int64(0), ref});
        targets.reset();
    };
    for (const auto& ref : resolved) {
        if (changed_.count(ref.file_id) == 0) read(ref.id);
    }
    for (std::int64_t ref : old_references_) read(ref);
    std::sort(before.begin(), before.end());

    std::vector<ReferenceEdge> removed;
    std::vector<ReferenceEdge> added;
    std::set_difference(before.begin(), before.end(), edges.begin(), edges.end(), std::back_inserter(removed));
    std::set_difference(edges.begin(), edges.end(), before.begin(), before.end(), std::back_inserter(added));
    Statement remove(db_, "DELETE FROM ref_targets WHERE symbol_id = ? AND ref_id = ?");
    for (const auto& edge : removed) {
        remove.bind(1, edge.symbol_id).bind(2, edge.reference_id);
        remove.run();
    }
    storage::MultiRowInsert insert(db_, "INSERT INTO ref_targets(symbol_id, ref_id)", 2, 64);
    insert.insert(added.size(), [&](storage::RowBinder& row, std::size_t k) {
        row.bind(1, added[k].symbol_id).bind(2, added[k].reference_id);
    });

    std::set<std::int64_t> touched;
    for (const auto& edge : removed) touched.insert(edge.symbol_id);
    for (const auto& edge : added) touched.insert(edge.symbol_id);
    return touched;
}

// Production fan-in of each symbol given, counted again from its edges.
void IncrementalRefresh::write_fan_in(const std::set<std::int64_t>& symbols) {
    Statement count(db_, "SELECT s.production_fan_in, (SELECT count(*) FROM ref_targets t JOIN refs r ON r.id = t.ref_id "
                         "JOIN files f ON f.id = r.file_id WHERE t.symbol_id = s.id AND f.is_test = 0) "
                         "FROM symbols s WHERE s.id = ?");
    Statement update(db_, "UPDATE symbols SET production_fan_in = ? WHERE id = ?");
    for (std::int64_t symbol : symbols) {
        count.bind(1, symbol);
        if (count.step() && count.column_int64(0) != count.column_int64(1)) {
            update.bind(1, count.column_int64(1)).bind(2, symbol);
            update.run();
        }
        count.reset();
    }
}

// Covering tests: the test files among the resolved references' files are redone from their
// edges as now stored; the other tests keep their rows, and every source file is ranked again.
void IncrementalRefresh::write_covering_tests(const PartialResolution& resolution, const IndexSnapshot& snapshot) {
    std::unordered_map<std::int64_t, const SnapshotFile*> files;
    for (const auto& file : snapshot.files) files.emplace(file.id, &file);
    const auto is_test_file = [&](std::int64_t id) {
        const auto it = files.find(id);
        return it != files.end() && it->second->is_test && it->second->is_source;
    };
    PartialResolution::TestUses uses;
    for (const auto& ref : snapshot.references) {
        if (is_test_file(ref.file_id)) uses[ref.file_id];
    }
    for (std::int64_t file : changed_) {
        if (is_test_file(file)) uses[file];
    }
    Statement used(db_, "SELECT t.symbol_id, s.file_id FROM refs r JOIN ref_targets t ON t.ref_id = r.id "
                        "JOIN symbols s ON s.id = t.symbol_id WHERE r.file_id = ?");
    for (auto& [test, sources] : uses) {
        used.bind(1, test);
        while (used.step()) {
            const std::int64_t source = used.column_int64(1);
            const auto it = files.find(source);
            if (source != test && it != files.end() && !it->second->is_test) sources[source].insert(used.column_int64(0));
        }
        used.reset();
    }

    std::vector<CoveringTestRow> stored;
    std::vector<CoveringTestRow> kept;
    Statement rows(db_, "SELECT source_file_id, test_file_id, rank, used_symbols FROM covering_tests "
                        "ORDER BY source_file_id, test_file_id");
    while (rows.step()) {
        stored.push_back({rows.column_int64(0), rows.column_int64(1), rows.column_double(2), rows.column_int64(3)});
        if (uses.count(stored.back().test_file_id) == 0) kept.push_back(stored.back());
    }
    const std::vector<CoveringTestRow> now = resolution.covering_tests(uses, kept);
    if (now == stored) return;

    const auto key_less = [](const CoveringTestRow& a, const CoveringTestRow& b) {
        return std::pair(a.source_file_id, a.test_file_id) < std::pair(b.source_file_id, b.test_file_id);
    };
    std::vector<CoveringTestRow> gone;
    std::set_difference(stored.begin(), stored.end(), now.begin(), now.end(), std::back_inserter(gone), key_less);
    Statement remove(db_, "DELETE FROM covering_tests WHERE source_file_id = ? AND test_file_id = ?");
    for (const auto& row : gone) {
        remove.bind(1, row.source_file_id).bind(2, row.test_file_id);
        remove.run();
    }
    std::vector<CoveringTestRow> changed;
    std::set_difference(now.begin(), now.end(), stored.begin(), stored.end(), std::back_inserter(changed),
                        [&](const CoveringTestRow& a, const CoveringTestRow& b) {
                            if (key_less(a, b) || key_less(b, a)) return key_less(a, b);
                            return std::pair(a.rank, a.used_symbols) < std::pair(b.rank, b.used_symbols);
                        });
    Statement upsert(db_, "INSERT OR REPLACE INTO covering_tests(source_file_id, test_file_id, rank, used_symbols) "
                          "VALUES (?, ?, ?, ?)");
    for (const auto& row : changed) {
        upsert.bind(1, row.source_file_id).bind(2, row.test_file_id).bind(3, row.rank).bind(4, row.used_symbols);
        upsert.run();
    }
}

bool IncrementalRefresh::run(const IndexSnapshot& written, const std::vector<PackageRoot>& packages) {
    if (db_.scalar_int("SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name = 'ref_targets_by_ref'") == 0) {
        return false;
    }
    if (!change_is_local(written)) return false;
    const IndexSnapshot snapshot = snapshot_for(references_to_resolve(written), packages);
    const PartialResolution resolution(snapshot);
    const std::set<std::int64_t> touched = write_edges(snapshot.references, resolution.edges());
    write_fan_in(touched);
    write_covering_tests(resolution, snapshot);
    return true;
}

}  // namespace orvane_kestrix::indexer
