#include "incremental_refresh.hpp"

#include <algorithm>
#include <map>
#include <string_view>
#include <unordered_map>

#include "orvane_kestrix/indexer/index_store.hpp"
#include "orvane_kestrix/storage/multi_row_insert.hpp"
#include "orvane_kestrix/text/string_hash.hpp"

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

}  // namespace

IncrementalRefresh::IncrementalRefresh(storage::Database& db) : db_(db) {}

void IncrementalRefresh::note_added(std::int64_t file_id) {
    changed_.insert(file_id);
    files_added_or_removed_ = true;
    note_module_keys(file_id);
}

// The names an import can use for a file that comes or goes: its name without extension, its
// directory's name (a package, a Go import path) and the last part of its module name. An
// import naming one of them may now mean other files.
void IncrementalRefresh::note_module_keys(std::int64_t file_id) {
    Statement file(db_, "SELECT path, module_name FROM files WHERE id = ?");
    file.bind(1, file_id);
    if (!file.step()) return;
    const std::string_view path = file.column_text(0);
    const auto slash = path.rfind('/');
    const std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    module_keys_.emplace(name.substr(0, name.find('.')));
    moved_stems_.emplace(name.substr(0, name.find('.')));
    if (slash != std::string_view::npos) {
        const std::string_view dir = path.substr(0, slash);
        module_keys_.emplace(dir.substr(dir.rfind('/') == std::string_view::npos ? 0 : dir.rfind('/') + 1));
    }
    import_names(file.column_text(1), "", "", [&](std::string_view key) { module_keys_.emplace(key); });
}

void IncrementalRefresh::record_before(std::int64_t file_id, bool removed) {
    if (!changed_.insert(file_id).second) return;
    FileBefore& before = before_[file_id];
    before.removed = removed;
    if (removed) {
        files_added_or_removed_ = true;
        note_module_keys(file_id);
    }
    Statement symbols(db_, "SELECT id, name, fqn, kind FROM symbols WHERE file_id = ? ORDER BY id");
    symbols.bind(1, file_id);
    while (symbols.step()) {
        before.symbols.push_back({symbols.column_int64(0), 0, symbols.column_string(1), symbols.column_string(2),
                                  symbols.column_string(3), 0});
    }
    // The edges into the file: they go with its symbols when it is written again, and those
    // whose symbol is defined again as it was are carried over to the new symbol.
    Statement edges(db_, "SELECT t.symbol_id, t.ref_id, f.is_test FROM symbols s JOIN ref_targets t ON t.symbol_id = s.id "
                         "JOIN refs r ON r.id = t.ref_id JOIN files f ON f.id = r.file_id WHERE s.file_id = ?");
    edges.bind(1, file_id);
    while (edges.step()) edges_in_.push_back({edges.column_int64(0), edges.column_int64(1), edges.column_int64(2) != 0});
    Statement refs(db_, "SELECT id FROM refs WHERE file_id = ?");
    refs.bind(1, file_id);
    while (refs.step()) old_references_.emplace(refs.column_int64(0), file_id);
    Statement imports(db_, "SELECT module, coalesce(name, ''), coalesce(alias, '') FROM imports WHERE file_id = ?");
    imports.bind(1, file_id);
    while (imports.step()) before.imports.push_back({imports.column_string(0), imports.column_string(1), imports.column_string(2)});
    Statement module(db_, "SELECT module_name, is_test FROM files WHERE id = ?");
    module.bind(1, file_id);
    if (module.step()) {
        before.module_name = module.column_string(0);
        before.is_test = module.column_int64(1) != 0;
    }
}

