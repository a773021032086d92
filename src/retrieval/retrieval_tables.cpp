#include "orvane_kestrix/retrieval/retrieval_tables.hpp"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "orvane_kestrix/retrieval/search_words.hpp"

namespace orvane_kestrix::retrieval {

namespace fs = std::filesystem;
using storage::Database;
using storage::Statement;

namespace {

// A word past this many repeats in one column adds little to BM25 (its term frequency
// saturates) and only makes the tables larger.
constexpr std::size_t kSymbolRepeats = 3;
constexpr std::size_t kFileRepeats = 4;

constexpr const char* kTables = R"sql(
CREATE VIRTUAL TABLE retrieval_symbol_text USING fts5(
  name, qualified, signature, doc, body, path, tokenize = 'ascii');
CREATE VIRTUAL TABLE retrieval_file_text USING fts5(path, body, tokenize = 'ascii');
CREATE VIRTUAL TABLE retrieval_symbol_vocab USING fts5vocab(retrieval_symbol_text, 'row');
CREATE VIRTUAL TABLE retrieval_file_vocab USING fts5vocab(retrieval_file_text, 'row');
CREATE TABLE retrieval_symbol_rows(
  file_id INTEGER NOT NULL,
  symbol_id INTEGER NOT NULL,
  PRIMARY KEY (file_id, symbol_id)
) WITHOUT ROWID;
CREATE INDEX retrieval_ref_targets_by_ref ON ref_targets(ref_id);
CREATE TABLE retrieval_file_state(
  file_id INTEGER PRIMARY KEY,
  content_hash TEXT NOT NULL,
  is_test INTEGER NOT NULL
);
)sql";

constexpr const char* kDropTables = R"sql(
DROP TABLE IF EXISTS retrieval_symbol_vocab;
DROP TABLE IF EXISTS retrieval_file_vocab;
DROP TABLE IF EXISTS retrieval_symbol_text;
DROP TABLE IF EXISTS retrieval_file_text;
DROP TABLE IF EXISTS retrieval_symbol_rows;
DROP TABLE IF EXISTS retrieval_file_state;
DROP INDEX IF EXISTS retrieval_ref_targets_by_ref;
)sql";

struct SymbolFacts {
    std::int64_t id = 0;
    std::optional<std::int64_t> parent;
    std::string name, fqn, kind;
    std::int64_t start_line = 1, end_line = 1;
    std::optional<std::string> signature, docstring;
};

struct FileJob {
    std::int64_t id = 0;
    std::string path;
    std::string content_hash;
    bool is_test = false;
    std::vector<SymbolFacts> symbols;
    // Filled by the workers.
    std::string file_body;
    std::vector<std::string> symbol_bodies;
    bool readable = false;
};

bool is_class_like(std::string_view kind) {
    return kind == "class" || kind == "interface" || kind == "struct" || kind == "trait" || kind == "enum" ||
           kind == "module" || kind == "namespace" || kind == "impl";
}

// Whether a line belongs to the definition below it: a comment line or an annotation.
bool leads_member(std::string_view line) {
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    for (std::string_view start : {"/*", "*", "//", "#[", "@"}) {
        if (line.starts_with(start)) return true;
    }
    return false;
}

std::optional<std::string> read_text(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    return std::move(text).str();
}

