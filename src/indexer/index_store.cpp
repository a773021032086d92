#include "orvane_kestrix/indexer/index_store.hpp"

#include <algorithm>
#include <charconv>
#include <string>

#include "languages.hpp"

namespace orvane_kestrix::indexer {

using storage::Statement;

namespace {

// The largest id a table has ever held: its rows', or the mark in meta (rows at the end of the
// table may have been deleted since).
std::int64_t last_id(storage::Database& db, const char* table, std::string_view meta_key) {
    const std::int64_t in_table = db.scalar_int(std::string("SELECT coalesce(max(id), 0) FROM ") + table);
    const std::string mark = storage::read_meta(db, meta_key).value_or("0");
    std::int64_t recorded = 0;
    std::from_chars(mark.data(), mark.data() + mark.size(), recorded);
    return std::max(in_table, recorded);
}

}  // namespace

std::optional<Language> language_from_name(std::string_view name) {
    for (const LanguageSpec& spec : all_languages()) {
        if (spec.name == name) return spec.language;
    }
    return std::nullopt;
}

IndexStore::IndexStore(storage::Database& db)
    : db_(db),
      insert_file_(db, "INSERT INTO files(path, language, is_test, is_source, component_id, content_hash, size, "
                       "mtime_ns, module_name, has_syntax_errors) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
      update_file_(db, "UPDATE files SET language = ?2, is_test = ?3, is_source = ?4, component_id = ?5, "
                       "content_hash = ?6, size = ?7, mtime_ns = ?8, module_name = ?9, has_syntax_errors = ?10 "
                       "WHERE id = ?1"),
      set_parent_(db, "UPDATE symbols SET parent_id = ? WHERE id = ?"),
      insert_import_(db, "INSERT INTO imports(file_id, module, name, alias, line) VALUES (?, ?, ?, ?, ?)"),
      delete_edges_of_file_(db, "DELETE FROM ref_targets WHERE symbol_id IN (SELECT id FROM symbols WHERE file_id = ?)"),
      delete_symbols_(db, "DELETE FROM symbols WHERE file_id = ?"),
      delete_refs_(db, "DELETE FROM refs WHERE file_id = ?"),
      delete_imports_(db, "DELETE FROM imports WHERE file_id = ?"),
      update_stat_(db, "UPDATE files SET size = ?, mtime_ns = ? WHERE id = ?"),
      update_facts_(db, "UPDATE files SET is_test = ?, is_source = ?, component_id = ? WHERE id = ?"),
      insert_component_(db, "INSERT INTO components(name) VALUES (?)"),
      fts_delete_names_(db, "INSERT INTO symbol_names(symbol_names, rowid, name) "
                            "SELECT 'delete', id, name FROM symbols WHERE file_id = ? AND id <= ?"),
      insert_symbols_(db, "INSERT INTO symbols(file_id, parent_id, name, fqn, kind, start_line, end_line, signature, "
                          "docstring, docstring_truncated, is_export, token_count, id)", 13),
      insert_refs_(db, "INSERT INTO refs(file_id, caller_id, name, qualifier, usage_type, line, context, id)", 8) {
    Statement components(db_, "SELECT id, name FROM components");
    while (components.step()) components_[components.column_string(1)] = components.column_int64(0);
    last_symbol_id_ = last_id(db_, "symbols", storage::meta_key::last_symbol_id);
    last_ref_id_ = last_id(db_, "refs", storage::meta_key::last_ref_id);
    batch_first_symbol_ = last_symbol_id_;
}

std::unordered_map<std::string, StoredFile> IndexStore::load_files() {
    std::unordered_map<std::string, StoredFile> files;
    Statement statement(db_,
                        "SELECT f.id, f.path, f.language, f.is_test, f.is_source, coalesce(c.name, ''), f.content_hash, "
                        "f.size, f.mtime_ns FROM files f LEFT JOIN components c ON c.id = f.component_id");
    while (statement.step()) {
        StoredFile file;
        file.id = statement.column_int64(0);
        file.language = statement.column_string(2);
        file.is_test = statement.column_int64(3) != 0;
        file.is_source = statement.column_int64(4) != 0;
        file.component = statement.column_string(5);
        file.content_hash = statement.column_string(6);
        file.size = statement.column_int64(7);
        file.mtime_ns = statement.column_int64(8);
        files.emplace(statement.column_string(1), std::move(file));
    }
    return files;
}

std::int64_t IndexStore::component_id(const std::string& name) {
    if (auto it = components_.find(name); it != components_.end()) return it->second;
    insert_component_.bind(1, name);
    insert_component_.run();
    const std::int64_t id = db_.last_insert_rowid();
    components_[name] = id;
    return id;
}

void IndexStore::delete_contents(std::int64_t file_id) {
    // Edges of this file's references to other files stay until the refresh recomputes them;
    // reference and symbol ids are never reused, so they cannot be mistaken for new ones.
    fts_delete_names_.bind(1, file_id).bind(2, batch_first_symbol_);
    fts_delete_names_.run();
    delete_edges_of_file_.bind(1, file_id);
    delete_edges_of_file_.run();
    delete_symbols_.bind(1, file_id);
    delete_symbols_.run();
    delete_refs_.bind(1, file_id);
    delete_refs_.run();
    delete_imports_.bind(1, file_id);
    delete_imports_.run();
}

std::int64_t IndexStore::write_parsed(ParsedFile& file, std::optional<std::int64_t> existing_id, IndexSnapshot* collect) {
    const FileFacts& facts = file.facts;
    FileExtraction& extraction = file.extraction;
    std::int64_t file_id = 0;
    Statement& statement = existing_id ? update_file_ : insert_file_;
    if (existing_id) {
        delete_contents(*existing_id);
        statement.bind(1, *existing_id);
    } else {
        statement.bind(1, facts.path);
    }
    statement.bind(2, language_name(facts.language))
        .bind(3, facts.is_test)
        .bind(4, facts.is_source)
        .bind(5, component_id(facts.component))
        .bind(6, facts.content_hash)
        .bind(7, facts.size)
        .bind(8, facts.mtime_ns)
        .bind(9, extraction.module_name)
        .bind(10, extraction.has_syntax_errors);
    statement.run();
    file_id = existing_id ? *existing_id : db_.last_insert_rowid();

    // Ids are given out here, so a symbol's parent id is known before either row is written.
    std::vector<std::int64_t> symbol_ids(extraction.symbols.size(), 0);
    for (auto& id : symbol_ids) id = ++last_symbol_id_;
    std::vector<std::pair<std::int64_t, std::size_t>> late_parents;
    insert_symbols_.insert(extraction.symbols.size(), [&](storage::RowBinder& row, std::size_t i) {
        const ExtractedSymbol& symbol = extraction.symbols[i];
        std::optional<std::int64_t> parent;
        if (symbol.parent && *symbol.parent < i) parent = symbol_ids[*symbol.parent];
        row.bind(1, file_id)
            .bind(2, parent)
            .bind_static(3, symbol.name)
            .bind_static(4, symbol.fqn)
            .bind_static(5, symbol.kind)
            .bind(6, symbol.start_line)
            .bind(7, symbol.end_line)
            .bind_static(8, symbol.signature)
            .bind_static(9, symbol.docstring)
            .bind(10, symbol.docstring_truncated)
            .bind(11, symbol.is_export)
            .bind(12, i < file.token_counts.size() ? file.token_counts[i] : std::int64_t{0})
            .bind(13, symbol_ids[i]);
        if (symbol.parent && *symbol.parent >= i && *symbol.parent < extraction.symbols.size() && *symbol.parent != i) {
            late_parents.emplace_back(symbol_ids[i], *symbol.parent);
        }
    });
    for (const auto& [id, parent] : late_parents) {
        set_parent_.bind(1, symbol_ids[parent]).bind(2, id);
        set_parent_.run();
    }

    const std::int64_t first_ref = last_ref_id_ + 1;
    insert_refs_.insert(extraction.references.size(), [&](storage::RowBinder& row, std::size_t i) {
        const ExtractedReference& ref = extraction.references[i];
        std::optional<std::int64_t> caller;
        if (ref.caller && *ref.caller < symbol_ids.size()) caller = symbol_ids[*ref.caller];
        row.bind(1, file_id)
            .bind(2, caller)
            .bind_static(3, ref.name)
            .bind_static(4, ref.qualifier)
            .bind_static(5, ref.usage_type)
            .bind(6, ref.line)
            .bind_static(7, ref.context)
            .bind(8, first_ref + static_cast<std::int64_t>(i));
    });
    last_ref_id_ += static_cast<std::int64_t>(extraction.references.size());

    for (const ExtractedImport& import : extraction.imports) {
        auto write = [&](const std::optional<std::string>& name) {
            insert_import_.bind(1, file_id).bind(2, import.module).bind(3, name).bind(4, import.alias).bind(5, import.line);
            insert_import_.run();
        };
        if (import.names.empty()) {
            write(std::nullopt);
        } else {
            for (const auto& name : import.names) write(name);
        }
    }

    if (collect != nullptr) {
        for (std::size_t i = 0; i < extraction.symbols.size(); ++i) {
            auto& symbol = extraction.symbols[i];
            collect->symbols.push_back({symbol_ids[i], file_id, std::move(symbol.name), std::move(symbol.fqn), std::move(symbol.kind)});
        }
        // References of one file got consecutive ids.
        std::int64_t ref_id = first_ref;
        for (auto& ref : extraction.references) {
            collect->references.push_back({ref_id++, file_id, std::move(ref.name), std::move(ref.qualifier), std::move(ref.usage_type)});
        }
        for (auto& import : extraction.imports) {
            if (import.names.empty()) {
                collect->imports.push_back({file_id, import.module, std::nullopt, import.alias});
            } else {
                for (auto& name : import.names) collect->imports.push_back({file_id, import.module, std::move(name), import.alias});
            }
        }
    }
    return file_id;
}

void IndexStore::begin_batch() { batch_first_symbol_ = last_symbol_id_; }

void IndexStore::finish_batch() {
    Statement names(db_, "INSERT INTO symbol_names(rowid, name) SELECT id, name FROM symbols WHERE id > ?");
    names.bind(1, batch_first_symbol_);
    names.run();
    batch_first_symbol_ = last_symbol_id_;
    storage::write_meta(db_, storage::meta_key::last_symbol_id, std::to_string(last_symbol_id_));
    storage::write_meta(db_, storage::meta_key::last_ref_id, std::to_string(last_ref_id_));
}

void IndexStore::update_stat(std::int64_t file_id, std::int64_t size, std::int64_t mtime_ns) {
    update_stat_.bind(1, size).bind(2, mtime_ns).bind(3, file_id);
    update_stat_.run();
}

void IndexStore::update_facts(std::int64_t file_id, const FileFacts& facts) {
    update_facts_.bind(1, facts.is_test).bind(2, facts.is_source).bind(3, component_id(facts.component)).bind(4, file_id);
    update_facts_.run();
}

void IndexStore::delete_file(std::int64_t file_id) {
    delete_contents(file_id);
    Statement tests(db_, "DELETE FROM covering_tests WHERE source_file_id = ?1 OR test_file_id = ?1");
    tests.bind(1, file_id);
    tests.run();
    Statement file(db_, "DELETE FROM files WHERE id = ?");
    file.bind(1, file_id);
    file.run();
}

void IndexStore::prune_components() {
    db_.exec("DELETE FROM components WHERE id NOT IN (SELECT component_id FROM files WHERE component_id IS NOT NULL)");
    components_.clear();
    Statement components(db_, "SELECT id, name FROM components");
    while (components.step()) components_[components.column_string(1)] = components.column_int64(0);
}

IndexSnapshot IndexStore::load_snapshot(const std::unordered_set<std::int64_t>& known) {
    IndexSnapshot snapshot;
    load_snapshot(snapshot, known);
    return snapshot;
}

void IndexStore::load_snapshot(IndexSnapshot& snapshot, const std::unordered_set<std::int64_t>& known) {
    snapshot.files.clear();
    {
        Statement statement(db_, "SELECT id, path, language, is_test, is_source, module_name FROM files ORDER BY id");
        while (statement.step()) {
            const auto language = language_from_name(statement.column_text(2));
            if (!language) continue;
            snapshot.files.push_back({statement.column_int64(0), statement.column_string(1), *language,
                                      statement.column_int64(3) != 0, statement.column_int64(4) != 0,
                                      statement.column_string(5)});
        }
    }
    // When most files are known, the others are read one by one through the file indexes;
    // otherwise whole tables are read and the known files' rows passed over.
    const bool per_file = known.size() * 2 > snapshot.files.size();
    auto read = [&](const std::string& columns, const std::string& table, auto&& add) {
        if (per_file) {
            Statement statement(db_, "SELECT " + columns + " FROM " + table + " WHERE file_id = ? ORDER BY id");
            for (const auto& file : snapshot.files) {
                if (known.count(file.id) > 0) continue;
                statement.bind(1, file.id);
                while (statement.step()) add(statement);
                statement.reset();
            }
        } else {
            Statement statement(db_, "SELECT " + columns + " FROM " + table + " ORDER BY id");
            while (statement.step()) {
                if (known.count(statement.column_int64(0)) == 0) add(statement);
            }
        }
    };
    if (!per_file) {
        snapshot.symbols.reserve(static_cast<std::size_t>(count_symbols()));
        snapshot.references.reserve(static_cast<std::size_t>(count_references()));
    }
    read("file_id, id, name, fqn, kind, production_fan_in", "symbols", [&](Statement& row) {
        snapshot.symbols.push_back({row.column_int64(1), row.column_int64(0), row.column_string(2), row.column_string(3),
                                    row.column_string(4), row.column_int64(5)});
    });
    read("file_id, module, name, alias", "imports", [&](Statement& row) {
        snapshot.imports.push_back(
            {row.column_int64(0), row.column_string(1), row.column_optional_text(2), row.column_optional_text(3)});
    });
    read("file_id, id, name, qualifier, usage_type", "refs", [&](Statement& row) {
        snapshot.references.push_back(
            {row.column_int64(1), row.column_int64(0), row.column_string(2), row.column_string(3), row.column_string(4)});
    });
}

void IndexStore::write_derived(const DerivedData& derived, const IndexSnapshot& snapshot) {
    // Reference edges: both sides sorted by (symbol, reference), so one merge gives the change.
    std::vector<ReferenceEdge> stored;
    {
        Statement statement(db_, "SELECT symbol_id, ref_id FROM ref_targets ORDER BY symbol_id, ref_id");
        while (statement.step()) stored.push_back({statement.column_int64(0), statement.column_int64(1)});
    }
    {
        Statement remove(db_, "DELETE FROM ref_targets WHERE symbol_id = ? AND ref_id = ?");
        std::vector<ReferenceEdge> added;
        std::size_t i = 0;
        std::size_t j = 0;
        while (i < stored.size() || j < derived.edges.size()) {
            if (j == derived.edges.size() || (i < stored.size() && stored[i] < derived.edges[j])) {
                remove.bind(1, stored[i].symbol_id).bind(2, stored[i].reference_id);
                remove.run();
                ++i;
            } else if (i == stored.size() || derived.edges[j] < stored[i]) {
                added.push_back(derived.edges[j]);
                ++j;
            } else {
                ++i;
                ++j;
            }
        }
        storage::MultiRowInsert add(db_, "INSERT INTO ref_targets(symbol_id, ref_id)", 2, 64);
        add.insert(added.size(), [&](storage::RowBinder& row, std::size_t k) {
            row.bind(1, added[k].symbol_id).bind(2, added[k].reference_id);
        });
    }

    // Fan-in: only the symbols whose count changed.
    {
        std::vector<std::pair<std::int64_t, std::int64_t>> changes;
        for (const auto& symbol : snapshot.symbols) {
            const auto it = derived.fan_in.find(symbol.id);
            const std::int64_t fan_in = it == derived.fan_in.end() ? 0 : it->second;
            if (fan_in != symbol.stored_fan_in) changes.emplace_back(symbol.id, fan_in);
        }
        Statement update(db_, "UPDATE symbols SET production_fan_in = ? WHERE id = ?");
        for (const auto& [id, fan_in] : changes) {
            update.bind(1, fan_in).bind(2, id);
            update.run();
        }
    }

    // Covering tests: few rows; replaced whole.
    db_.exec("DELETE FROM covering_tests");
    Statement insert(db_, "INSERT INTO covering_tests(source_file_id, test_file_id, rank, used_symbols) VALUES (?, ?, ?, ?)");
    for (const auto& row : derived.covering_tests) {
        insert.bind(1, row.source_file_id).bind(2, row.test_file_id).bind(3, row.rank).bind(4, row.used_symbols);
        insert.run();
    }
}

std::int64_t IndexStore::count_files() { return db_.scalar_int("SELECT count(*) FROM files"); }
std::int64_t IndexStore::count_symbols() { return db_.scalar_int("SELECT count(*) FROM symbols"); }
std::int64_t IndexStore::count_references() { return db_.scalar_int("SELECT count(*) FROM refs"); }

}  // namespace orvane_kestrix::indexer