// Compares each changed file with what it held: the names whose definitions differ (a
// definition of that name added, removed, or with another qualified name or kind), and those
// of its imports when they differ, go to names_; the symbols defined again as they were are
// paired with their new ids. False when the change is beyond what this covers: a file that
// names its module differently, or imports other modules whole with `*` (through which any
// name may pass).
bool IncrementalRefresh::compare_with_before(const IndexSnapshot& written) {
    std::unordered_map<std::int64_t, std::vector<const SnapshotSymbol*>> symbols_now;
    for (const auto& symbol : written.symbols) {
        if (changed_.count(symbol.file_id) == 0) return false;
        symbols_now[symbol.file_id].push_back(&symbol);
    }
    std::unordered_map<std::int64_t, std::vector<ImportRow>> imports_now;
    for (const auto& import : written.imports) {
        if (changed_.count(import.file_id) == 0) return false;
        imports_now[import.file_id].push_back({import.module, import.name.value_or(""), import.alias.value_or("")});
    }
    if (!std::all_of(written.references.begin(), written.references.end(),
                     [&](const SnapshotReference& ref) { return changed_.count(ref.file_id) > 0; })) {
        return false;
    }
    Statement module(db_, "SELECT module_name FROM files WHERE id = ?");
    const auto add = [&](std::string_view name) { names_.emplace(name); };
    // A new file: everything it defines and imports is new.
    for (std::int64_t file_id : changed_) {
        if (before_.count(file_id) > 0) continue;
        for (const SnapshotSymbol* symbol : symbols_now[file_id]) add(symbol->name);
        for (const auto& row : imports_now[file_id]) import_names(row.module, row.name, row.alias, add);
    }
    for (auto& [file_id, before] : before_) {
        if (before.removed) {
            // Everything it defined and imported is gone; its references went with it.
            for (const auto& symbol : before.symbols) add(symbol.name);
            for (const auto& row : before.imports) import_names(row.module, row.name, row.alias, add);
            continue;
        }
        module.bind(1, file_id);
        if (!module.step() || module.column_text(0) != before.module_name) return false;
        module.reset();

        auto& now_imports = imports_now[file_id];
        std::sort(before.imports.begin(), before.imports.end());
        std::sort(now_imports.begin(), now_imports.end());
        if (before.imports != now_imports) {
            const auto wildcards = [](const std::vector<ImportRow>& rows) {
                std::vector<std::string> out;
                for (const auto& row : rows) {
                    if (row.name == "*") out.push_back(row.module);
                }
                return out;
            };
            if (wildcards(before.imports) != wildcards(now_imports)) return false;
            for (const auto* rows : {&before.imports, &now_imports}) {
                for (const auto& row : *rows) import_names(row.module, row.name, row.alias, add);
            }
        }

        // Definitions by name, each as (qualified name, kind, id) in id order.
        using Definitions = std::map<std::string, std::vector<std::tuple<std::string, std::string, std::int64_t>>>;
        Definitions old_by_name;
        Definitions new_by_name;
        for (const auto& symbol : before.symbols) old_by_name[symbol.name].emplace_back(symbol.fqn, symbol.kind, symbol.id);
        for (const SnapshotSymbol* symbol : symbols_now[file_id]) {
            new_by_name[symbol->name].emplace_back(symbol->fqn, symbol->kind, symbol->id);
        }
        const auto same_definitions = [](auto a, auto b) {
            std::sort(a.begin(), a.end());
            std::sort(b.begin(), b.end());
            return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                              [](const auto& x, const auto& y) { return std::get<0>(x) == std::get<0>(y) && std::get<1>(x) == std::get<1>(y); });
        };
        for (auto& [name, definitions] : old_by_name) {
            const auto now = new_by_name.find(name);
            if (now == new_by_name.end() || !same_definitions(definitions, now->second)) {
                add(name);
                continue;
            }
            // Defined again as before: each old symbol stands for the new one of the same
            // qualified name and kind, in order.
            std::sort(definitions.begin(), definitions.end());
            std::sort(now->second.begin(), now->second.end());
            for (std::size_t i = 0; i < definitions.size(); ++i) new_id_[std::get<2>(definitions[i])] = std::get<2>(now->second[i]);
        }
        for (const auto& [name, definitions] : new_by_name) {
            if (old_by_name.count(name) == 0) add(name);
        }
    }
    return true;
}

