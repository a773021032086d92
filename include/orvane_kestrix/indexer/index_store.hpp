#pragma once
// The index builder's writes to and reads from the SQLite index (schema in
// storage/sqlite_schema.hpp). One IndexStore per writer connection; not thread-safe.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "orvane_kestrix/indexer/extraction.hpp"
#include "orvane_kestrix/indexer/resolution.hpp"
#include "orvane_kestrix/storage/multi_row_insert.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix::indexer {

// What the index holds about a file between runs.
struct StoredFile {
    std::int64_t id = 0;
    std::string language;
    bool is_test = false;
    bool is_source = false;
    std::string component;
    std::string content_hash;
    std::int64_t size = 0;
    std::int64_t mtime_ns = -1;
};

// The file-level facts of one file to record.
struct FileFacts {
    std::string path;
    Language language = Language::python;
    bool is_test = false;
    bool is_source = false;
    std::string component;
    std::string content_hash;
    std::int64_t size = 0;
    std::int64_t mtime_ns = -1;
};

// A parsed file ready to be written: the extraction with every text valid UTF-8, and the
// token count of each symbol.
struct ParsedFile {
    FileFacts facts;
    FileExtraction extraction;
    std::vector<std::int64_t> token_counts;  // one per symbol
};

class IndexStore {
public:
    explicit IndexStore(storage::Database& db);

    std::unordered_map<std::string, StoredFile> load_files();

    // Writes go inside a transaction the caller holds, between begin_batch() and
    // finish_batch(), which brings the name search table up to date with the batch's symbols.
    void begin_batch();
    void finish_batch();
    // Inserts or replaces the file and everything extracted from it. Returns the file id.
    // With `collect`, the file's symbols, imports and references then move into it (as
    // load_snapshot would read them back), which spares reading them again.
    std::int64_t write_parsed(ParsedFile& file, std::optional<std::int64_t> existing_id,
                              IndexSnapshot* collect = nullptr);
    // The largest symbol id given out: write_parsed numbers a file's symbols from the next one,
    // in extraction order.
    std::int64_t last_symbol_id() const { return last_symbol_id_; }
    // Records a new size/mtime for a file whose content is unchanged.
    void update_stat(std::int64_t file_id, std::int64_t size, std::int64_t mtime_ns);
    // Updates the flags and component of an unchanged file.
    void update_facts(std::int64_t file_id, const FileFacts& facts);
    // Deletes a file and everything recorded from it.
    void delete_file(std::int64_t file_id);
    // Deletes components no file belongs to.
    void prune_components();

    // Every file, and the symbols, imports and references of all files but `known`.
    IndexSnapshot load_snapshot(const std::unordered_set<std::int64_t>& known = {});
    // The same into `into`: its files are replaced, the rows read are appended.
    void load_snapshot(IndexSnapshot& into, const std::unordered_set<std::int64_t>& known);
    // Makes the stored references, fan-in and covering tests those of `derived`, writing only
    // what differs. `snapshot` is the one `derived` was computed from: all symbols, with the
    // fan-in each has in the index.
    void write_derived(const DerivedData& derived, const IndexSnapshot& snapshot);

    std::int64_t count_files();
    std::int64_t count_symbols();
    std::int64_t count_references();

private:
    std::int64_t component_id(const std::string& name);
    void delete_contents(std::int64_t file_id);

    storage::Database& db_;
    std::int64_t batch_first_symbol_ = 0;  // symbols with larger ids are not yet in the name FTS table
    std::int64_t last_symbol_id_ = 0;      // the largest ids given out, new rows are numbered above
    std::int64_t last_ref_id_ = 0;
    std::unordered_map<std::string, std::int64_t> components_;
    storage::Statement insert_file_, update_file_, set_parent_, insert_import_, delete_edges_of_file_, delete_symbols_, delete_refs_, delete_imports_, update_stat_, update_facts_,
        insert_component_, fts_delete_names_;
    storage::MultiRowInsert insert_symbols_, insert_refs_;
};

// Language by its stored name.
std::optional<Language> language_from_name(std::string_view name);

}  // namespace orvane_kestrix::indexer