// Builds the body documents of one file's symbols and the file's own document.
void describe(const fs::path& root, FileJob& job) {
    const auto text = read_text(root / job.path);
    job.symbol_bodies.assign(job.symbols.size(), std::string());
    if (!text) return;
    job.readable = true;
    job.file_body = search_document(*text, kFileRepeats);

    // Byte offset of the start of each line (1-based lines; one extra entry for the end).
    std::vector<std::size_t> line_start{0, 0};
    for (std::size_t i = 0; i < text->size(); ++i) {
        if ((*text)[i] == '\n') line_start.push_back(i + 1);
    }
    line_start.push_back(text->size());
    const auto lines = static_cast<std::int64_t>(line_start.size() - 2);
    auto span = [&](std::int64_t from, std::int64_t to) -> std::string_view {
        from = std::clamp<std::int64_t>(from, 1, std::max<std::int64_t>(lines, 1));
        to = std::clamp<std::int64_t>(to, from, std::max<std::int64_t>(lines, 1));
        const std::size_t begin = line_start[static_cast<std::size_t>(from)];
        const std::size_t end = line_start[static_cast<std::size_t>(to) + 1];
        return std::string_view(*text).substr(begin, end - begin);
    };

    std::unordered_map<std::int64_t, std::vector<std::size_t>> children;
    for (std::size_t i = 0; i < job.symbols.size(); ++i) {
        if (job.symbols[i].parent) children[*job.symbols[i].parent].push_back(i);
    }
    for (std::size_t i = 0; i < job.symbols.size(); ++i) {
        const SymbolFacts& symbol = job.symbols[i];
        SearchDocument body(kSymbolRepeats);
        std::int64_t from = symbol.start_line;
        if (is_class_like(symbol.kind)) {
            // The member definitions are rows of their own: the class keeps the lines between them.
            std::vector<std::pair<std::int64_t, std::int64_t>> holes;
            if (auto it = children.find(symbol.id); it != children.end()) {
                for (std::size_t child : it->second) {
                    // A member's doc comment and annotations sit above it, and belong to it.
                    std::int64_t first = job.symbols[child].start_line;
                    while (first - 1 > symbol.start_line && leads_member(span(first - 1, first - 1))) --first;
                    holes.emplace_back(first, job.symbols[child].end_line);
                }
            }
            std::sort(holes.begin(), holes.end());
            for (const auto& [hole_from, hole_to] : holes) {
                if (hole_from > from) body.add(span(from, hole_from - 1));
                from = std::max(from, hole_to + 1);
            }
        }
        if (from <= symbol.end_line) body.add(span(from, symbol.end_line));
        job.symbol_bodies[i] = body.take();
    }
}

void describe_all(const fs::path& root, std::vector<FileJob>& jobs, unsigned threads) {
    if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
    threads = static_cast<unsigned>(std::min<std::size_t>(threads, std::max<std::size_t>(1, jobs.size())));
    std::atomic<std::size_t> next{0};
    auto work = [&] {
        for (;;) {
            const std::size_t i = next.fetch_add(1);
            if (i >= jobs.size()) break;
            describe(root, jobs[i]);
        }
    };
    std::vector<std::thread> workers;
    for (unsigned t = 1; t < threads; ++t) workers.emplace_back(work);
    work();
    for (auto& worker : workers) worker.join();
}

bool table_exists(Database& db, std::string_view name) {
    Statement statement(db, "SELECT 1 FROM sqlite_master WHERE name = ?");
    statement.bind(1, name);
    return statement.step();
}

}  // namespace

bool has_retrieval_tables(Database& db) {
    if (!table_exists(db, "retrieval_symbol_text") || !table_exists(db, "retrieval_file_state")) return false;
    return storage::read_meta(db, kRetrievalRevisionKey).value_or("") == kRetrievalRevision;
}