// Every file and import, and the references to resolve again: those of the changed files; those
// elsewhere that use a changed name, or an alias of an import of one (`from m import a as b`:
// code says `b`); and those whose definition went without a successor.
IndexSnapshot IncrementalRefresh::snapshot_for(const IndexSnapshot& written, const std::vector<PackageRoot>& packages) {
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
    std::set<std::string, std::less<>> wanted(names_.begin(), names_.end());  // symbols to load
    std::unordered_set<std::string, text::StringHash, std::equal_to<>> ref_names(names_.begin(), names_.end());
    std::unordered_set<std::int64_t>& importers = importers_;
    {
        Statement imports(db_, "SELECT file_id, module, name, alias FROM imports ORDER BY id");
        while (imports.step()) {
            snapshot.imports.push_back({imports.column_int64(0), imports.column_string(1), imports.column_optional_text(2),
                                        imports.column_optional_text(3)});
            const auto& import = snapshot.imports.back();
            if (!module_keys_.empty() && changed_.count(import.file_id) == 0 && importers.count(import.file_id) == 0) {
                bool names_moved = module_keys_.count(import.name.value_or("")) > 0;
                for (std::size_t start = 0; !names_moved && start <= import.module.size();) {
                    const std::size_t end = std::min(import.module.find_first_of("./:", start), import.module.size());
                    names_moved = end > start && module_keys_.count(import.module.substr(start, end - start)) > 0;
                    start = end + 1;
                }
                if (names_moved) importers.insert(import.file_id);
            }
            if (!import.alias) continue;
            // A lookup of an alias goes on with the name it stands for.
            bool changed = false;
            import_names(import.module, import.name.value_or(""), "", [&](std::string_view name) {
                wanted.emplace(name);
                changed |= names_.count(std::string(name)) > 0;
            });
            if (changed) ref_names.insert(*import.alias);
        }
    }

    snapshot.references = written.references;
    std::unordered_set<std::int64_t> orphaned;  // references whose definition has no successor
    for (const auto& edge : edges_in_) {
        if (new_id_.count(edge.symbol_id) == 0 && old_references_.count(edge.reference_id) == 0) orphaned.insert(edge.reference_id);
    }
    if (!ref_names.empty() || !orphaned.empty() || !importers.empty()) {
        Statement refs(db_, "SELECT id, file_id, name, qualifier, usage_type FROM refs");
        while (refs.step()) {
            const std::int64_t file = refs.column_int64(1);
            if (changed_.count(file) > 0) continue;
            if (ref_names.count(refs.column_text(2)) == 0 && orphaned.count(refs.column_int64(0)) == 0 && importers.count(file) == 0) {
                continue;
            }
            snapshot.references.push_back(
                {refs.column_int64(0), refs.column_int64(1), refs.column_string(2), refs.column_string(3), refs.column_string(4)});
        }
    }

    for (const auto& ref : snapshot.references) wanted.insert(ref.name);
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
    snapshot.packages = packages;
    return snapshot;
}

// Writes the edges: the resolved references' new ones in place of their stored ones (and of
// the changed files' former references), and for every other reference into a changed file,
// its edge carried to the successor of its symbol. Returns how the production fan-in of each
// symbol changes: an edge from a file that is not a test counts one.
std::map<std::int64_t, std::int64_t> IncrementalRefresh::write_edges(const IndexSnapshot& snapshot,
                                                                     std::vector<ReferenceEdge> edges) {
    std::unordered_set<std::int64_t> from_tests;
    for (const auto& file : snapshot.files) {
        if (file.is_test) from_tests.insert(file.id);
    }
    std::unordered_set<std::int64_t> resolved;
    std::unordered_set<std::int64_t> test_references;
    for (const auto& ref : snapshot.references) {
        resolved.insert(ref.id);
        if (from_tests.count(ref.file_id) > 0) test_references.insert(ref.id);
    }
    // Former references lie in changed or removed files, as they were.
    for (const auto& [ref, file] : old_references_) {
        if (before_.at(file).is_test) test_references.insert(ref);
    }

    std::vector<ReferenceEdge> before;
    Statement targets(db_, "SELECT symbol_id FROM ref_targets WHERE ref_id = ?");
    const auto read = [&](std::int64_t ref) {
        targets.bind(1, ref);
        while (targets.step()) before.push_back({targets.column_int64(0), ref});
        targets.reset();
    };
    for (const auto& ref : snapshot.references) {
        if (changed_.count(ref.file_id) == 0) read(ref.id);
    }
    for (const auto& entry : old_references_) read(entry.first);
    std::sort(before.begin(), before.end());

    std::map<std::int64_t, std::int64_t> fan_in_change;
    std::vector<ReferenceEdge> carried;
    for (const auto& edge : edges_in_) {
        if (resolved.count(edge.reference_id) > 0 || old_references_.count(edge.reference_id) > 0) continue;
        const auto successor = new_id_.find(edge.symbol_id);
        if (successor == new_id_.end()) continue;
        carried.push_back({successor->second, edge.reference_id});
        if (!edge.from_test) ++fan_in_change[successor->second];
    }

    std::vector<ReferenceEdge> removed;
    std::vector<ReferenceEdge> added;
    std::set_difference(before.begin(), before.end(), edges.begin(), edges.end(), std::back_inserter(removed));
    std::set_difference(edges.begin(), edges.end(), before.begin(), before.end(), std::back_inserter(added));
    Statement remove(db_, "DELETE FROM ref_targets WHERE symbol_id = ? AND ref_id = ?");
    for (const auto& edge : removed) {
        remove.bind(1, edge.symbol_id).bind(2, edge.reference_id);
        remove.run();
    }
    for (const auto& edge : removed) {
        if (test_references.count(edge.reference_id) == 0) --fan_in_change[edge.symbol_id];
    }
    for (const auto& edge : added) {
        if (test_references.count(edge.reference_id) == 0) ++fan_in_change[edge.symbol_id];
    }
    added.insert(added.end(), carried.begin(), carried.end());
    storage::MultiRowInsert insert(db_, "INSERT INTO ref_targets(symbol_id, ref_id)", 2, 64);
    insert.insert(added.size(), [&](storage::RowBinder& row, std::size_t k) {
        row.bind(1, added[k].symbol_id).bind(2, added[k].reference_id);
    });
    return fan_in_change;
}

void IncrementalRefresh::write_fan_in(const std::map<std::int64_t, std::int64_t>& changes) {
    Statement update(db_, "UPDATE symbols SET production_fan_in = production_fan_in + ? WHERE id = ?");
    for (const auto& [symbol, change] : changes) {
        if (change == 0) continue;
        update.bind(1, change).bind(2, symbol);
        update.run();
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
    // A file that came or went changes the coverage of the tests that import it (by the
    // files' names, resolved again above) and of those named after it.
    for (std::int64_t file : importers_) {
        if (is_test_file(file)) uses[file];
    }
    if (files_added_or_removed_) {
        for (const auto& file : snapshot.files) {
            if (!file.is_test || !file.is_source) continue;
            const std::string_view name = std::string_view(file.path).substr(file.path.rfind('/') + 1);
            if (std::any_of(moved_stems_.begin(), moved_stems_.end(),
                            [&](const std::string& stem) { return name.find(stem) != std::string_view::npos; })) {
                uses[file.id];
            }
        }
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
    if (!compare_with_before(written)) return false;
    const IndexSnapshot snapshot = snapshot_for(written, packages);
    const PartialResolution resolution(snapshot);
    write_fan_in(write_edges(snapshot, resolution.edges()));
    write_covering_tests(resolution, snapshot);
    return true;
}

}  // namespace orvane_kestrix::indexer