RetrievalRefreshStats refresh_retrieval_tables(Database& db, const fs::path& root, unsigned jobs) {
    RetrievalRefreshStats stats;
    storage::Transaction transaction(db);
    if (storage::read_meta(db, kRetrievalRevisionKey).value_or("") != kRetrievalRevision ||
        !table_exists(db, "retrieval_file_state")) {
        db.exec(kDropTables);
        db.exec(kTables);
        storage::write_meta(db, kRetrievalRevisionKey, kRetrievalRevision);
    }

    struct State {
        std::string content_hash;
        bool is_test = false;
    };
    std::unordered_map<std::int64_t, State> state;
    {
        Statement q(db, "SELECT file_id, content_hash, is_test FROM retrieval_file_state");
        while (q.step()) state[q.column_int64(0)] = {q.column_string(1), q.column_int64(2) != 0};
    }
    std::vector<FileJob> to_describe;
    std::vector<std::int64_t> to_drop;
    {
        Statement q(db, "SELECT id, path, content_hash, is_test FROM files WHERE is_source = 1 ORDER BY id");
        while (q.step()) {
            const std::int64_t id = q.column_int64(0);
            const bool is_test = q.column_int64(3) != 0;
            const std::string_view hash = q.column_text(2);
            auto it = state.find(id);
            if (it != state.end()) {
                const bool same = it->second.content_hash == hash && it->second.is_test == is_test;
                state.erase(it);
                if (same) continue;
                to_drop.push_back(id);
            }
            FileJob job;
            job.id = id;
            job.path = q.column_string(1);
            job.content_hash = std::string(hash);
            job.is_test = is_test;
            to_describe.push_back(std::move(job));
        }
    }
    // What remains in `state` is gone from the index, or no longer source code.
    for (const auto& [id, old] : state) to_drop.push_back(id);
    stats.dropped = static_cast<std::int64_t>(state.size());

    if (!to_drop.empty()) {
        Statement drop_symbols(db, "DELETE FROM retrieval_symbol_text WHERE rowid IN "
                                   "(SELECT symbol_id FROM retrieval_symbol_rows WHERE file_id = ?)");
        Statement drop_rows(db, "DELETE FROM retrieval_symbol_rows WHERE file_id = ?");
        Statement drop_file(db, "DELETE FROM retrieval_file_text WHERE rowid = ?");
        Statement drop_state(db, "DELETE FROM retrieval_file_state WHERE file_id = ?");
        for (std::int64_t id : to_drop) {
            for (Statement* statement : {&drop_symbols, &drop_rows, &drop_file, &drop_state}) {
                statement->bind(1, id);
                statement->run();
            }
        }
    }

    if (!to_describe.empty()) {
        Statement symbols(db, "SELECT id, parent_id, name, fqn, kind, start_line, end_line, signature, docstring "
                              "FROM symbols WHERE file_id = ? ORDER BY id");
        for (FileJob& job : to_describe) {
            symbols.bind(1, job.id);
            while (symbols.step()) {
                SymbolFacts symbol;
                symbol.id = symbols.column_int64(0);
                symbol.parent = symbols.column_optional_int64(1);
                symbol.name = symbols.column_string(2);
                symbol.fqn = symbols.column_string(3);
                symbol.kind = symbols.column_string(4);
                symbol.start_line = symbols.column_int64(5);
                symbol.end_line = symbols.column_int64(6);
                symbol.signature = symbols.column_optional_text(7);
                symbol.docstring = symbols.column_optional_text(8);
                job.symbols.push_back(std::move(symbol));
            }
            symbols.reset();
        }
        describe_all(root, to_describe, jobs);

        Statement insert_symbol(db, "INSERT INTO retrieval_symbol_text(rowid, name, qualified, signature, doc, body, path) "
                                    "VALUES (?, ?, ?, ?, ?, ?, ?)");
        Statement insert_row(db, "INSERT INTO retrieval_symbol_rows(file_id, symbol_id) VALUES (?, ?)");
        Statement insert_file(db, "INSERT INTO retrieval_file_text(rowid, path, body) VALUES (?, ?, ?)");
        Statement insert_state(db, "INSERT INTO retrieval_file_state(file_id, content_hash, is_test) VALUES (?, ?, ?)");
        for (FileJob& job : to_describe) {
            std::string path = search_document(job.path);
            if (job.is_test) {
                path += ' ';
                path += kTestFileMarker;
            }
            for (std::size_t i = 0; i < job.symbols.size(); ++i) {
                const SymbolFacts& symbol = job.symbols[i];
                const std::string name = search_document(symbol.name);
                std::string qualified = search_document(symbol.fqn);
                const std::string signature = symbol.signature ? search_document(*symbol.signature, kSymbolRepeats) : "";
                const std::string doc = symbol.docstring ? search_document(*symbol.docstring, kSymbolRepeats) : "";
                insert_symbol.bind(1, symbol.id)
                    .bind_static(2, name)
                    .bind_static(3, qualified)
                    .bind_static(4, signature)
                    .bind_static(5, doc)
                    .bind_static(6, job.symbol_bodies[i])
                    .bind_static(7, path);
                insert_symbol.run();
                insert_row.bind(1, job.id).bind(2, symbol.id);
                insert_row.run();
            }
            insert_file.bind(1, job.id).bind_static(2, path).bind_static(3, job.file_body);
            insert_file.run();
            insert_state.bind(1, job.id).bind(2, job.content_hash).bind(3, job.is_test);
            insert_state.run();
            ++stats.described;
            // The texts are written; free them as we go.
            std::string().swap(job.file_body);
            std::vector<std::string>().swap(job.symbol_bodies);
        }
    }
    transaction.commit();
    return stats;
}

}  // namespace orvane_kestrix::retrieval
